// Creating, deleting and synchronising dynamic groups with the parameter database.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <utility>

#include "dynamic/dynamic.h"
#include "dynamic/dynamic_internal.h"
#include "init/init.h"
#include "mapping/quibmapping.h"
#include "parsers/mappinginterface.h"
#include "parsers/parserframework.h"
#include "tests/support/dynamic_testing.h"

namespace {

constexpr const char* kGroupTemplate =
    "group REPLACE_GROUP {\n"
    "file = \"REPLACE_FILE\"\n"
    "parser = \"Standardparser\"\n"
    "param Name {\n"
    "mount = \"Standard{REPLACE}{Name}\"\n"
    "type = \"string\"\n"
    "}\n"
    "}\n";
constexpr const char* kParamTemplate = "[REPLACE]\nName default\n";

class DynamicGroupsTest : public DynamicDirsTest {
 protected:
  void SetUp() override {
    DynamicDirsTest::SetUp();
    init_installMapHooks();
    static const bool kParsersReady = parser_init() == 0;
    ASSERT_TRUE(kParsersReady);
    ASSERT_EQ(mif_init(), 0);
    ASSERT_EQ(map_init("/dev/null"), 0);
    write_text(dir("tmplfb") + "/Eth_grp.conf", kGroupTemplate);
    write_text(dir("tmpl") + "/Eth_par.conf", kParamTemplate);
  }
  void TearDown() override {
    upgradeMode = 0;
    DynamicDirsTest::TearDown();
  }

  // Creates a group under root.Net.Interface and returns its name ("" on failure).
  std::string create(int number, int* status = nullptr, const char* tmpl = "Eth") {
    char* name = create_new_group("root.Net.Interface", number, tmpl, status, 10);
    std::string result = name != nullptr ? name : "";
    free(name);
    return result;
  }

  std::vector<std::string> children(const char* path) {
    std::vector<std::string> names;
    for (Group* g = map_getGroupByPath(path)->children; g != nullptr; g = g->next) {
      names.push_back(g->name);
    }
    return names;
  }

