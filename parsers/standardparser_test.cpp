#include "parsers/standardparser.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/parsertest_support.h"

namespace {

using tessard::test::client_sets;
using tessard::test::read_file;
using tessard::test::RewriteCase;
using tessard::test::value_text;
using tessard::test::write_file;

// Every token here is already in the form the parser writes, so a rewrite that changes one value
// leaves every other byte as it was.
const char kCameraConf[] =
    "# Camera settings\n"
    "\n"
    "hostname   camera01\n"
    "Description \"Front door \\\"north\\\"\"   \n"
    "\t[net]\n"
    "ip \"192.168.0.90\"\r\n"
    "# mode auto\n"
    "mode manual\n"
    "[user]\n"
    "lonely\n"
    "   nextline\n"
    "\"full name\" Administrator\n"
    "last \xe9t\xe9";

class StandardParserTest : public tessard::test::ParserTest {
 protected:
  void SetUp() override {
    ParserTest::SetUp();
    write_file(file("cam.conf"), kCameraConf);
  }
  Param* key(const char* mount) { return param("p", file("cam.conf"), mount); }
  // Changes the parameter as a client does and writes its file back.
  std::string change(Param* p, const char* text) {
    client_sets(p, text);
    EXPECT_EQ(invoke(p, 0), 0);
    return read_file(file("cam.conf"));
  }
};

TEST_F(StandardParserTest, LoadsValuesOfRealisticFile) {
  check_loads(file("cam.conf"), "Standardparser", kCameraConf,
              {
                  {"Standard{Root}{hostname}", "camera01"},
                  {"Standard{Root}{Description}", "Front door \"north\""},
                  {"Standard{net}{ip}", "192.168.0.90"},
                  {"Standard{net}{mode}", "manual"},
                  {"Standard{user}{full name}", "Administrator"},
                  {"Standard{user}{last}", "\xe9t\xe9"},
                  {"Standard{user}{lonely}", "<none>"},
                  {"Standard{user}{nextline}", "<none>"},
                  {"Standard{Root}{mode}", "<none>"},
              });
}

class RewriteTest : public StandardParserTest, public ::testing::WithParamInterface<RewriteCase> {};

TEST_P(RewriteTest, OnlyTheChangedValueChanges) {
  check_rewrite(GetParam(), file("cam.conf"), "Standardparser", kCameraConf);
}

INSTANTIATE_TEST_SUITE_P(
    Standard, RewriteTest,
    ::testing::Values(
        RewriteCase{"Standard{Root}{hostname}", "cam02", "camera01", "cam02"},
        RewriteCase{"Standard{Root}{hostname}", "cam 02", "camera01", "\"cam 02\""},
        RewriteCase{"Standard{Root}{hostname}", "a\"b\\c", "camera01", "\"a\\\"b\\\\c\""},
        RewriteCase{"Standard{Root}{hostname}", "", "camera01", "\"\""},
        RewriteCase{"Standard{Root}{Description}", "Back", "\"Front door \\\"north\\\"\"", "Back"},
        RewriteCase{"Standard{net}{ip}", "10.0.0.1", "\"192.168.0.90\"", "\"10.0.0.1\""},
        RewriteCase{"Standard{user}{last}", "x", "\xe9t\xe9", "x"},
        // Not written: a key the file lacks, a key whose value is on the next line.
        RewriteCase{"Standard{user}{missing}", "v", "", nullptr},
        RewriteCase{"Standard{user}{lonely}", "v", "", nullptr}));

TEST_F(StandardParserTest, SameKeyInTwoSectionsMapsTwoParameters) {
  write_file(file("cam.conf"), "x 0\n[a]\nx 1\n[b]\nx 2\n");
  Param* a = key("Standard{a}{x}");
  Param* b = param("q", file("cam.conf"), "Standard{b}{x}");
  ASSERT_EQ(invoke(a, 1) + invoke(b, 1), 0);
  EXPECT_EQ(value_text(a) + value_text(b), "12");
  EXPECT_EQ(change(b, "22"), "x 0\n[a]\nx 1\n[b]\nx 22\n");
}

TEST_F(StandardParserTest, UnchangedTokensWrittenInCanonicalForm) {
  // Bare tokens with other characters than letters and digits come back quoted; a "#" after a
  // value is a key; a line that cannot be read is copied as it is.
  write_file(file("cam.conf"), "ip 1.2.3.4\nmode manual # note\n\x01 \"open\nk v\n");
  Param* hash = key("Standard{Root}{#}");
  ASSERT_EQ(invoke(hash, 1), 0);
  EXPECT_EQ(value_text(hash), "note");
  EXPECT_EQ(change(param("k", file("cam.conf"), "Standard{Root}{k}"), "w"),
            "ip \"1.2.3.4\"\nmode manual \"#\" note\n\x01 \"open\nk w\n");
}

// Arbitrary bytes, rich in the characters the grammar cares about, never fail a parse. Writing is
// stable (the written text writes as itself) while no double quote is left open: a quote that the
// canonical form adds to a later token could close it on the next reading.
TEST_F(StandardParserTest, ArbitraryBytesParseAndRewriteStably) {
  static const char kAlphabet[] = "ab1 \t\n\r\"\\[]#=_\x01\x7f\xa0\xe9";
  unsigned seed = 12345;
  auto next = [&seed] { return (seed = seed * 1103515245 + 12345) >> 16; };
  int checked = 0;
  for (int round = 0; round < 3000; ++round) {
    std::string text, once, twice;
    for (unsigned n = next() % 60; n > 0; --n) {
      text += next() % 50 == 0 ? '\0' : kAlphabet[next() % (sizeof kAlphabet - 1)];
    }
    ASSERT_EQ(parser_parseText("Standardparser", text, group_->path, 1, nullptr), 0);
    ASSERT_EQ(parser_parseText("Standardparser", text, group_->path, 0, &once), 0);
    if (text.find('"') != std::string::npos) continue;
    ASSERT_EQ(parser_parseText("Standardparser", once, group_->path, 0, &twice), 0);
    ASSERT_EQ(twice, once) << ::testing::PrintToString(text);
    ++checked;
  }
  EXPECT_GT(checked, 300);
}

// Rewriting one value of a malformed file (an unclosed quote, a repeated key, a NUL byte) changes
// no other entry.
TEST_F(StandardParserTest, RewritingAMalformedFileChangesNoOtherEntry) {
  Param* b = param("b", "", "Standard{Root}{b}", nullptr);
  std::vector<Param*> others = {param("a", "", "Standard{Root}{a}", nullptr),
                                param("c", "", "Standard{s}{c}", nullptr),
                                param("d", "", "Standard{s}{a}", nullptr)};
  EXPECT_GT(others_kept_rounds(standardparser_parse, std::string_view("abc \n\"\\[]#\0", 12), b,
                               "new value", others, "a 1\nb \"two\"\n[s]\nc 3\na 4\n"),
            500);
}

}  // namespace
