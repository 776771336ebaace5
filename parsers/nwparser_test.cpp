#include "parsers/nwparser.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tests/support/parsertest_support.h"

namespace {

using tessard::test::clear_captured_log;
using tessard::test::client_sets;
using tessard::test::count_logged;
using tessard::test::read_file;
using tessard::test::value_text;
using tessard::test::write_file;

// Values in the form the parser writes (bare letters and digits, or double-quoted).
const char kNetwork[] =
    "# Network settings of the unit\n"
    "HOSTNAME=cam01\n"
    "IP=\"192.168.0.90\"\n"
    "  NETMASK = \"255.255.255.0\"\n"
    "\n"
    "export GATEWAY=\"192.168.0.1\"\n"
    "setenv BROADCAST \"192.168.0.255\"\n"
    "DHCPENABLE=no\n"
    "MACADR=\"00:40:8c:12:34:56\"\n"
    "# UPnP\n"
    "UPNPFRIENDLYNAME=\"Front door\"";

// The network parser is not registered at start: the test registers it alone.
class NetworkParserTest : public tessard::test::ParserTest {
 protected:
  static void SetUpTestSuite() { start_alone(nwparser_register); }
  void SetUp() override {
    ParserTest::SetUp();
    write_file(file("network"), kNetwork);
  }
  Param* key(const char* mount, const char* name = "p") {
    return param(name, file("network"), mount, "NWparser");
  }
  std::string change(Param* p, const char* text) {
    client_sets(p, text);
    EXPECT_EQ(invoke(p, 0), 0);
    return read_file(file("network"));
  }
};

TEST_F(NetworkParserTest, LoadsKnownKeysWithTheirTypes) {
  check_loads(file("network"), "NWparser", kNetwork,
              {
                  {"Network{HOSTNAME}", "cam01", "string"},
                  {"Network{IP}", "192.168.0.90", "ip"},
                  {"Network{NETMASK}", "255.255.255.0", "ip"},
                  {"Network{GATEWAY}", "192.168.0.1", "ip"},
                  {"Network{BROADCAST}", "192.168.0.255", "ip"},
                  {"Network{DHCPENABLE}", "no", "yes_no"},
                  {"Network{MACADR}", "00:40:8c:12:34:56", "eth_addr"},
                  {"Network{UPNPFRIENDLYNAME}", "Front door", "string"},
                  {"Network{NAMESERVER}", "<none>"},
              });
}

TEST_F(NetworkParserTest, ChangesOneValueInEachForm) {
  const char* const kCases[][4] = {
      {"Network{IP}", "10.0.0.2", "IP=\"192.168.0.90\"", "IP=\"10.0.0.2\""},
      {"Network{NETMASK}", "255.0.0.0", "= \"255.255.255.0\"", "= \"255.0.0.0\""},
      {"Network{GATEWAY}", "10.0.0.1", "GATEWAY=\"192.168.0.1\"", "GATEWAY=\"10.0.0.1\""},
      {"Network{BROADCAST}", "10.255.255.255", "BROADCAST \"192.168.0.255\"",
       "BROADCAST \"10.255.255.255\""},
      {"Network{HOSTNAME}", "cam 02", "=cam01", "=\"cam 02\""},
      {"Network{UPNPFRIENDLYNAME}", "Gate", "\"Front door\"", "Gate"},
  };
  for (const auto& [mount, value, old_text, new_text] : kCases) {
    write_file(file("network"), kNetwork);
    group_ = new_group();
    std::string expected = kNetwork;
    expected.replace(expected.find(old_text), strlen(old_text), new_text);
    EXPECT_EQ(change(key(mount), value), expected) << mount;
  }
}

TEST_F(NetworkParserTest, ThreeLineFormsMapToOnePath) {
  for (const char* line : {"IP=10.0.0.2", "export IP=10.0.0.2", "setenv IP 10.0.0.2"}) {
    write_file(file("network"), std::string(line) + "\n");
    group_ = new_group();
    Param* p = key("Network{IP}");
    ASSERT_EQ(invoke(p, 1), 0);
    EXPECT_EQ(value_text(p), "10.0.0.2") << line;
  }
}

// A file the parser cannot read fails as a whole; a write run keeps all of it.
TEST_F(NetworkParserTest, BrokenLinesFailTheParse) {
  const char* const kCases[][2] = {
      {"MTU=1500", "unknown key 'MTU' on line 2."}, {"IP 10.0.0.2", "missing \"=\" on line 2."},
      {"IP=", "missing value on line 2."},          {"export", "missing key on line 2."},
      {"IP=\"open", "unreadable value on line 2."},
  };
  for (const auto& [line, message] : kCases) {
    std::string text = std::string("HOSTNAME=cam01\n") + line + "\nDHCPENABLE=no\n";
    write_file(file("network"), text);
    group_ = new_group();
    Param* host = key("Network{HOSTNAME}");
    clear_captured_log();
    EXPECT_EQ(invoke(host, 1), 1) << line;
    EXPECT_EQ(value_text(host), "cam01");
    EXPECT_EQ(count_logged(std::string("Network file: ") + message), 1) << line;
    EXPECT_EQ(invoke(host, 0), 1);
    EXPECT_EQ(read_file(file("network")), text);
  }
}

TEST_F(NetworkParserTest, RegisteredOnlyByItsOwnFunction) {
  EXPECT_NE(parser_find("NWparser"), nullptr);
  EXPECT_EQ(parser_find("Standardparser"), nullptr);
}

TEST_F(NetworkParserTest, RandomEditsNeverCrashAndRewriteStably) {
  Param* p = param("p", "", "Network{HOSTNAME}", nullptr);
  EXPECT_GT(random_rounds(nwparser_parse, "IPex1 =\"\t\n#\x01", p, "v w", kNetwork), 300);
}

}  // namespace
