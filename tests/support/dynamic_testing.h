// Test fixture for dynamic groups: template, data and scratch directories in a fresh temporary
// directory, named so that a pending file's path is shorter than its final file's, as with the
// daemon's /tmp and /etc/dynamic. File names are lowered and their dots replaced, so the directory
// path must be lower case without dots; a test fails at once when $TMPDIR does not allow that.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "dynamic/dynamic.h"
#include "dynamic/dynamic_internal.h"

inline void write_text(const std::string& path, const std::string& text) {
  std::ofstream out(path);
  out << text;
  ASSERT_TRUE(out.good()) << path;
}

inline std::string read_text(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

inline bool exists(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0;
}

class DynamicDirsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    static int counter = 0;
    const char* tmp = getenv("TMPDIR");
    root_ = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/dyntest_" +
            std::to_string(getpid()) + "_" + std::to_string(counter++);
    for (char c : root_) {
      ASSERT_FALSE(isupper(static_cast<unsigned char>(c)) || c == '.')
          << "temporary directory " << root_ << " must be lower case without dots";
    }
    for (const char* sub : {"", "/tmpl", "/tmplfb", "/etcdynamic", "/etcdynamic/param", "/tmp"}) {
      ASSERT_EQ(mkdir((root_ + sub).c_str(), 0755), 0) << root_ + sub << ": " << strerror(errno);
    }
    ASSERT_EQ(dyn_init(dir("tmpl").c_str(), dir("tmplfb").c_str(), dir("etcdynamic/param").c_str(),
                       dir("etcdynamic").c_str()),
              0);
    dyn_setScratchDir(dir("tmp").c_str());
  }
  void TearDown() override {
    while (TmpListEntry* entry = dyn_tmplistHead()) remove_tmplist(entry);
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }

  std::string dir(const std::string& sub) const { return root_ + "/" + sub; }

  std::string root_;
};
