#include "parsers/shellparser.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/parsertest_support.h"

namespace {

using tessard::test::client_sets;
using tessard::test::count_logged;
using tessard::test::read_file;
using tessard::test::RewriteCase;
using tessard::test::value_text;
using tessard::test::write_file;

// Every value is already in the form the parser writes (single quotes), so a rewrite that changes
// one value leaves every other byte as it was.
const char kInterface[] =
    "# Wired interface eth0.\n"
    "# Read by the network start-up script at boot.\n"
    "\n"
    "DEVICE='eth0'\n"
    "  ONBOOT='yes'\n"
    "\t\n"
    "# Static address\n"
    "IPADDR='192.168.0.90'\n"
    "NETMASK=''\n"
    "GATEWAY=\n"
    "# after the empty one\n"
    "export MTU='1500'\n"
    "export\tETHTOOL_OPTS='autoneg on'\n"
    "setenv HOSTNAME 'cam01'\n"
    "MSG='it'\\''s'\n"
    "echo 'not an assignment'\n"
    "if [ -n \"$IPADDR\" ]; then :; fi\n"
    "LAST='end'";

class ShellParserTest : public tessard::test::ParserTest {
 protected:
  void SetUp() override {
    ParserTest::SetUp();
    write_file(file("ifcfg"), kInterface);
  }
  Param* var(const char* mount, const char* name = "p") {
    return param(name, file("ifcfg"), mount, "ShellParser");
  }
  // Changes the parameter as a client does and writes its file back.
  std::string change(Param* p, const char* text) {
    client_sets(p, text);
    EXPECT_EQ(invoke(p, 0), 0);
    return read_file(file("ifcfg"));
  }
};

TEST_F(ShellParserTest, LoadsEveryAssignmentForm) {
  check_loads(file("ifcfg"), "ShellParser", kInterface,
              {
                  {"Shell{DEVICE}", "eth0"},
                  {"Shell{ONBOOT}", "yes"},
                  {"Shell{IPADDR}", "192.168.0.90"},
                  {"Shell{NETMASK}", ""},
                  {"Shell{GATEWAY}", ""},
                  {"Shell{MTU}", "1500"},
                  {"Shell{ETHTOOL_OPTS}", "autoneg on"},
                  {"Shell{HOSTNAME}", "cam01"},
                  {"Shell{MSG}", "it's"},
                  {"Shell{LAST}", "end"},
                  {"Shell{echo}", "<none>"},
                  {"Shell{if}", "<none>"},
                  {"Shell{export}", "<none>"},
              });
}

class ShellRewriteTest : public ShellParserTest,
                         public ::testing::WithParamInterface<RewriteCase> {};

TEST_P(ShellRewriteTest, OnlyTheChangedValueChanges) {
  check_rewrite(GetParam(), file("ifcfg"), "ShellParser", kInterface);
}

INSTANTIATE_TEST_SUITE_P(
    Shell, ShellRewriteTest,
    ::testing::Values(
        RewriteCase{"Shell{IPADDR}", "10.0.0.1", "IPADDR='192.168.0.90'", "IPADDR='10.0.0.1'"},
        RewriteCase{"Shell{ONBOOT}", "no", "  ONBOOT='yes'", "  ONBOOT='no'"},
        RewriteCase{"Shell{NETMASK}", "255.0.0.0", "NETMASK=''", "NETMASK='255.0.0.0'"},
        // "NAME=" at the end of its line: the value goes right after the "=".
        RewriteCase{"Shell{GATEWAY}", "10.0.0.254", "GATEWAY=\n", "GATEWAY='10.0.0.254'\n"},
        RewriteCase{"Shell{MTU}", "9000", "export MTU='1500'", "export MTU='9000'"},
        RewriteCase{"Shell{ETHTOOL_OPTS}", "", "'autoneg on'", "''"},
        RewriteCase{"Shell{HOSTNAME}", "cam 02", "'cam01'", "'cam 02'"},
        RewriteCase{"Shell{MSG}", "don't", "'it'\\''s'", "'don'\\''t'"},
        RewriteCase{"Shell{LAST}", "x", "LAST='end'", "LAST='x'"},
        // Not written: a command that only looks like a name, a variable the file lacks.
        RewriteCase{"Shell{echo}", "v", "", nullptr},
        RewriteCase{"Shell{MISSING}", "v", "", nullptr}));

TEST_F(ShellParserTest, UnchangedValuesComeBackSingleQuoted) {
  // A double-quoted value keeps its backslashes and is written between single quotes; a bare one
  // gains quotes. Lines that are not assignments stay as they are.
  write_file(file("ifcfg"), "A=\"x \\\"y\\\"\"\nB=plain\nC='c'\nls -l\n");
  Param* a = var("Shell{A}");
  ASSERT_EQ(invoke(a, 1), 0);
  EXPECT_EQ(value_text(a), "x \\\"y\\\"");
  EXPECT_EQ(change(var("Shell{C}", "c"), "d"), "A='x \\\"y\\\"'\nB='plain'\nC='d'\nls -l\n");
}

// A value that cannot be read (an unclosed quote, a single-quoted value reaching the length
// limit) leaves its parameter without a value, and the file is not rewritten.
class UnreadableValueTest : public ShellParserTest,
                            public ::testing::WithParamInterface<std::string> {};

TEST_P(UnreadableValueTest, FailsLeavesNoValueAndKeepsTheRest) {
  const std::string broken = "A='a'\n# note\nB=" + GetParam() + "\nC='c'\n";
  write_file(file("ifcfg"), broken);
  Param* a = var("Shell{A}");
  Param* b = var("Shell{B}", "b");
  Param* c = var("Shell{C}", "c");
  EXPECT_EQ(invoke(a, 1), 1);
  EXPECT_EQ(value_text(a), "a");
  EXPECT_EQ(value_text(b), "<none>");
  EXPECT_EQ(value_text(c), "<none>");
  EXPECT_EQ(count_logged("Unreadable value of 'B' on line 3."), 1);
  client_sets(a, "new");
  EXPECT_EQ(invoke(a, 0), 1);
  EXPECT_EQ(read_file(file("ifcfg")), broken);
}

INSTANTIATE_TEST_SUITE_P(Values, UnreadableValueTest,
                         ::testing::Values("'open", "'" + std::string(1024, 'x') + "'"));

// The real shell as the oracle: whatever value the parser writes, in every assignment form (all
// bound at Shell{NAME}), sourcing the file gives exactly that value. setenv is given the meaning
// it has in csh.
struct OracleCase {
  const char* line;  // the assignment of NAME as the file holds it before the change
  const char* value;
};

void PrintTo(const OracleCase& c, std::ostream* os) {
  *os << ::testing::PrintToString(std::string(c.line))
      << " := " << ::testing::PrintToString(std::string(c.value));
}

class ShellOracleTest : public ShellParserTest, public ::testing::WithParamInterface<OracleCase> {
 protected:
  std::string sourced(const std::string& path) {
    std::string command =
        "sh -c 'setenv() { eval \"$1=\\$2\"; }; . \"$1\"; printf %s \"$NAME\"' sh '" + path + "'";
    FILE* pipe = popen(command.c_str(), "r");
    EXPECT_NE(pipe, nullptr) << "cannot run sh";
    std::string out;
    char buffer[256];
    for (size_t n; pipe != nullptr && (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
      out.append(buffer, n);
    EXPECT_EQ(pipe != nullptr ? pclose(pipe) : -1, 0) << "sh failed on " << read_file(path);
    return out;
  }
};

TEST_P(ShellOracleTest, SourcingTheFileGivesTheWrittenValue) {
  const OracleCase& c = GetParam();
  const std::string before = "# head\nFIRST='1'\n", after = "\n# tail\nOTHER='2'\n";
  write_file(file("ifcfg"), before + c.line + after);
  Param* p = var("Shell{NAME}");
  std::string text = change(p, c.value);
  ASSERT_EQ(text.substr(0, before.size()), before);
  ASSERT_EQ(text.substr(text.size() - after.size()), after);
  EXPECT_EQ(sourced(file("ifcfg")), c.value) << text;
  group_ = new_group();
  Param* again = var("Shell{NAME}");
  ASSERT_EQ(invoke(again, 1), 0);
  EXPECT_EQ(value_text(again), c.value);
}

std::vector<OracleCase> oracle_cases() {
  static const char* const kLines[] = {
      "NAME='old'",        "NAME=",    "NAME=   ", "NAME=\"old\"", "export NAME='old'",
      "setenv NAME 'old'", "NAME=bare"};
  static const char* const kValues[] = {"two words",        "it's",   "say \"hi\"", "back\\slash",
                                        "$HOME ${X} $(id)", "",       "`id`",       "tab\there",
                                        "multi\nline",      "''\\''", "\\'"};
  std::vector<OracleCase> cases;
  for (const char* line : kLines)
    for (const char* value : kValues) cases.push_back({line, value});
  return cases;
}

INSTANTIATE_TEST_SUITE_P(Shell, ShellOracleTest, ::testing::ValuesIn(oracle_cases()));

// A double-quoted value ends at its closing quote and what follows it on the line is copied;
// written back in single quotes, that rest joins the value on the next reading. Texts with a
// double quote are therefore only run, not compared.
TEST_F(ShellParserTest, RandomEditsNeverCrashAndRewriteStably) {
  Param* address = param("p", "", "Shell{IPADDR}", nullptr);
  EXPECT_GT(random_rounds(shellparser_parse, "aI= \t\n'\"\\$#\x01", address, "it's \"x\"",
                          kInterface, "\""),
            300);
  Param* rare = param("q", "", "Shell{zz}", nullptr);
  EXPECT_GT(random_rounds(shellparser_parse, "ab= \t\n'\"\\#\x01\xe9", rare, "v", {}, "\""), 300);
}

// Rewriting one value of a malformed file (an unclosed quote, a repeated name, a NUL byte)
// changes no other entry.
TEST_F(ShellParserTest, RewritingAMalformedFileChangesNoOtherEntry) {
  Param* b = param("b", "", "Shell{B}", nullptr);
  std::vector<Param*> others = {param("a", "", "Shell{A}", nullptr),
                                param("c", "", "Shell{C}", nullptr)};
  EXPECT_GT(others_kept_rounds(shellparser_parse, std::string_view("ABC= \n'\"\\#\0", 12), b,
                               "new value", others, "A='1'\nB='two'\nexport C='3'\nA=4\n"),
            500);
}

}  // namespace
