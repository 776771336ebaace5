// Dynamic groups: the file side (names, templates, the rewriting of group and parameter files)
// and creating, deleting and synchronising groups with the parameter database.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>

#include "dynamic/dynamic.h"
#include "dynamic/dynamic_internal.h"
#include "init/init.h"
#include "mapping/quibmapping.h"
#include "parsers/mappinginterface.h"
#include "parsers/parserframework.h"
#include "tests/support/logcapture.h"
#include "tests/support/textfile.h"

namespace {

using tessard::test::read_text;
using tessard::test::write_file;

// Template, data and scratch directories in a fresh temporary directory, named so that a pending
// file's path is shorter than its final file's, as with the daemon's /tmp and /etc/dynamic. File
// names are lowered and their dots replaced, so the directory path must be lower case without
// dots; a test fails at once when $TMPDIR does not allow that.
class DynamicDirsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    static int counter = 0;
    root_ = testing::TempDir() + "dyntest_" + std::to_string(getpid()) + "_" +
            std::to_string(counter++);
    ASSERT_EQ(root_.find_first_of(".ABCDEFGHIJKLMNOPQRSTUVWXYZ"), std::string::npos)
        << "temporary directory " << root_ << " must be lower case without dots";
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

// Runs a stream function over TEXT: its result, a colon and what it wrote.
std::string rewrite(std::string text, const std::function<int(FILE*, FILE*)>& fn) {
  FILE* in = fmemopen(text.data(), text.size(), "r");
  char* buf = nullptr;
  size_t size = 0;
  FILE* out = open_memstream(&buf, &size);
  int rc = fn(in, out);
  fclose(out);
  fclose(in);
  std::string result = std::to_string(rc) + ":" + std::string(buf, size);
  free(buf);
  return result;
}

// The line from the template, what a group template (file name given) writes, and what a
// parameter template writes when it differs.
TEST_F(DynamicDirsTest, MergeTextSubstitutesOnePlaceholderPerLine) {
  const std::tuple<const char*, std::string, std::string> cases[] = {
      {"x REPLACE_NBR REPLACE\n", "x 10 REPLACE\n", ""},
      {"REPLACE then REPLACE_NBR\n", "REPLACE then 10\n", ""},
      {"file = \"REPLACE_FILE\"\n", "file = \"/d/net.conf\"\n", "file = \"Net.I10_FILE\"\n"},
      {"  type = \"string\"\n", "  type = \"dynamic:string\"\n", "  type = \"string\"\n"},
      {"type = \"a b\"\n", "type = \"a b\"\n", ""},
      {"no newline", "no newline\n", ""},
  };
  std::string primary = dir("tmpl") + "/Eth_grp.conf";
  for (const auto& [line, group, param] : cases) {
    write_file(primary, line);
    EXPECT_EQ(rewrite("",
                      [&](FILE*, FILE* out) {
                        return merge_text(out, primary, "/none", "Net.I10", "/d/net.conf") +
                               merge_text(out, primary, "/none", "Net.I10", nullptr);
                      }),
              "0:" + group + (param.empty() ? group : param))
        << line;
  }
}

TEST_F(DynamicDirsTest, ReplaceTextAlwaysHoldsTheWholeResult) {
  size_t capacity = 8;
  char* line = static_cast<char*>(malloc(capacity));
  strcpy(line, "a_X_b");
  std::string long_text(300, 'y');
  line = replace_text(line, &capacity, 2, 1, long_text.c_str());
  EXPECT_EQ(std::string(line), "a_" + long_text + "_b");
  EXPECT_GT(capacity, strlen(line));
  free(line);
}

// The last definition counts, the primary template directory first; 2 when there is no template.
TEST_F(DynamicDirsTest, GetOptionFromTemplate) {
  auto option = [](const char* tmpl, const char* name) {
    char* value = nullptr;
    int rc = get_option_from_template(tmpl, name, &value);
    std::string result = std::to_string(rc) + ":" + (value != nullptr ? value : "-") + " ";
    free(value);
    return result;
  };
  write_file(dir("tmplfb") + "/Eth_grp.conf",
             "maxGroups = \"4\nx = 1\n  maxGroups = \"3\" # later \"5\"\n");
  EXPECT_EQ(option("Eth", "maxGroups") + option("Eth", "missing") + option("Other", "maxGroups"),
            "0:3 0:- 2:- ");
  write_file(dir("tmpl") + "/Eth_grp.conf", "maxGroups = \"9\"\n");
  EXPECT_EQ(option("Eth", "maxGroups"), "0:9 ");
}

// The group file of parent Interface with I0 and I2, and another group's block that must be copied
// through untouched.
const std::string kHead =
    "#Created by tessard\ngroup Other {\ngroup I1 {\n}\n}\ngroup Interface {\n";
const std::string kI0 = "group I0 {\n#DO NOT REMOVE THIS LINE: Interface.I0 Eth\nparam a {\n}\n}\n";
const std::string kInterfaceFile = kHead + kI0 + "group I2 {\n}\n}\n";

TEST_F(DynamicDirsTest, NewGroupBlockGoesToItsSortedPlace) {
  write_file(dir("tmpl") + "/Eth_grp.conf", "NEW REPLACE_GROUP\n");
  // parent, number, file before, file after
  const std::tuple<std::string, int, std::string, std::string> cases[] = {
      {"Interface", 1, kInterfaceFile,  // the gap before the higher sibling
       kHead + kI0 + "NEW I1\n#DO NOT REMOVE THIS LINE: Interface.I1 Eth\ngroup I2 {\n}\n}\n"},
      {"interface.Sub", 0, kInterfaceFile,  // the inner block missing
       kHead + kI0 +
           "group I2 {\n}\ngroup Sub {\nNEW S0\n#DO NOT REMOVE THIS LINE: interface.Sub.S0 "
           "Eth\n}\n}\n"},
  };
  for (const auto& [path, number, input, expected] : cases) {
    std::string names = "root." + path;
    std::vector<char*> parent = parse_path(names.data());
    char letter = parent.back()[0];
    TemplateMerge merge{dir("tmpl") + "/Eth_grp.conf", "/none",
                        path + "." + letter + std::to_string(number), "/d/x.conf"};
    EXPECT_EQ(rewrite(input,
                      [&](FILE* in, FILE* out) {
                        return find_sorted_place_in_file(in, out, parent, letter, number, merge);
                      }),
              "0:" + expected)
        << path;
  }
}

TEST_F(DynamicDirsTest, DeletedGroupBlockIsDroppedWithItsNestedBlocks) {
  std::string file = kInterfaceFile + "group Interface2 {\n}\n";
  // I1 of another parent is not the group to delete.
  for (std::string path : {"root.Interface.I0", "root.Interface.I1"}) {
    std::vector<char*> group = parse_path(path.data());
    EXPECT_EQ(
        rewrite(file,
                [&](FILE* in, FILE* out) { return copy_without_group(in, out, group, "scratch"); }),
        "0:" + (path.back() == '1' ? file : kHead + "group I2 {\n}\n}\ngroup Interface2 {\n}\n"));
  }
}

constexpr const char* kGroupTemplate =
    "group REPLACE_GROUP {\nfile = \"REPLACE_FILE\"\nparser = \"Standardparser\"\n"
    "param Name {\nmount = \"Standard{REPLACE}{Name}\"\ntype = \"string\"\n}\n}\n";
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
    write_file(dir("tmplfb") + "/Eth_grp.conf", kGroupTemplate);
    write_file(dir("tmpl") + "/Eth_par.conf", kParamTemplate);
  }

  // Creates a group under the parent and returns its name ("" on failure).
  std::string create(int number, const char* parent = "root.Net.Interface") {
    char* name = create_new_group(parent, number, "Eth", nullptr, 10);
    std::string result = name != nullptr ? name : "";
    free(name);
    return result;
  }

  std::string group_file() const { return dir("etcdynamic/param/net_interface.conf"); }
  std::string pending_group() const { return dir("tmp/net_interface_temp_grp"); }
};