  std::string group_file() const { return dir("etcdynamic/param/net_interface.conf"); }
  std::string param_file() const { return dir("etcdynamic/net_interface.conf"); }
  std::string pending_group() const { return dir("tmp/net_interface_temp_grp"); }
};

// Where the header lines of the group blocks stand in a group file.
std::vector<std::string> headers(const std::string& text) {
  std::vector<std::string> found;
  size_t at = 0;
  while ((at = text.find("group ", at)) != std::string::npos) {
    size_t end = text.find(' ', at + 6);
    found.push_back(text.substr(at + 6, end - at - 6));
    at = end;
  }
  return found;
}

TEST_F(DynamicGroupsTest, AutomaticNumberingFillsTheGapBeforeTheHigherSibling) {
  EXPECT_EQ(create(-1), "I0");
  EXPECT_EQ(create(2), "I2");
  ASSERT_EQ(dyn_sync(0), 0);
  EXPECT_EQ(create(-1), "I1");
  ASSERT_EQ(dyn_sync(0), 0);
  EXPECT_EQ(headers(read_text(group_file())),
            (std::vector<std::string>{"Net", "Interface", "I0", "I1", "I2"}));
  EXPECT_EQ(children("root.Net.Interface"), (std::vector<std::string>{"I0", "I1", "I2"}));
  EXPECT_EQ(create(12), "I12");
  EXPECT_EQ(create(-1), "I3");
  EXPECT_EQ(children("root.Net.Interface"),
            (std::vector<std::string>{"I0", "I1", "I2", "I3", "I12"}))
      << "siblings are kept in numeric order, not by name";
  EXPECT_EQ(map_getGroupByPath("root.Net")->daemonPending, 1);
}

TEST_F(DynamicGroupsTest, SignalOnlySyncLeavesTheFilesPending) {
  ASSERT_EQ(create(-1), "I0");
  std::string pendingGroup = read_text(pending_group());
  ASSERT_EQ(dyn_sync(1), 0);
  EXPECT_EQ(read_text(group_file()), "#Created by tessard\n");
  EXPECT_NE(dyn_tmplistHead(), nullptr);
  ASSERT_EQ(dyn_sync(0), 0);
  EXPECT_EQ(read_text(group_file()), pendingGroup);
  EXPECT_FALSE(exists(pending_group()));
  EXPECT_EQ(dyn_tmplistHead(), nullptr);
}

TEST_F(DynamicGroupsTest, NewGroupIsLoadedWithItsValuesFromThePendingFile) {
  ASSERT_EQ(create(-1), "I0");
  Param* param = map_getParamByPath("root.Net.Interface.I0.Name");
  ASSERT_NE(param, nullptr);
  EXPECT_EQ(map_getParamStatus(param), PARAMSTATUS_LOADED);
  Option* file = map_getParamOption(param, "file");
  ASSERT_NE(file, nullptr);
  EXPECT_STREQ(file->value, param_file().c_str()) << "the final file is named again";
  Option* type = map_getParamOption(param, "type");
  ASSERT_NE(type, nullptr);
  EXPECT_STREQ(type->value, "dynamic:string");
}

// Scratch files sit in a directory every user may write to: a planted link is not followed and
// a planted file is not reused, so the pending file is the daemon's own, private and clean.
TEST_F(DynamicGroupsTest, ScratchFilesAreMadeFreshAndPrivate) {
  write_text(dir("victim"), "keep\n");
  ASSERT_EQ(symlink(dir("victim").c_str(), dir("tmp/temp_grp").c_str()), 0);
  write_text(dir("tmp/temp_par"), "[planted]\n");
  ASSERT_EQ(chmod(dir("tmp/temp_par").c_str(), 0666), 0);
  if (geteuid() == 0) {
    ASSERT_EQ(chown(dir("tmp/temp_par").c_str(), 1234, 1234), 0);
  }
  ASSERT_EQ(create(-1), "I0");
  EXPECT_EQ(read_text(dir("victim")), "keep\n");
  struct stat st {};
  ASSERT_EQ(lstat(dir("tmp/net_interface_temp_par").c_str(), &st), 0);
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  EXPECT_EQ(st.st_uid, geteuid());
  EXPECT_EQ(read_text(dir("tmp/net_interface_temp_par")).find("planted"), std::string::npos);
}

// A parent path whose names the configuration grammar cannot read back (it would be written into
// the group file) is refused like a missing template, and the daemon goes on.
class FailedCreationTest
    : public DynamicGroupsTest,
      public ::testing::WithParamInterface<std::pair<const char*, const char*>> {};

TEST_P(FailedCreationTest, LeavesNoGroupNoScratchAndNoPendingFiles) {
  auto [parent, tmpl] = GetParam();
  int status = 0;
  EXPECT_EQ(create_new_group(parent, -1, tmpl, &status, 10), nullptr);
  EXPECT_NE(status, -1);
  EXPECT_EQ(map_getGroupByPath("root.Net.Interface.I0"), nullptr);
  EXPECT_FALSE(exists(dir("tmp/temp_par")));
  EXPECT_FALSE(exists(dir("tmp/temp_grp")));
  EXPECT_EQ(dyn_tmplistHead(), nullptr);
  EXPECT_EQ(create(-1), "I0") << "the number is free again";
}

INSTANTIATE_TEST_SUITE_P(Parents, FailedCreationTest,
                         ::testing::Values(std::pair{"root.Net.Interface", "Missing"},
                                           std::pair{"root.Net.0x", "Eth"},
                                           std::pair{"root.4et.Interface", "Eth"},
                                           std::pair{"root.Ne-.Interface", "Eth"},
                                           std::pair{"root.Net.Inter face", "Eth"}));

}  // namespace
