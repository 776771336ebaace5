#include "parsers/quibconfigparser.h"

#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "mapping/quibmapping.h"

namespace {

std::string escape_regex(const std::string& text) {
  std::string escaped;
  for (char c : text) {
    if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) escaped += '\\';
    escaped += c;
  }
  return escaped;
}

class ConfigTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string base = std::string(getenv("TMPDIR") != nullptr ? getenv("TMPDIR") : "/tmp") +
                       "/quibconfigparser_test.XXXXXX";
    ASSERT_NE(mkdtemp(base.data()), nullptr);
    dir_ = base;
    caseSensitive = 0;
    ASSERT_EQ(map_init("/dev/null"), 0);
  }
  void TearDown() override { std::system(("rm -rf '" + dir_ + "'").c_str()); }

  std::string write(const std::string& name, const std::string& text) {
    std::string path = dir_ + "/" + name;
    std::ofstream(path) << text;
    return path;
  }
  int parse(const std::string& text, int additive = 1) {
    return config_parseFile(write("main.conf", text).c_str(), additive);
  }
  static const char* option(const char* path, const char* name) {
    Param* param = map_getParamByPath(path);
    Option* found = param != nullptr ? map_getParamOption(param, name) : nullptr;
    return found != nullptr ? found->value : nullptr;
  }

  std::string dir_;
};

TEST_F(ConfigTest, BuildsGroupsParamsAndInheritedOptions) {
  ASSERT_EQ(parse("# comment\n"
                  "group Network {  # trailing comment\n"
                  "  file = \"/etc/net\" parser = Standardparser\n"
                  "  param IPAddress { type = ip mount = \"Standard{Root}{IP}\" }\n"
                  "  group Sub_1 { param x { } }\n"
                  "}\n"
                  "param top { note = \"two\nlines\" }\n"),
            0);
  EXPECT_STREQ(option("root.Network.IPAddress", "file"), "/etc/net");
  EXPECT_STREQ(option("root.Network.IPAddress", "type"), "ip");
  EXPECT_STREQ(option("root.Network.Sub_1.x", "parser"), "Standardparser");
  EXPECT_STREQ(option("root.top", "note"), "two\nlines");
  EXPECT_EQ(map_findParamByMount("Standard{Root}{IP}"),
            map_getParamByPath("root.Network.IPAddress"));
}

TEST_F(ConfigTest, QuotedValuesKeepTheirBackslashes) {
  // Any quote behind a backslash is part of the text, even behind an escaped backslash.
  ASSERT_EQ(parse("param p { v = \"a\\\"b\" w = \"c\\\\\" d\" }\n"), 0);
  EXPECT_STREQ(option("root.p", "v"), "a\\\"b");
  EXPECT_STREQ(option("root.p", "w"), "c\\\\\" d");
}

TEST_F(ConfigTest, IncludeIsTheLastItemOfAFile) {
  std::string included = write("inc.conf", "param fromInclude { }\n");
  ASSERT_EQ(parse("param before { }\ninclude \"" + included + "\"\nparam after { }\n"), 0);
  EXPECT_NE(map_getParamByPath("root.before"), nullptr);
  EXPECT_NE(map_getParamByPath("root.fromInclude"), nullptr);
  EXPECT_EQ(map_getParamByPath("root.after"), nullptr);
}

TEST_F(ConfigTest, ReportsTopLevelProblemsByResult) {
  EXPECT_EQ(parse(""), 1);  // an empty file cannot be mapped
  EXPECT_EQ(parse("param p { }\n}\n"), 1);
  EXPECT_EQ(parse("= x\n"), 1);
  EXPECT_EQ(config_parseFile((dir_ + "/missing.conf").c_str(), 1), 0);
  EXPECT_EQ(config_parseFile("/dev/null", 1), 0);
  EXPECT_EQ(config_parseFile(dir_.c_str(), 1), 1);  // a directory cannot be mapped
  std::string empty = write("empty.conf", "");
  EXPECT_EQ(parse("include \"" + empty + "\"\n"), 1);
}

TEST_F(ConfigTest, AdditiveDeclarationKeepsParamsAndValues) {
  ASSERT_EQ(parse("group g { param p { a = x } }\n"), 0);
  Param* p = map_getParamByPath("root.g.p");
  ASSERT_EQ(parse("group G { param P { b = y } param q { } }\n"), 0);
  EXPECT_EQ(map_getParamByPath("root.g.p"), p);
  EXPECT_STREQ(option("root.g.p", "a"), "x");
  EXPECT_STREQ(option("root.g.p", "b"), "y");
  EXPECT_NE(map_getParamByPath("root.g.q"), nullptr);
}

TEST_F(ConfigTest, GetterParamLosesItsFileOptions) {
  ASSERT_EQ(parse("file = \"/etc/x\"\nparam p { getter = disabled dbus = \"m\" }\n"), 0);
  EXPECT_EQ(option("root.p", "file"), nullptr);
  EXPECT_STREQ(option("root.p", "dbus"), "m");
  EXPECT_EQ(map_getParamByPath("root.p")->hasGetter, 1);
}

