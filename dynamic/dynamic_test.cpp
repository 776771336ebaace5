// Dynamic groups: the file side (names, templates, the rewriting of group and parameter files)
// and creating, deleting and synchronising groups with the parameter database.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <filesystem>
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

bool exists(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0;
}

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

// Runs a stream function over TEXT and returns what it wrote.
template <typename Rewrite>
std::string rewrite(const std::string& text, Rewrite fn, int* rc) {
  std::string input = text;
  FILE* in = fmemopen(input.data(), input.size(), "r");
  char* buf = nullptr;
  size_t size = 0;
  FILE* out = open_memstream(&buf, &size);
  *rc = fn(in, out);
  fclose(out);
  fclose(in);
  std::string result(buf, size);
  free(buf);
  return result;
}

// The parameter directory first: a regular file in its place passes, a path that cannot be made
// ends the start-up before the group directory is tried.
TEST_F(DynamicDirsTest, InitMakesTheParameterThenTheGroupDirectory) {
  auto init = [&](const std::string& param_dir) {
    tessard::test::clear_captured_log();
    return dyn_init(dir("tmpl").c_str(), dir("tmplfb").c_str(), (param_dir + "/param").c_str(),
                    param_dir.c_str());
  };
  mode_t saved = umask(022);
  EXPECT_EQ(init(dir("new")), 0);
  umask(saved);
  for (const char* made : {"new", "new/param"}) {
    struct stat st {};
    ASSERT_EQ(stat(dir(made).c_str(), &st), 0) << made;
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0755u) << "0775 under the umask 022";
  }
  write_file(dir("file"), "x");
  EXPECT_EQ(init(dir("file")), 1);
  EXPECT_EQ(tessard::test::count_logged("create_directory, trouble creating the group dir '" +
                                        dir("file/param") + "': Not a directory"),
            1);
  EXPECT_EQ(tessard::test::count_logged("parameter dir"), 0);
  ASSERT_EQ(symlink("/nowhere/at/all", dir("link").c_str()), 0);
  EXPECT_EQ(init(dir("link")), -1);
  EXPECT_EQ(tessard::test::count_logged("create_directory, trouble creating the parameter dir '" +
                                        dir("link") + "': File exists"),
            1);
  EXPECT_EQ(tessard::test::count_logged("group dir"), 0);
}

// The line from the template, what a group template (file name given) writes, and what a
// parameter template writes when it differs.
TEST_F(DynamicDirsTest, MergeTextSubstitutesOnePlaceholderPerLine) {
  const std::tuple<const char*, std::string, std::string> cases[] = {
      {"group REPLACE_GROUP {\n", "group I10 {\n#DO NOT REMOVE THIS LINE: Net.I10 Eth\n", ""},
      {"x REPLACE_NBR REPLACE\n", "x 10 REPLACE\n", ""},
      {"REPLACE then REPLACE_NBR\n", "REPLACE then 10\n", ""},
      {"file = \"REPLACE_FILE\"\n", "file = \"/d/net.conf\"\n", "file = \"Net.I10_FILE\"\n"},
      {"[REPLACE]\n", "[Net.I10]\n", ""},
      {"  type = \"string\"\n", "  type = \"dynamic:string\"\n", "  type = \"string\"\n"},
      {"type = \"a b\"\n", "type = \"a b\"\n", ""},
      {"no newline", "no newline\n", ""},
  };
  for (const auto& [line, group, param] : cases) {
    std::string primary = dir("tmpl") + "/Eth_grp.conf";
    write_file(primary, line);
    char* buf = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&buf, &size);
    ASSERT_EQ(merge_text(out, primary, "/none", "Net.I10", "/d/net.conf"), 0);
    ASSERT_EQ(merge_text(out, primary, "/none", "Net.I10", nullptr), 0);
    fclose(out);
    EXPECT_EQ(std::string(buf, size), group + (param.empty() ? group : param)) << line;
    free(buf);
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

TEST_F(DynamicDirsTest, GetOptionFromTemplate) {
  write_file(dir("tmplfb") + "/Eth_grp.conf",
             "maxGroups = \"4\n"
             "x = 1\n"
             "  maxGroups = \"3\" # later \"5\"\n"
             "accessControl = \"admin\"\n");
  char* value = nullptr;
  ASSERT_EQ(get_option_from_template("Eth", "maxGroups", &value), 0);
  EXPECT_STREQ(value, "3");
  free(value);
  ASSERT_EQ(get_option_from_template("Eth", "missing", &value), 0);
  EXPECT_EQ(value, nullptr);
  EXPECT_EQ(get_option_from_template("Other", "maxGroups", &value), 2);
  write_file(dir("tmpl") + "/Eth_grp.conf", "maxGroups = \"9\"\n");
  ASSERT_EQ(get_option_from_template("Eth", "maxGroups", &value), 0);
  EXPECT_STREQ(value, "9") << "the primary template directory comes first";
  free(value);
}

TEST_F(DynamicDirsTest, FileNamesAreNormalised) {
  EXPECT_EQ(data_file_name("Net", false), dir("etcdynamic/param") + "/net.conf");
  EXPECT_EQ(data_file_name("Foo.Bar", true), dir("etcdynamic") + "/foo_bar.conf");
  EXPECT_EQ(data_file_name("Net.CONF", true), dir("etcdynamic") + "/net.conf.conf");
  EXPECT_EQ(pending_file_name("Foo.Bar", kTempPar), dir("tmp") + "/foo_bar_temp_par");
}

TEST_F(DynamicDirsTest, ParsePathSkipsRootAndSplitsAtDots) {
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {"root.Foo.Bar", {"Foo", "Bar"}}, {"root", {}}, {"Net.I0", {"I0"}}, {"root..A", {"", "A"}}};
  for (auto [path, components] : cases) {
    std::vector<char*> parts = parse_path(path.data());
    EXPECT_EQ(std::vector<std::string>(parts.begin(), parts.end()), components) << path;
  }
}

