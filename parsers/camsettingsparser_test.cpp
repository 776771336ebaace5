#include "parsers/camsettingsparser.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "init/init.h"
#include "parsers/quibconfigparser.h"
#include "tests/support/parsertest_support.h"

namespace {

using tessard::test::client_sets;
using tessard::test::count_logged;
using tessard::test::read_file;
using tessard::test::RewriteCase;
using tessard::test::value_text;
using tessard::test::write_file;

// Types and keys are words, values bare letters and digits or double-quoted: the form the parser
// writes, so a rewrite that changes one value leaves every other byte as it was.
const char kSettings[] =
    "# Image settings of the camera head.\n"
    "# One entry per line: TYPE NAME VALUE.\n"
    "\n"
    "[Image]\n"
    "int Brightness 50\n"
    "int   Contrast    50\t\n"
    "cenum_on_off Mirror off\n"
    "  resolution Resolution 640x480\n"
    "ip Address \"192.168.0.90\"\r\n"
    "\n"
    "[Exposure]\n"
    "high_low Sensitivity low\n"
    "orphan\n"
    "string Empty\n"
    "# Text drawn into the picture\n"
    "[Overlay]\n"
    "yes_no ShowClock yes\n"
    "string Text \"Front entrance\"";

class CamsettingsParserTest : public tessard::test::ParserTest {
 protected:
  void SetUp() override {
    ParserTest::SetUp();
    write_file(file("settings.conf"), kSettings);
  }
  Param* entry(const char* mount, const char* name = "p") {
    return param(name, file("settings.conf"), mount, "Camsettingsparser");
  }
};

TEST_F(CamsettingsParserTest, ValuesTakeTheTypeOfTheirLine) {
  check_loads(file("settings.conf"), "Camsettingsparser", kSettings,
              {
                  {"Camsettings{Image}{Brightness}", "50", "int"},
                  {"Camsettings{Image}{Contrast}", "50", "int"},
                  {"Camsettings{Image}{Mirror}", "off", "cenum_on_off"},
                  {"Camsettings{Image}{Resolution}", "640x480", "resolution"},
                  {"Camsettings{Image}{Address}", "192.168.0.90", "ip"},
                  {"Camsettings{Exposure}{Sensitivity}", "low", "high_low"},
                  {"Camsettings{Overlay}{ShowClock}", "yes", "yes_no"},
                  {"Camsettings{Overlay}{Text}", "Front entrance", "string"},
                  {"Camsettings{Exposure}{Empty}", "<none>", nullptr},
                  {"Camsettings{Exposure}{orphan}", "<none>", nullptr},
                  {"Camsettings{Overlay}{Brightness}", "<none>", nullptr},
              });
}

class CamsettingsRewriteTest : public CamsettingsParserTest,
                               public ::testing::WithParamInterface<RewriteCase> {};

TEST_P(CamsettingsRewriteTest, OnlyTheChangedValueChanges) {
  check_rewrite(GetParam(), file("settings.conf"), "Camsettingsparser", kSettings);
}

INSTANTIATE_TEST_SUITE_P(
    Camsettings, CamsettingsRewriteTest,
    ::testing::Values(
        RewriteCase{"Camsettings{Image}{Brightness}", "75", "Brightness 50", "Brightness 75"},
        RewriteCase{"Camsettings{Image}{Contrast}", "60", "Contrast    50\t", "Contrast 60\t"},
        RewriteCase{"Camsettings{Image}{Mirror}", "on", "Mirror off", "Mirror on"},
        RewriteCase{"Camsettings{Image}{Address}", "10.0.0.1", "\"192.168.0.90\"", "\"10.0.0.1\""},
        RewriteCase{"Camsettings{Overlay}{Text}", "Back \"door\"", "\"Front entrance\"",
                    "\"Back \\\"door\\\"\""},
        // A key without its value gets one.
        RewriteCase{"Camsettings{Exposure}{Empty}", "x", "string Empty", "string Empty x"},
        // Not written: a key the file lacks, a type alone.
        RewriteCase{"Camsettings{Image}{Missing}", "1", "", nullptr},
        RewriteCase{"Camsettings{Exposure}{orphan}", "1", "", nullptr}));

struct BrokenCase {
  const char* name;
  const char* text;
  const char* message;
};

class CamsettingsBrokenTest : public CamsettingsParserTest,
                              public ::testing::WithParamInterface<BrokenCase> {};

// A broken file fails the parse; a write run leaves it as it is, the change waiting.
TEST_P(CamsettingsBrokenTest, FailsAndKeepsTheFile) {
  const BrokenCase& c = GetParam();
  write_file(file("settings.conf"), c.text);
  Param* first = entry("Camsettings{S}{A}");
  EXPECT_EQ(invoke(first, 1), 1);
  EXPECT_EQ(count_logged(c.message), 1);
  client_sets(first, "2");
  EXPECT_EQ(invoke(first, 0), 1);
  EXPECT_EQ(read_file(file("settings.conf")), c.text);
}

INSTANTIATE_TEST_SUITE_P(
    Camsettings, CamsettingsBrokenTest,
    ::testing::Values(
        BrokenCase{"FourthWord", "[S]\nint A 1\nint B 2 extra\nint C 3\n",
                   "Camsettings file: more than a value after 'B' on line 3."},
        BrokenCase{"NoLeadingHeader", "int A 1\n[S]\nint B 2\n",
                   "Camsettings file: expected a section header at '' on line 1."},
        BrokenCase{"CommentsOnly", "# nothing\n",
                   "Camsettings file: expected a section header at '' on line 2."},
        BrokenCase{"Empty", "", "Camsettings file: expected a section header at '' on line 1."},
        BrokenCase{"UnknownType", "[S]\nint A 1\nfloat B 1.5\n",
                   "Camsettings file: unknown type of 'B' on line 3."},
        BrokenCase{"LongKey", "[S]\nint A 1\nint K23456789012345678901234567890123 1\n",
                   "Camsettings file: key longer than 32 characters "
                   "'K23456789012345678901234567890123' on line 3."},
        BrokenCase{"UnclosedQuote", "[S]\nint A 1\nstring B \"open\n",
                   "Camsettings file: more than a value after 'B' on line 3."}),
    [](const ::testing::TestParamInfo<BrokenCase>& info) { return info.param.name; });

TEST_F(CamsettingsParserTest, RandomEditsNeverCrashAndRewriteStably) {
  Param* p = param("p", "", "Camsettings{Image}{Contrast}", nullptr);
  EXPECT_GT(random_rounds(camsettingsparser_parse, "ab1 \t\n\"[]#_\x01\xe9", p, "v w", kSettings),
            300);
  EXPECT_GT(random_rounds(camsettingsparser_parse, "ab1 \t\n\"[]#", p, "v"), 20);
}

// The master configuration's parameter list files are Camsettings files: the parameters that
// `paramfile` declares load their values, typed by the file, through this parser.
TEST_F(CamsettingsParserTest, ParameterListFileLoadsThroughTheParser) {
  static int lists = 0;
  std::string group = "CamList" + std::to_string(++lists);
  write_file(file("main.conf"), "group " + group + " {\n  paramfile {\n    file = \"" +
                                    file("settings.conf") +
                                    "\"\n    parser = \"Camsettingsparser\"\n  }\n}\n");
  init_installMapHooks();
  ASSERT_EQ(config_parseFile(file("main.conf").c_str(), 1), 0);
  Group* top = map_getGroupByPath(("root." + group).c_str());
  ASSERT_NE(top, nullptr);
  ASSERT_EQ(map_checkGroupTreeValues(top), 0);
  auto at = [&group](const char* path) {
    return map_getParamByPath(("root." + group + "." + path).c_str());
  };
  ASSERT_NE(at("Image.Brightness"), nullptr);
  EXPECT_EQ(value_text(at("Image.Brightness")), "50");
  EXPECT_STREQ(legacy_drep_getTypeName(map_getParamData(at("Image.Mirror"))), "cenum_on_off");
  EXPECT_EQ(value_text(at("Overlay.Text")), "Front entrance");
  EXPECT_EQ(value_text(at("Exposure.Sensitivity")), "low");
  EXPECT_EQ(at("Image.Brightness")->status, PARAMSTATUS_LOADED);

  Param* text = at("Overlay.Text");
  client_sets(text, "Gate");
  ASSERT_EQ(parser_invokeForParam(text, text->group->path, 0), 0);
  std::string expected = kSettings;
  expected.replace(expected.find("\"Front entrance\""), 16, "Gate");
  EXPECT_EQ(read_file(file("settings.conf")), expected);
}

}  // namespace
