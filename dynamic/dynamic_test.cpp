// The file side of dynamic groups: names, templates, and the rewriting of group and parameter
// files, without the parameter database.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "dynamic/dynamic.h"
#include "dynamic/dynamic_internal.h"
#include "tests/support/dynamic_testing.h"

namespace {

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

class DynamicFilesTest : public DynamicDirsTest {};

// The line from the template, what a group template (file name given) writes, and what a
// parameter template writes when it differs.
TEST_F(DynamicFilesTest, MergeTextSubstitutesOnePlaceholderPerLine) {
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
    write_text(dir("tmpl") + "/Eth_grp.conf", line);
    char* buf = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&buf, &size);
    std::string primary = dir("tmpl") + "/Eth_grp.conf";
    ASSERT_EQ(merge_text(out, primary, "/none", "Net.I10", "/d/net.conf"), 0);
    ASSERT_EQ(merge_text(out, primary, "/none", "Net.I10", nullptr), 0);
    fclose(out);
    EXPECT_EQ(std::string(buf, size), group + (param.empty() ? group : param)) << line;
    free(buf);
  }
}

TEST_F(DynamicFilesTest, ReplaceTextAlwaysHoldsTheWholeResult) {
  size_t capacity = 8;
  char* line = static_cast<char*>(malloc(capacity));
  strcpy(line, "a_X_b");
  std::string long_text(300, 'y');
  line = replace_text(line, &capacity, 2, 1, long_text.c_str());
  EXPECT_EQ(std::string(line), "a_" + long_text + "_b");
  EXPECT_GT(capacity, strlen(line));
  free(line);
}

TEST_F(DynamicFilesTest, GetOptionFromTemplate) {
  write_text(dir("tmplfb") + "/Eth_grp.conf",
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
  write_text(dir("tmpl") + "/Eth_grp.conf", "maxGroups = \"9\"\n");
  ASSERT_EQ(get_option_from_template("Eth", "maxGroups", &value), 0);
  EXPECT_STREQ(value, "9") << "the primary template directory comes first";
  free(value);
}

TEST_F(DynamicFilesTest, FileNamesAreNormalised) {
  EXPECT_EQ(data_file_name("Net", false), dir("etcdynamic/param") + "/net.conf");
  EXPECT_EQ(data_file_name("Foo.Bar", true), dir("etcdynamic") + "/foo_bar.conf");
  EXPECT_EQ(data_file_name("Net.CONF", true), dir("etcdynamic") + "/net.conf.conf");
  EXPECT_EQ(pending_file_name("Foo.Bar", kTempPar), dir("tmp") + "/foo_bar_temp_par");
}

TEST_F(DynamicFilesTest, ParsePathSkipsRootAndSplitsAtDots) {
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

TEST_F(DynamicFilesTest, NewGroupBlockGoesToItsSortedPlace) {
  write_text(dir("tmpl") + "/Eth_grp.conf", "NEW REPLACE_GROUP\n");
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

TEST_F(DynamicFilesTest, DeletedGroupBlockIsDroppedWithItsNestedBlocks) {
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

}  // namespace