// The group file of parent Interface with I0 and I2, and another group's block that must be copied
// through untouched.
constexpr const char* kInterfaceFile =
    "#Created by tessard\n"
    "group Other {\n"
    "group I1 {\n"
    "}\n"
    "}\n"
    "group Interface {\n"
    "group I0 {\n"
    "#DO NOT REMOVE THIS LINE: Interface.I0 Eth\n"
    "param a {\n"
    "}\n"
    "}\n"
    "group I2 {\n"
    "}\n"
    "}\n";

// The dot-separated names of `path` as the rewriting functions take them; `path` holds the text.
std::vector<char*> names_of(std::string* path) {
  std::vector<char*> names;
  for (char* name = strtok(path->data(), "."); name != nullptr; name = strtok(nullptr, ".")) {
    names.push_back(name);
  }
  return names;
}

TEST_F(DynamicDirsTest, NewGroupBlockGoesToItsSortedPlace) {
  write_file(dir("tmpl") + "/Eth_grp.conf", "NEW REPLACE_GROUP\n");
  std::string head = "#Created by tessard\ngroup Other {\ngroup I1 {\n}\n}\ngroup Interface {\n";
  std::string i0 = "group I0 {\n#DO NOT REMOVE THIS LINE: Interface.I0 Eth\nparam a {\n}\n}\n";
  // parent, number, file before, file after
  const std::tuple<std::string, int, std::string, std::string> cases[] = {
      {"Interface", 1, kInterfaceFile,  // the gap before the higher sibling
       head + i0 + "NEW I1\n#DO NOT REMOVE THIS LINE: Interface.I1 Eth\ngroup I2 {\n}\n}\n"},
      {"Interface", 17, kInterfaceFile,  // after all siblings
       head + i0 + "group I2 {\n}\nNEW I17\n#DO NOT REMOVE THIS LINE: Interface.I17 Eth\n}\n"},
      {"Net.Sub", 0, "#Created by tessard\n",  // header only
       "#Created by tessard\ngroup Net {\ngroup Sub {\nNEW S0\n"
       "#DO NOT REMOVE THIS LINE: Net.Sub.S0 Eth\n}\n}\n"},
      {"interface.Sub", 0, kInterfaceFile,  // the inner block missing
       head + i0 +
           "group I2 {\n}\ngroup Sub {\nNEW S0\n#DO NOT REMOVE THIS LINE: interface.Sub.S0 "
           "Eth\n}\n}\n"},
  };
  for (const auto& [path, number, input, expected] : cases) {
    std::string names = path;
    std::vector<char*> parent = names_of(&names);
    char letter = parent.back()[0];
    TemplateMerge merge{dir("tmpl") + "/Eth_grp.conf", "/none",
                        path + "." + letter + std::to_string(number), "/d/x.conf"};
    int rc = -1;
    std::string out = rewrite(
        input,
        [&](FILE* in, FILE* o) {
          return find_sorted_place_in_file(in, o, parent, letter, number, merge);
        },
        &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(out, expected) << path << " " << number;
  }
}

TEST_F(DynamicDirsTest, DeletedGroupBlockIsDroppedWithItsNestedBlocks) {
  std::string file = std::string(kInterfaceFile) + "group Interface2 {\n}\n";
  // I1 of another parent is not the group to delete.
  for (std::string path : {"Interface.I0", "Interface.I1"}) {
    std::vector<char*> group = names_of(&path);
    int rc = -1;
    std::string out = rewrite(
        file, [&](FILE* in, FILE* o) { return copy_without_group(in, o, group, "scratch"); }, &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(out, path.back() == '1'
                       ? file
                       : "#Created by tessard\ngroup Other {\ngroup I1 {\n}\n}\n"
                         "group Interface {\ngroup I2 {\n}\n}\ngroup Interface2 {\n}\n");
  }
}

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
    write_file(dir("tmplfb") + "/Eth_grp.conf", kGroupTemplate);
    write_file(dir("tmpl") + "/Eth_par.conf", kParamTemplate);
  }
  void TearDown() override {
    upgradeMode = 0;
    DynamicDirsTest::TearDown();
  }

  // Creates a group under root.Net.Interface and returns its name ("" on failure).
  std::string create(int number) {
    char* name = create_new_group("root.Net.Interface", number, "Eth", nullptr, 10);
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
  write_file(dir("victim"), "keep\n");
  ASSERT_EQ(symlink(dir("victim").c_str(), dir("tmp/temp_grp").c_str()), 0);
  write_file(dir("tmp/temp_par"), "[planted]\n");
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