TEST_F(DynamicGroupsTest, AutomaticNumberingFillsTheGapBeforeTheHigherSibling) {
  for (auto [number, name] :
       {std::pair{-1, "I0"}, {2, "I2"}, {-1, "I1"}, {12, "I12"}, {-1, "I3"}}) {
    EXPECT_EQ(create(number), name);
  }
  std::vector<std::string> names;
  for (Group* g = map_getGroupByPath("root.Net.Interface")->children; g != nullptr; g = g->next) {
    names.push_back(g->name);
  }
  EXPECT_EQ(names, (std::vector<std::string>{"I0", "I1", "I2", "I3", "I12"}))
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
  EXPECT_FALSE(std::filesystem::exists(pending_group()));
  EXPECT_EQ(dyn_tmplistHead(), nullptr);
}

// The whole-daemon tests delete two levels down; here the parent is a top-level group.
TEST_F(DynamicGroupsTest, DeletionBelowATopLevelGroupRewritesItsFiles) {
  ASSERT_EQ(create(-1, "root.Net"), "N0");
  ASSERT_EQ(delete_group("root.Net.N0", 10), 0);
  ASSERT_EQ(dyn_sync(0), 0);
  EXPECT_EQ(read_text(dir("etcdynamic/param/net.conf")), "#Created by tessard\ngroup Net {\n}\n");
}

// Scratch files sit in a directory every user may write to: a planted link is not followed and
// a planted file is not reused, so the pending file is the daemon's own, private and clean.
TEST_F(DynamicGroupsTest, ScratchFilesAreMadeFreshAndPrivate) {
  write_file(dir("victim"), "keep\n");
  ASSERT_EQ(symlink(dir("victim").c_str(), dir("tmp/temp_grp").c_str()), 0);
  write_file(dir("tmp/temp_par"), "[planted]\n");
  ASSERT_EQ(chmod(dir("tmp/temp_par").c_str(), 0666), 0);
  ASSERT_EQ(chown(dir("tmp/temp_par").c_str(), 1234, 1234), 0) << "the test needs root";
  ASSERT_EQ(create(-1), "I0");
  EXPECT_EQ(read_text(dir("victim")), "keep\n");
  struct stat st {};
  ASSERT_EQ(lstat(dir("tmp/net_interface_temp_par").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & (S_IFMT | 07777), S_IFREG | 0600u);
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
  EXPECT_FALSE(std::filesystem::exists(dir("tmp/temp_par")));
  EXPECT_FALSE(std::filesystem::exists(dir("tmp/temp_grp")));
  EXPECT_EQ(dyn_tmplistHead(), nullptr);
  EXPECT_EQ(create(-1), "I0") << "the number is free again";
}

INSTANTIATE_TEST_SUITE_P(Parents, FailedCreationTest,
                         ::testing::Values(std::pair{"root.Net.Interface", "Missing"},
                                           std::pair{"root.Net.0x", "Eth"},
                                           std::pair{"root.Ne-.Interface", "Eth"}));

}  // namespace
