#include "parsers/standard2parser.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/parsertest_support.h"

namespace {

using tessard::test::client_sets;
using tessard::test::count_logged;
using tessard::test::read_file;
using tessard::test::RewriteCase;
using tessard::test::value_text;
using tessard::test::write_file;

// Every value is already in the form the parser writes (bare letters and digits, or double-quoted),
// so a rewrite that changes one value leaves every other byte as it was.
const char kWebServer[] =
    "# Embedded web server of the camera.\n"
    "model = CAM2100\n"
    "serial \"A1B2-00042\"\n"
    "\n"
    "[http]\n"
    "enabled = yes\n"
    "port=80\n"
    "  timeout   =   30\t\n"
    "empty =\n"
    "# Account of the web interface\n"
    "[admin]\r\n"
    "user = admin\r\n"
    "password = \"change me\"\n"
    "lonely\n"
    "last = value";

class Standard2ParserTest : public tessard::test::ParserTest {
 protected:
  void SetUp() override {
    ParserTest::SetUp();
    write_file(file("web.conf"), kWebServer);
  }
  Param* key(const char* mount, const char* name = "p") {
    return param(name, file("web.conf"), mount, "Standard2parser");
  }
  std::string change(Param* p, const char* text) {
    client_sets(p, text);
    EXPECT_EQ(invoke(p, 0), 0);
    return read_file(file("web.conf"));
  }
};

TEST_F(Standard2ParserTest, LoadsBothLineFormsUnderTheirSections) {
  check_loads(file("web.conf"), "Standard2parser", kWebServer,
              {
                  {"Standard2{Root}{model}", "CAM2100"},
                  {"Standard2{Root}{serial}", "A1B2-00042"},
                  {"Standard2{http}{enabled}", "yes"},
                  {"Standard2{http}{port}", "80"},
                  {"Standard2{http}{timeout}", "30"},
                  {"Standard2{http}{empty}", ""},
                  {"Standard2{admin}{user}", "admin"},
                  {"Standard2{admin}{password}", "change me"},
                  {"Standard2{admin}{last}", "value"},
                  {"Standard2{admin}{lonely}", "<none>"},
                  {"Standard2{Root}{enabled}", "<none>"},
                  {"Standard2{http}{model}", "<none>"},
              });
}

class Standard2RewriteTest : public Standard2ParserTest,
                             public ::testing::WithParamInterface<RewriteCase> {};

TEST_P(Standard2RewriteTest, OnlyTheChangedValueChanges) {
  check_rewrite(GetParam(), file("web.conf"), "Standard2parser", kWebServer);
}

INSTANTIATE_TEST_SUITE_P(
    Standard2, Standard2RewriteTest,
    ::testing::Values(
        RewriteCase{"Standard2{Root}{model}", "CAM3000", "= CAM2100", "= CAM3000"},
        // A "key value" line gains the "=".
        RewriteCase{"Standard2{Root}{serial}", "B2", "serial \"A1B2-00042\"", "serial = B2"},
        RewriteCase{"Standard2{http}{port}", "8080", "port=80", "port=8080"},
        RewriteCase{"Standard2{http}{timeout}", "60", "=   30\t", "=   60\t"},
        // "key =" at the end of its line: the value follows the "=".
        RewriteCase{"Standard2{http}{empty}", "x", "empty =\n", "empty =x\n"},
        RewriteCase{"Standard2{admin}{user}", "root", "= admin\r", "= root\r"},
        RewriteCase{"Standard2{admin}{password}", "a\"b\\c", "\"change me\"", "\"a\\\"b\\\\c\""},
        RewriteCase{"Standard2{admin}{last}", "", "= value", "= \"\""},
        // Not written: a key alone on its line, a key the file lacks.
        RewriteCase{"Standard2{admin}{lonely}", "v", "", nullptr},
        RewriteCase{"Standard2{admin}{missing}", "v", "", nullptr}));

TEST_F(Standard2ParserTest, UnchangedValuesComeBackInCanonicalForm) {
  write_file(file("web.conf"), "version = 4.12.1\nname = plain\nx = 1\n");
  EXPECT_EQ(change(key("Standard2{Root}{x}"), "2"), "version = \"4.12.1\"\nname = plain\nx = 2\n");
}

// A file that does not parse is not rewritten: the change waits.
TEST_F(Standard2ParserTest, UnreadableValueFailsAndLeavesTheFile) {
  write_file(file("web.conf"), "a = 1\n[s]\nb = \"open\nc = 3\n");
  Param* a = key("Standard2{Root}{a}");
  EXPECT_EQ(invoke(a, 1), 1);
  EXPECT_EQ(value_text(a), "1");
  EXPECT_EQ(count_logged("Unreadable value of 'b' on line 3."), 1);
  client_sets(a, "9");
  EXPECT_EQ(invoke(a, 0), 1);
  EXPECT_EQ(read_file(file("web.conf")), "a = 1\n[s]\nb = \"open\nc = 3\n");
}

// A key that occurs twice keeps its new value only at its first place (the second one's old value
// is dropped), so the changed key is one that random edits hardly repeat.
TEST_F(Standard2ParserTest, RandomBytesNeverCrashAndRewriteStably) {
  Param* port = param("p", "", "Standard2{http}{port}", nullptr);
  EXPECT_GT(
      random_rounds(standard2parser_parse, "ab1 \t\n\r=\"\\[]#_\xe9", port, "v w", kWebServer),
      300);
  Param* rare = param("q", "", "Standard2{Root}{zz}", nullptr);
  EXPECT_GT(random_rounds(standard2parser_parse, "ab1 \t\n\r=\"\\[]#_\xe9", rare, "v"), 300);
}

// Rewriting one value of a malformed file (an unclosed quote, a repeated key, a NUL byte) changes
// no other entry.
TEST_F(Standard2ParserTest, RewritingAMalformedFileChangesNoOtherEntry) {
  Param* b = param("b", "", "Standard2{Root}{b}", nullptr);
  std::vector<Param*> others = {param("a", "", "Standard2{Root}{a}", nullptr),
                                param("c", "", "Standard2{s}{c}", nullptr),
                                param("d", "", "Standard2{s}{a}", nullptr)};
  EXPECT_GT(others_kept_rounds(standard2parser_parse, std::string_view("abc =\n\"\\[]#\0", 13), b,
                               "new value", others, "a = 1\nb = \"two\"\n[s]\nc = 3\na 4\n"),
            500);
}

}  // namespace