TEST_F(ConfigTest, ParamFileDeclaresCamsettingsParams) {
  std::string list = write("list.txt",
                           "int Top 1\n"
                           "[Image]\n"
                           "; comment\n"
                           "#comment\n"
                           "x\n"
                           "string  Name   \"a \\\"b\\\" c\"\n"
                           "int NoValue\n"
                           "[Other]\n"
                           "bool On yes\n" +
                               std::string(300, 'y') + "\n");
  testing::internal::CaptureStdout();
  ASSERT_EQ(parse("group cam { paramfile { file = \"" + list +
                  "\" parser = Camsettingsparser extra = x } param after { } }\n"),
            0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "## Unknokn token: extra for paramfile\n");
  EXPECT_STREQ(option("root.cam.Top", "mount"), "Camsettings{cam}{Top}");
  EXPECT_STREQ(option("root.cam.Image.Name", "mount"), "Camsettings{Image}{Name}");
  EXPECT_STREQ(option("root.cam.Image.Name", "type"), "string");
  EXPECT_STREQ(option("root.cam.Image.Name", "file"), list.c_str());
  EXPECT_STREQ(option("root.cam.Image.Name", "parser"), "Camsettingsparser");
  EXPECT_EQ(map_getParamByPath("root.cam.Image.NoValue"), nullptr);
  EXPECT_STREQ(option("root.cam.Other.On", "type"), "bool");
  EXPECT_NE(map_getParamByPath("root.cam.after"), nullptr);  // back in the paramfile's group
}

TEST_F(ConfigTest, ParamFileNeedsCamsettingsAndAReadableList) {
  testing::internal::CaptureStdout();
  ASSERT_EQ(parse("paramfile { file = \"/x\" parser = Standardparser }\n"
                  "paramfile { file = \"" +
                  dir_ + "/none\" parser = Camsettingsparser }\n"),
            0);
  EXPECT_EQ(
      testing::internal::GetCapturedStdout(),
      "ERROR: Only Camsettingsparser supported for paramfile!\nFailed to open " + dir_ + "/none\n");
}

struct FatalCase {
  const char* text;
  const char* message;  // %s stands for the configuration file's path
};

class FatalTest : public ConfigTest, public ::testing::WithParamInterface<FatalCase> {};

TEST_P(FatalTest, EndsTheProcessWithTheMessage) {
  std::string path = write("main.conf", GetParam().text);
  std::string message = GetParam().message;
  size_t at = message.find("%s");
  std::string pattern = at == std::string::npos
                            ? escape_regex(message)
                            : escape_regex(message.substr(0, at)) + escape_regex(path) +
                                  escape_regex(message.substr(at + 2));
  EXPECT_EXIT(
      {
        openlog("tessard", LOG_PERROR, LOG_LOCAL6);
        config_parseFile(path.c_str(), 1);
      },
      ::testing::ExitedWithCode(1), pattern);
}

INSTANTIATE_TEST_SUITE_P(
    Grammar, FatalTest,
    ::testing::Values(
        FatalCase{"type = 10\n", "%s: Expected option value."},
        FatalCase{"param p { v = /tmp/x }\n", "%s: Expected option value."},
        FatalCase{"group { }\n", "%s: Expected groupname!"},
        FatalCase{"group g x\n", "%s: Expected '{' after group root.g!"},
        FatalCase{"group g { param p { }\n", "%s: Expected '}' to end group root.g!"},
        FatalCase{"group g { a }\n", "%s: Expected '=' after group root.g optionname."},
        FatalCase{"param { }\n", "%s: Expected paramname!"},
        FatalCase{"param p x\n", "%s: Expected '{' after param root.p!"},
        FatalCase{"param p { a b }\n", "%s: Expected '=' after param root.p optionname a."},
        FatalCase{"param p { a = b\n", "%s: Expected '}' to end param root.p!"},
        FatalCase{"a = b paramfile { }\n", "%s: Expected '=' after group root optionname."},
        FatalCase{"a = b include \"x\"\n", "%s: Expected '=' after group root optionname."},
        FatalCase{"paramfile x\n", "%s: Expected '{'after paramfile root!"},
        FatalCase{"paramfile { file x }\n", "%s: Expected '=' after paramfile root optionname."},
        FatalCase{"paramfile { file = }\n", "%s: Expected option value in root."},
        FatalCase{"paramfile { file = x\n", "%s: Expected '}' to end paramfile root!"},
        FatalCase{"include \"/nonexistent/x\"\n",
                  "Couldn't open included configuration file: /nonexistent/x!"},
        FatalCase{"group g { include \"/dev/null\" }\n", "Error in group members!"},
        FatalCase{"group g { param p { } ", "%s: Expected '}' to end group root.g!"},
        FatalCase{"group \"\" { }\n", "Couldn't create group: !"}));

TEST_F(ConfigTest, IncludeInsideAGroupEndsTheGroupBody) {
  std::string included = write("inc.conf", "param p { }\n");
  std::string path = write("main.conf", "group g { include \"" + included + "\" }\n");
  EXPECT_EXIT(
      {
        openlog("tessard", LOG_PERROR, LOG_LOCAL6);
        config_parseFile(path.c_str(), 1);
      },
      ::testing::ExitedWithCode(1), escape_regex(path + ": Expected '}' to end group root.g!"));
}

}  // namespace
