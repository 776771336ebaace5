#include "parsers/quibconfigparser.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "tests/support/parsertest_support.h"

namespace {

class ConfigTest : public tessard::test::ParserTest {
 protected:
  void SetUp() override {
    ParserTest::SetUp();
    caseSensitive = 0;
    ASSERT_EQ(map_init("/dev/null"), 0);
  }
  std::string write(const std::string& name, const std::string& text) {
    tessard::test::write_file(file(name), text);
    return file(name);
  }
  int parse(const std::string& text) {
    return config_parseFile(write("main.conf", text).c_str(), 1);
  }
  // `text` with `with` in place of the first `mark`.
  static std::string fill(std::string text, std::string_view mark, const std::string& with) {
    size_t at = text.find(mark);
    return at == std::string::npos ? text : text.replace(at, mark.size(), with);
  }
  static const char* option(const char* path, const char* name) {
    Param* param = map_getParamByPath(path);
    Option* found = param != nullptr ? map_getParamOption(param, name) : nullptr;
    return found != nullptr ? found->value : nullptr;
  }
};

// Any quote behind a backslash is part of the text, even behind an escaped backslash.
TEST_F(ConfigTest, BuildsGroupsParamsAndInheritedOptions) {
  ASSERT_EQ(parse("# comment\n"
                  "group Network {  # trailing comment\n"
                  "  file = \"/etc/net\" parser = Standardparser\n"
                  "  param IPAddress { type = ip mount = \"Standard{Root}{IP}\" }\n"
                  "  group Sub_1 { param x { } }\n"
                  "}\n"
                  "param top { note = \"two\nlines\" v = \"a\\\"b\" w = \"c\\\\\" d\" }\n"),
            0);
  EXPECT_STREQ(option("root.Network.Sub_1.x", "parser"), "Standardparser");
  EXPECT_STREQ(option("root.top", "note"), "two\nlines");
  EXPECT_STREQ(option("root.top", "v"), "a\\\"b");
  EXPECT_STREQ(option("root.top", "w"), "c\\\\\" d");
  EXPECT_EQ(map_findParamByMount("Standard{Root}{IP}"),
            map_getParamByPath("root.Network.IPAddress"));
}

TEST_F(ConfigTest, IncludeIsTheLastItemOfAFile) {
  std::string included = write("inc.conf", "param fromInclude { }\n");
  ASSERT_EQ(parse("include \"" + included + "\"\nparam after { }\n"), 0);
  EXPECT_NE(map_getParamByPath("root.fromInclude"), nullptr);
  EXPECT_EQ(map_getParamByPath("root.after"), nullptr);
}

struct TopLevelCase {
  const char* text;  // written to main.conf (DIR: the scratch directory); null: parse path
  const char* path;  // relative to the scratch directory when text is null
  int result;
  const char* logged;  // %s stands for the parsed path
};

void PrintTo(const TopLevelCase& c, std::ostream* os) {
  *os << (c.text != nullptr ? c.text : c.path);
}

class TopLevelTest : public ConfigTest, public ::testing::WithParamInterface<TopLevelCase> {};

TEST_P(TopLevelTest, ReportsByResultAndLog) {
  const TopLevelCase& c = GetParam();
  write("empty.conf", "");
  write("inc.conf", "param p { }\n");
  std::string text = fill(c.text != nullptr ? c.text : "", "DIR", dir_);
  std::string path = c.text != nullptr ? write("main.conf", text) : file(c.path);
  EXPECT_EQ(config_parseFile(path.c_str(), 1), c.result);
  std::string logged = fill(c.logged, "%s", path);
  EXPECT_EQ(tessard::test::count_logged(logged), 1) << logged;
}

const TopLevelCase kTopLevel[] = {
    {"", nullptr, 1, "Could not map file '%s' into memory"},
    {"param p { }\n}\n", nullptr, 1, "%s: Expected token string before reading group members."},
    {nullptr, "missing.conf", 0, "Couldn't open configuration file: %s! Does not exist."},
    {nullptr, "empty.conf/x", 1, "Couldn't open configuration file: %s! (Not a directory)"},
    {"include \"DIR/empty.conf\"\n", nullptr, 1, "Couldn't parse configuration file: %s!"},
    // An include inside a group ends the group's body.
    {"group g { include \"DIR/inc.conf\" }\n", nullptr, 1,
     "%s: Expected '}' to end group root.g!"}};

INSTANTIATE_TEST_SUITE_P(Files, TopLevelTest, ::testing::ValuesIn(kTopLevel));

TEST_F(ConfigTest, AdditiveDeclarationKeepsParamsAndValues) {
  ASSERT_EQ(parse("group g { param p { a = x } }\n"), 0);
  Param* p = map_getParamByPath("root.g.p");
  ASSERT_EQ(parse("group G { param P { b = y } param q { } }\n"), 0);
  EXPECT_EQ(map_getParamByPath("root.g.p"), p);
  EXPECT_STREQ(option("root.g.p", "a"), "x");
  EXPECT_STREQ(option("root.g.p", "b"), "y");
  EXPECT_NE(map_getParamByPath("root.g.q"), nullptr);
}

// A list of Camsettings parameters declares them in groups named for its sections; the
// paramfile's options other than file and parser are reported and ignored.
TEST_F(ConfigTest, ParamFileDeclaresCamsettingsParams) {
  std::string list = write("list.txt",
                           "int Top 1\n[Image]\n; comment\n#comment\nx\n"
                           "string  Name   \"a \\\"b\\\" c\"\nint NoValue\n[Other]\n"
                           "bool On yes\n" +
                               std::string(300, 'y') + "\n");
  testing::internal::CaptureStdout();
  ASSERT_EQ(parse("group cam { paramfile { file = \"" + list +
                  "\" parser = Camsettingsparser extra = x } param after { } }\n"
                  "paramfile { file = \"/x\" parser = Standardparser }\n"
                  "paramfile { file = \"" +
                  dir_ + "/none\" parser = Camsettingsparser }\n"),
            0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "## Unknokn token: extra for paramfile\nERROR: Only Camsettingsparser supported for "
            "paramfile!\nFailed to open " +
                dir_ + "/none\n");
  EXPECT_STREQ(option("root.cam.Top", "mount"), "Camsettings{cam}{Top}");
  EXPECT_STREQ(option("root.cam.Image.Name", "mount"), "Camsettings{Image}{Name}");
  EXPECT_STREQ(option("root.cam.Image.Name", "type"), "string");
  EXPECT_EQ(map_getParamByPath("root.cam.Image.NoValue"), nullptr);
  EXPECT_NE(map_getParamByPath("root.cam.Other.On"), nullptr);
  EXPECT_NE(map_getParamByPath("root.cam.after"), nullptr);  // back in the paramfile's group
}

struct GrammarCase {
  const char* text;
  const char* message;             // %s stands for the configuration file's path
  int line = 1;                    // of the error
  const char* reported = nullptr;  // the message of a report, when it names the cause better
};

void PrintTo(const GrammarCase& c, std::ostream* os) {
  *os << c.text;
}

// Group files are written from client requests: a grammar error refuses the file and never ends
// the daemon. With a report it is an error at its line.
class GrammarTest : public ConfigTest, public ::testing::WithParamInterface<GrammarCase> {};

TEST_P(GrammarTest, RefusesTheFileWithTheMessage) {
  const GrammarCase& c = GetParam();
  std::string path = write("main.conf", c.text), message = fill(c.message, "%s", path);
  EXPECT_EQ(config_parseFile(path.c_str(), 1), 1);
  EXPECT_EQ(tessard::test::count_logged(message), 1) << message;
  ConfigReport report;
  EXPECT_EQ(config_parseFileReporting(path.c_str(), 1, &report), 1);
  EXPECT_EQ(report.error.message, c.reported != nullptr ? c.reported : message);
  EXPECT_EQ(report.error.file, path);
  EXPECT_EQ(report.error.line, c.line);
}

INSTANTIATE_TEST_SUITE_P(
    Grammar, GrammarTest,
    ::testing::Values(
        GrammarCase{"group { }\n", "%s: Expected groupname!"},
        GrammarCase{"group g x\n", "%s: Expected '{' after group root.g!"},
        GrammarCase{"group g { param p { }\n", "%s: Expected '}' to end group root.g!"},
        GrammarCase{"group g { a }\n", "%s: Expected '=' after group root.g optionname."},
        GrammarCase{"param { }\n", "%s: Expected paramname!"},
        GrammarCase{"param p x\n", "%s: Expected '{' after param root.p!"},
        GrammarCase{"param p { a b }\n", "%s: Expected '=' after param root.p optionname a."},
        GrammarCase{"param p { a = b\n", "%s: Expected '}' to end param root.p!"},
        GrammarCase{"a = b paramfile { }\n", "%s: Expected '=' after group root optionname."},
        GrammarCase{"a = b include \"x\"\n", "%s: Expected '=' after group root optionname."},
        GrammarCase{"paramfile x\n", "%s: Expected '{'after paramfile root!"},
        GrammarCase{"paramfile { file x }\n", "%s: Expected '=' after paramfile root optionname."},
        GrammarCase{"paramfile { file = }\n", "%s: Expected option value in root."},
        GrammarCase{"paramfile { file = x\n", "%s: Expected '}' to end paramfile root!"},
        GrammarCase{"include \"/nonexistent/x\"\n",
                    "Couldn't open included configuration file: /nonexistent/x!"},
        GrammarCase{"group g { include \"/dev/null\" }\n", "Error in group members!", 1,
                    "Could not map file '/dev/null' into memory"},
        GrammarCase{"group \"\" { }\n", "Couldn't create group: !"}));

}  // namespace
