// Test support for the parsers' unit tests: a fixture with a scratch directory and a group of its
// own in the process-wide parameter tree, and parameters bound to backing files.
#pragma once

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "init/logcapture.h"
#include "mapping/quibmapping.h"
#include "parsers/mappinginterface.h"
#include "parsers/parserframework.h"
#include "values/legacydatarep.h"

namespace tessard::test {

inline void write_file(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline std::string read_file(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

inline bool exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

// The parameter's value as text ("<none>" unless it holds a scalar).
inline std::string value_text(Param* param, char* quote = nullptr) {
  Data* data = map_getParamData(param);
  if (data == nullptr || data->type != DATA_SCALAR) return "<none>";
  char* text = legacy_drep_getCustomString(data, quote);
  std::string result = text;
  free(text);
  return result;
}

// Gives the parameter a new "string" value, as a client's change does.
inline void client_sets(Param* param, const char* text) {
  Data* data = legacy_drep_createData();
  legacy_drep_initializeScalar(data, SCALAR_CUSTOM, "string");
  legacy_drep_setCustomFromString(data, text, nullptr);
  map_setParamData(param, data);
  param->status = PARAMSTATUS_UPDATED;
  param->synced = 0;
}

class ParserTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    static bool started = false;
    if (!started) parser_init();
    started = true;
  }
  void SetUp() override {
    mif_init();
    clear_captured_log();
    group_ = new_group();
    const char* base = getenv("TMPDIR");
    dir_ = std::string(base != nullptr ? base : "/tmp") + "/parsers_test.XXXXXX";
    ASSERT_NE(mkdtemp(dir_.data()), nullptr);
  }
  void TearDown() override {
    mif_reset();
    EXPECT_EQ(system(("rm -rf '" + dir_ + "'").c_str()), 0);
  }

  // A new group below the root: each test binds its parameters in groups of its own.
  static Group* new_group() {
    static int groups = 0;
    Group* root = map_getRootGroup();
    if (root == nullptr) map_addGroup("root", nullptr, &root);
    Group* group = nullptr;
    map_addGroup(("T" + std::to_string(++groups)).c_str(), root, &group);
    return group;
  }
  std::string file(const std::string& name) const { return dir_ + "/" + name; }
  // A parameter of the test's group bound to `path` by `parser` at `mount`.
  Param* param(const char* name, const std::string& path, const char* mount,
               const char* parser = "Standardparser") {
    Param* p = nullptr;
    map_createParam(name, group_, &p);
    if (parser != nullptr) map_setParamOption("parser", parser, p);
    if (!path.empty()) map_setParamOption("file", path.c_str(), p);
    map_setParamOption("mount", mount, p);
    return p;
  }
  int invoke(Param* p, int readonly) { return parser_invokeForParam(p, group_->path, readonly); }
  int temp_files() const {
    int count = 0;
    DIR* dir = opendir(dir_.c_str());
    while (dirent* entry = readdir(dir)) count += std::string(entry->d_name).ends_with(".temp");
    closedir(dir);
    return count;
  }

  Group* group_ = nullptr;
  std::string dir_;
};

}  // namespace tessard::test
