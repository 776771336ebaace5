#include "parsers/ispparser.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/parsertest_support.h"

namespace {

using tessard::test::clear_captured_log;
using tessard::test::client_sets;
using tessard::test::count_logged;
using tessard::test::read_file;
using tessard::test::value_text;
using tessard::test::write_file;

// A block in the reading order, values in the form the parser writes back when unchanged.
std::string block(const std::string& name, const std::string& login = "yes") {
  return "[" + name + "]\n" + "LOGIN = " + login +
         "\n"
         "USERNAME = bob\n"
         "PASSWD = secret\n"
         "PASSWORD = secret\n"
         "PROMPT =\n"
         "PHONE1 = 5551234\n"
         "PHONE2 =  \n"
         "CONNECTIONTYPE = ppp\n"
         "CLOSEAFTER = 300\n"
         "NORETRIES = 3\n"
         "WAITBEFORERETRY = 30\n"
         "UPLOADPATH = \"/upload\"\n"
         "SELECTED = no\n"
         "USERNAMEB =\n";
}

const std::string kIsp = "# Dial-up providers\nusing = home\n\n" + block("home") +
                         "\n# the spare one\n" + block("spare", "no");

// The ISP parser is not registered at start: the test registers it alone.
class IspParserTest : public tessard::test::ParserTest {
 protected:
  static void SetUpTestSuite() { start_alone(ispparser_register); }
  void SetUp() override {
    ParserTest::SetUp();
    write_file(file("isp"), kIsp);
  }
  Param* at(const char* mount, const char* name = "p") {
    return param(name, file("isp"), mount, "ISPparser");
  }
  static Data* text_value(const char* text) {
    Data* data = legacy_drep_createData();
    legacy_drep_initializeScalar(data, SCALAR_CUSTOM, "string");
    legacy_drep_setCustomFromString(data, text, nullptr);
    return data;
  }
  // A provider list as a client sets it: name -> (key -> value).
  static Data* provider_list(
      const std::vector<std::pair<const char*, std::vector<std::pair<const char*, const char*>>>>&
          providers) {
    Data* list = legacy_drep_createData();
    legacy_drep_initializeHash(list);
    for (const auto& [name, entries] : providers) {
      Data* provider = legacy_drep_createData();
      legacy_drep_initializeHash(provider);
      for (const auto& [key, value] : entries)
        legacy_drep_setHashValue(provider, text_value(value), key);
      legacy_drep_setHashValue(list, provider, name);
    }
    return list;
  }
  void client_sets_data(Param* p, Data* data) {
    map_setParamData(p, data);
    p->status = PARAMSTATUS_UPDATED;
    p->synced = 0;
  }
};

TEST_F(IspParserTest, LoadsTheUsingLineAndEveryBlock) {
  check_loads(file("isp"), "ISPparser", kIsp,
              {
                  {"ISP{using}", "home"},
                  {"ISP{isps}{home}{ISPNAME}", "home"},
                  {"ISP{isps}{home}{LOGIN}", "yes"},
                  {"ISP{isps}{spare}{LOGIN}", "no"},
                  {"ISP{isps}{home}{PROMPT}", ""},
                  {"ISP{isps}{home}{PHONE2}", ""},
                  {"ISP{isps}{spare}{UPLOADPATH}", "/upload"},
                  {"ISP{isps}{spare}{USERNAMEB}", ""},
              });
}

TEST_F(IspParserTest, ChangesAnEntryInPlace) {
  const char* const kCases[][4] = {
      {"ISP{using}", "spare", "using = home", "using = spare"},
      {"ISP{isps}{home}{PHONE1}", "5559999", "PHONE1 = 5551234", "PHONE1 = 5559999"},
      {"ISP{isps}{home}{PROMPT}", "ogin:", "PROMPT =\n", "PROMPT = ogin:\n"},
      {"ISP{isps}{home}{PHONE2}", "1", "PHONE2 =  \n", "PHONE2 = 1\n"},
  };
  for (const auto& [mount, value, old_text, new_text] : kCases) {
    write_file(file("isp"), kIsp);
    group_ = new_group();
    Param* p = at(mount);
    client_sets(p, value);
    ASSERT_EQ(invoke(p, 0), 0);
    std::string expected = kIsp;
    expected.replace(expected.find(old_text), strlen(old_text), new_text);
    EXPECT_EQ(read_file(file("isp")), expected) << mount;
    EXPECT_EQ(p->status, PARAMSTATUS_STORED);
  }
}

// A changed provider list replaces the blocks after the "using" line; each block is written in
// the writing order, which puts SELECTED and USERNAMEB earlier than a reader expects them.
TEST_F(IspParserTest, ListWrittenInTheWritingOrder) {
  Param* list = at("ISP{isps}");
  client_sets_data(list, provider_list({{"new",
                                         {{"LOGIN", "l"},
                                          {"USERNAME", "u"},
                                          {"USERNAMEB", "ub"},
                                          {"PASSWD", "pw"},
                                          {"SELECTED", "yes"},
                                          {"UPLOADPATH", "/up"}}}}));
  ASSERT_EQ(invoke(list, 0), 0);
  EXPECT_EQ(read_file(file("isp")),
            "# Dial-up providers\nusing = home\n\n"
            "[new]\nSELECTED = yes\nLOGIN = l\nUSERNAME = u\nUSERNAMEB = ub\nPASSWD = pw\n"
            "PASSWORD = \nPROMPT = \nPHONE1 = \nPHONE2 = \nCONNECTIONTYPE = \nCLOSEAFTER = \n"
            "NORETRIES = \nWAITBEFORERETRY = \nUPLOADPATH = /up\n\n");
  EXPECT_EQ(list->status, PARAMSTATUS_STORED);
}

TEST_F(IspParserTest, WholeFileWrittenForTheRootParameter) {
  Param* whole = at("ISP");
  Data* data = legacy_drep_createData();
  legacy_drep_initializeHash(data);
  legacy_drep_setHashValue(data, text_value("only"), "using");
  legacy_drep_setHashValue(data, provider_list({{"only", {{"LOGIN", "x"}}}}), "isps");
  client_sets_data(whole, data);
  ASSERT_EQ(invoke(whole, 0), 0);
  std::string text = read_file(file("isp"));
  EXPECT_TRUE(
      text.starts_with("# Dial-up providers\nusing = only\n[only]\nSELECTED = \nLOGIN = x\n"))
      << text;
  EXPECT_TRUE(text.ends_with("UPLOADPATH = \n\n")) << text;
  EXPECT_EQ(text.find("home"), std::string::npos) << text;
  EXPECT_EQ(whole->status, PARAMSTATUS_STORED);
}

TEST_F(IspParserTest, EntryWithOnlyItsKeyAndEqualsIsEmpty) {
  std::string text = "using = a\n" + block("a");
  text.replace(text.find("LOGIN = yes"), 11, "LOGIN =");
  write_file(file("isp"), text);
  Param* login = at("ISP{isps}{a}{LOGIN}");
  ASSERT_EQ(invoke(login, 1), 0);
  EXPECT_EQ(value_text(login), "");
}

TEST_F(IspParserTest, BrokenFilesFailAndKeepTheirText) {
  std::string swapped = block("a");
  swapped.replace(swapped.find("USERNAME = bob"), 14, "PASSWD = bob");
  const std::string kCases[][2] = {
      {"", "ISP file: no entry 'using' on line 1."},
      {"using home\n", "ISP file: expected \"=\" after 'using' on line 1."},
      {"using = a\n" + swapped, "ISP file: expected the entry 'USERNAME' on line 4."},
      {"using = a\nLOGIN = x\n", "ISP file: expected a provider's header '[' on line 2."},
      {"using = a\n" + block("a").substr(0, 40), "ISP file: expected the entry 'PASSWORD'"},
  };
  for (const auto& [text, message] : kCases) {
    write_file(file("isp"), text);
    group_ = new_group();
    Param* p = at("ISP{using}");
    clear_captured_log();
    EXPECT_EQ(invoke(p, 1), 1) << text;
    EXPECT_EQ(count_logged(message), 1) << text;
    EXPECT_EQ(invoke(p, 0), 1);
    EXPECT_EQ(read_file(file("isp")), text);
  }
}

TEST_F(IspParserTest, RandomEditsNeverCrashAndRewriteStably) {
  Param* p = param("p", "", "ISP{isps}{home}{PHONE1}", nullptr);
  EXPECT_GT(random_rounds(ispparser_parse, "ab1 =\t\n[]#\"\x01", p, "v", kIsp), 100);
}

}  // namespace
