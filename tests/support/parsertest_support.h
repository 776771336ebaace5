// Test support for the parsers' unit tests: a fixture with a scratch directory and a group of its
// own in the process-wide parameter tree, and parameters bound to backing files.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "mapping/quibmapping.h"
#include "parsers/mappinginterface.h"
#include "parsers/parserframework.h"
#include "tests/support/logcapture.h"
#include "tests/support/paramvalue.h"
#include "tests/support/textfile.h"

namespace tessard::test {

// Gives the parameter a new value, as a client's change does: `data`, or the string `text`.
inline void client_sets(Param* param, const char* text, Data* data = nullptr) {
  map_setParamData(param, data != nullptr ? data : string_data(text));
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
  // A parameter of the test's group bound at `mount`, to `path` by `parser` when they are given.
  Param* param(const char* name, const std::string& path, const char* mount,
               const char* parser = "Standardparser") {
    Param* p = nullptr;
    map_createParam(name, group_, &p);
    if (parser != nullptr) map_setParamOption("parser", parser, p);
    if (!path.empty()) map_setParamOption("file", path.c_str(), p);
    map_setParamOption("mount", mount, p);
    return p;
  }
  // A parameter of the test's group bound at `mount`, to no file.
  Param* bound(const char* mount) {
    return param(("p" + std::to_string(++params_)).c_str(), "", mount, nullptr);
  }
  int invoke(Param* p, int readonly) { return parser_invokeForParam(p, group_->path, readonly); }

  Group* group_ = nullptr;
  std::string dir_;
  int params_ = 0;
};

}  // namespace tessard::test
