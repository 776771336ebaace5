#include "parsers/resolvparser.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/support/parsertest_support.h"

namespace {

using tessard::test::clear_captured_log;
using tessard::test::client_sets;
using tessard::test::count_logged;
using tessard::test::read_file;
using tessard::test::value_text;
using tessard::test::write_file;

const char kResolv[] =
    "# Resolver configuration, kept by tessard.\n"
    "# Name servers are asked in the order listed.\n"
    "\n"
    "domain example.com\n"
    "nameserver 192.168.0.1\n"
    "options timeout:2 rotate\n"
    "  nameserver\t192.168.0.2\n"
    "nameserver 10.0.0.3   # the last resort\n";

class ResolvParserTest : public tessard::test::ParserTest {
 protected:
  void SetUp() override {
    ParserTest::SetUp();
    write_file(file("resolv.conf"), kResolv);
  }
  Param* setting(const char* section) {
    return param(section, file("resolv.conf"), ("Resolv{" + std::string(section) + "}").c_str(),
                 "Resolvparser");
  }
};

TEST_F(ResolvParserTest, LoadsSearchAndNameServersInOrder) {
  check_loads(file("resolv.conf"), "Resolvparser", kResolv,
              {
                  {"Resolv{Search}", "example.com", "string"},
                  {"Resolv{Nameserver0}", "192.168.0.1", "ipaddr"},
                  {"Resolv{Nameserver1}", "192.168.0.2"},
                  {"Resolv{Nameserver2}", "10.0.0.3"},
                  {"Resolv{Nameserver3}", "<none>"},
                  {"Resolv{options}", "<none>"},
              });
}

TEST_F(ResolvParserTest, DefaultsWhenTheFileLacksTheLines) {
  write_file(file("resolv.conf"), "options rotate\n");
  Param* search = setting("Search");
  Param* second = setting("Nameserver1");
  ASSERT_EQ(invoke(search, 1), 0);
  EXPECT_EQ(value_text(search), "");
  EXPECT_EQ(value_text(second), "0.0.0.0");
  EXPECT_STREQ(legacy_drep_getTypeName(map_getParamData(second)), "ipaddr");
}

struct RewriteCase {
  const char* name;
  const char* file;
  std::vector<std::pair<const char*, const char*>> changes;  // section, new value
  const char* expected;
};

void PrintTo(const RewriteCase& c, std::ostream* os) {
  *os << c.name;
}

class ResolvRewriteTest : public ResolvParserTest,
                          public ::testing::WithParamInterface<RewriteCase> {};

TEST_P(ResolvRewriteTest, WritesChangedValuesInTheirPlace) {
  const RewriteCase& c = GetParam();
  write_file(file("resolv.conf"), c.file);
  std::vector<Param*> changed;
  for (const auto& [section, value] : c.changes) {
    changed.push_back(setting(section));
    client_sets(changed.back(), value);
  }
  ASSERT_EQ(invoke(changed.front(), 0), 0);
  EXPECT_EQ(read_file(file("resolv.conf")), c.expected);
  for (Param* p : changed) EXPECT_EQ(p->status, PARAMSTATUS_STORED) << p->name;
  group_ = new_group();
  for (const auto& [section, value] : c.changes) {
    Param* again = setting(section);
    ASSERT_EQ(invoke(again, 1), 0);
    if (strcmp(value, "0.0.0.0") != 0 && value[0] != 0) {
      EXPECT_EQ(value_text(again), value);
    }
  }
}

const std::string kHead =
    "# Resolver configuration, kept by tessard.\n"
    "# Name servers are asked in the order listed.\n"
    "\n";

INSTANTIATE_TEST_SUITE_P(
    Resolv, ResolvRewriteTest,
    ::testing::Values(
        // A domain line keeps its keyword.
        RewriteCase{"DomainKeepsItsKeyword",
                    kResolv,
                    {{"Search", "corp.example local"}},
                    "# Resolver configuration, kept by tessard.\n"
                    "# Name servers are asked in the order listed.\n"
                    "\n"
                    "domain corp.example local\n"
                    "nameserver 192.168.0.1\n"
                    "options timeout:2 rotate\n"
                    "  nameserver\t192.168.0.2\n"
                    "nameserver 10.0.0.3   # the last resort\n"},
        RewriteCase{"NameServersInPlace",
                    kResolv,
                    {{"Nameserver1", "10.1.1.1"}, {"Nameserver2", "10.2.2.2"}},
                    "# Resolver configuration, kept by tessard.\n"
                    "# Name servers are asked in the order listed.\n"
                    "\n"
                    "domain example.com\n"
                    "nameserver 192.168.0.1\n"
                    "options timeout:2 rotate\n"
                    "  nameserver 10.1.1.1\n"
                    "nameserver 10.2.2.2   # the last resort\n"},
        // 0.0.0.0 and an empty search list stand for no line.
        RewriteCase{"RemovedLines",
                    kResolv,
                    {{"Nameserver0", "0.0.0.0"}, {"Search", ""}},
                    "# Resolver configuration, kept by tessard.\n"
                    "# Name servers are asked in the order listed.\n"
                    "\n"
                    "\n"
                    "\n"
                    "options timeout:2 rotate\n"
                    "  nameserver\t192.168.0.2\n"
                    "nameserver 10.0.0.3   # the last resort\n"},
        RewriteCase{
            "EmptyFileGetsAllThree",
            "",
            {{"Nameserver1", "10.0.0.2"}, {"Search", "a.example"}, {"Nameserver0", "10.0.0.1"}},
            "search a.example\nnameserver 10.0.0.1\nnameserver 10.0.0.2\n"},
        // The top is after the comment lines that open the file.
        RewriteCase{"FirstOnTopSecondAtTheEnd",
                    "# kept\noptions rotate\n",
                    {{"Nameserver0", "10.0.0.1"}, {"Nameserver1", "10.0.0.2"}},
                    "# kept\nnameserver 10.0.0.1\noptions rotate\nnameserver 10.0.0.2\n"},
        RewriteCase{"SearchOnTop",
                    "nameserver 10.0.0.1\n",
                    {{"Search", "a.example"}},
                    "search a.example\nnameserver 10.0.0.1\n"},
        RewriteCase{"SecondAfterTheFirst",
                    "nameserver 10.0.0.1",
                    {{"Nameserver1", "10.0.0.2"}},
                    "nameserver 10.0.0.1\nnameserver 10.0.0.2\n"},
        RewriteCase{"NoAddressNoLine", "", {{"Nameserver0", "0.0.0.0"}}, ""},
        // Search lines after the first that maps the value are dropped.
        RewriteCase{
            "LaterSearchLinesDropped", "search a\ndomain b\n", {{"Search", "c"}}, "search c\n\n"}),
    [](const ::testing::TestParamInfo<RewriteCase>& info) { return info.param.name; });

TEST_F(ResolvParserTest, ValueOnTheNextLineFailsAndKeepsTheFile) {
  const char* const kCases[][2] = {
      {"search a\nnameserver\n10.0.0.1\n", "no value after 'nameserver' on line 2."},
      {"search\na\n", "no value after 'search' on line 1."},
  };
  for (const auto& [text, message] : kCases) {
    write_file(file("resolv.conf"), text);
    group_ = new_group();
    Param* search = setting("Search");
    clear_captured_log();
    EXPECT_EQ(invoke(search, 1), 1) << text;
    EXPECT_EQ(count_logged(std::string("Resolver file: ") + message), 1);
    EXPECT_EQ(invoke(search, 0), 1);
    EXPECT_EQ(read_file(file("resolv.conf")), text);
  }
}

TEST_F(ResolvParserTest, RandomEditsNeverCrashAndRewriteStably) {
  Param* p = param("p", "", "Resolv{Search}", nullptr);
  EXPECT_GT(random_rounds(resolvparser_parse, "ns1. \t\n#\x01\xe9", p, "v w", kResolv), 300);
  Param* q = param("q", "", "Resolv{Nameserver1}", nullptr);
  EXPECT_GT(random_rounds(resolvparser_parse, "nameserv 1.\n#", q, "10.0.0.9"), 1000);
}

}  // namespace
