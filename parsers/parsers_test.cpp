// The backing-file formats run over text as over a file's content: a table of formats (a sample,
// what it reads, how one changed value rewrites it), odd cases of single formats, random rounds.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "parsers/camsettingsparser.h"
#include "parsers/ispparser.h"
#include "parsers/nwparser.h"
#include "parsers/resolvparser.h"
#include "parsers/shellparser.h"
#include "parsers/singlevalueparser.h"
#include "parsers/standard2parser.h"
#include "parsers/standardparser.h"
#include "tests/support/parsertest_support.h"
#include "tests/support/shellcommand.h"

namespace {

using tessard::test::client_sets;
using tessard::test::count_logged;
using tessard::test::string_data;
using tessard::test::value_text;
using tessard::test::write_file;

// Fields of a table row ("a||b": an empty second field; a trailing "|" adds none).
std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream in(text);
  for (std::string part; std::getline(in, part, separator);) parts.push_back(part);
  return parts;
}

// Names each instance of a parametrised test, and prints its row, by the row's name.
constexpr auto kByName = [](const auto& info) { return std::string(info.param.name); };
template <typename Case>
requires requires(const Case& c) {
  c.name;
}
std::ostream& operator<<(std::ostream& os, const Case& c) {
  return os << c.name;
}

using Rows = std::vector<std::vector<std::string>>;

Rows rows(std::string_view table) {
  Rows result;
  for (const std::string& row : split(std::string(table), ';')) result.push_back(split(row, '|'));
  return result;
}

class Formats : public tessard::test::ParserTest {
 protected:
  // Runs `parse` over `text` held in a heap block of exactly its size, so that a read past the
  // end is caught by AddressSanitizer. Write mode when `output` is not null.
  int run(ParseFunction parse, std::string_view text, std::string* output = nullptr) {
    std::unique_ptr<char[]> exact(new char[text.size()]);
    std::copy(text.begin(), text.end(), exact.get());
    int result = parser_runOnText(parse, std::string_view(exact.get(), text.size()), "(text)",
                                  group_->path, output == nullptr ? 1 : 0, output);
    mif_reset();
    return result;
  }
  // What a fresh parameter bound at `mount` reads from `text`.
  std::string read_back(ParseFunction parse, const std::string& text, const char* mount) {
    group_ = new_group();
    Param* p = bound(mount);
    EXPECT_EQ(run(parse, text), 0);
    return value_text(p);
  }
  // Binds a parameter at the first field of each row (below `root`); a client sets it to the second
  // when `set`.
  std::vector<Param*> bind_rows(const Rows& table, bool set, const std::string& root = "") {
    std::vector<Param*> params;
    for (const auto& row : table) {
      params.push_back(bound((root + row[0]).c_str()));
      if (set) client_sets(params.back(), row.size() > 1 ? row[1].c_str() : "");
    }
    return params;
  }
  // Each parameter holds the second field of its row ("" when left out), as a scalar of the type
  // in the third when there is one.
  static void expect_values(const std::vector<Param*>& params, const Rows& table) {
    for (size_t i = 0; i < params.size(); ++i) {
      EXPECT_EQ(value_text(params[i]), table[i].size() > 1 ? table[i][1] : "") << table[i][0];
      if (table[i].size() > 2) {
        EXPECT_EQ(legacy_drep_getTypeName(map_getParamData(params[i])), table[i][2]);
      }
    }
  }
};

// A read gives the parameter bound at `mount` the value ("<none>": not bound), as a scalar of the
// type when one is given. An edit sets the parameter bound at `mount` to the value: the text has
// the new text in place of the first old text; without them the text stays and the change waits.
// Reads and edits are written as table rows: fields split at "|", rows at ";".
struct Format {
  const char* name;  // the root of every mount
  ParseFunction parse;
  std::string sample;  // every value in the form the parser writes it
  const char* reads;   // mount|value|type, value "" when left out, no type check when left out
  const char* edits;   // mount|value|old text|new text, mount|value when not written
};

// A provider list of one block, its entries in the reading order.
const char kIsp[] =
    "# Dial-up providers\nusing = home\n\n[home]\nLOGIN = yes\nUSERNAME = bob\nPASSWD = secret\n"
    "PASSWORD = secret\nPROMPT =\nPHONE1 = 5551234\nPHONE2 =  \nCONNECTIONTYPE = ppp\n"
    "CLOSEAFTER = 300\nNORETRIES = 3\nWAITBEFORERETRY = 30\nUPLOADPATH = \"/upload\"\n"
    "SELECTED = no\nUSERNAMEB =\n";

const char kShell[] =
    "# Wired interface eth0.\n\nDEVICE='eth0'\n  ONBOOT='yes'\n\t\n# Static address\n"
    "IPADDR='192.168.0.90'\nNETMASK=''\nGATEWAY=\n# after the empty one\nexport MTU='1500'\n"
    "export\tETHTOOL_OPTS='autoneg on'\nsetenv HOSTNAME 'cam01'\nMSG='it'\\''s'\n"
    "echo 'not an assignment'\nif [ -n \"$IPADDR\" ]; then :; fi\nLAST='end'";

const char kStandard[] =
    "# Camera settings\n\nhostname   camera01\nDescription \"Front door \\\"north\\\"\"   \n"
    "\t[net]\nip \"192.168.0.90\"\r\n# mode auto\nmode manual\n[user]\nlonely\n   nextline\n"
    "\"full name\" Administrator\nlast \xe9t\xe9";

const char kStandard2[] =
    "# Embedded web server of the camera.\nmodel = CAM2100\nserial \"A1B2-00042\"\n\n[http]\n"
    "enabled = yes\nport=80\n  timeout   =   30\t\nempty =\n# Account of the web interface\n"
    "[admin]\r\nuser = admin\r\npassword = \"change me\"\nlonely\nlast = value";

const char kCamsettings[] =
    "# Image settings of the camera head.\n\n[Image]\nint Brightness 50\n"
    "int   Contrast    50\t\ncenum_on_off Mirror off\n  resolution Resolution 640x480\n"
    "ip Address \"192.168.0.90\"\r\n\n[Exposure]\nhigh_low Sensitivity low\norphan\n"
    "string Empty\n# Text drawn into the picture\n[Overlay]\nyes_no ShowClock yes\n"
    "string Text \"Front entrance\"";

const char kNetwork[] =
    "# Network settings\nHOSTNAME=cam01\n  NETMASK = \"255.255.255.0\"\n\n"
    "export GATEWAY=\"192.168.0.1\"\nsetenv BROADCAST \"192.168.0.255\"\nDHCPENABLE=no";

const char kResolv[] =
    "# Resolver configuration.\n\ndomain example.com\nnameserver 192.168.0.1\n"
    "options timeout:2 rotate\n  nameserver\t192.168.0.2\nnameserver 10.0.0.3   # last resort\n";

const Format kFormats[] = {
    {"Shell", shellparser_parse, kShell,
     "{DEVICE}|eth0;{ONBOOT}|yes;{IPADDR}|192.168.0.90;{NETMASK};{GATEWAY};{MTU}|1500;"
     "{ETHTOOL_OPTS}|autoneg on;{HOSTNAME}|cam01;{MSG}|it's;{LAST}|end;{echo}|<none>;{if}|<none>;"
     "{export}|<none>",
     "{IPADDR}|10.0.0.1|IPADDR='192.168.0.90'|IPADDR='10.0.0.1';"
     "{ONBOOT}|no|  ONBOOT='yes'|  ONBOOT='no';{NETMASK}|255.0.0.0|NETMASK=''|NETMASK='255.0.0.0';"
     "{GATEWAY}|10.0.0.254|GATEWAY=\n|GATEWAY='10.0.0.254'\n;"
     "{MTU}|9000|export MTU='1500'|export MTU='9000';{ETHTOOL_OPTS}||'autoneg on'|'';"
     "{HOSTNAME}|cam 02|'cam01'|'cam 02';{MSG}|don't|'it'\\''s'|'don'\\''t';"
     "{LAST}|x|LAST='end'|LAST='x';{echo}|v;{MISSING}|v"},
    {"Standard", standardparser_parse, kStandard,
     "{Root}{hostname}|camera01;{Root}{Description}|Front door \"north\";{net}{ip}|192.168.0.90;"
     "{net}{mode}|manual;{user}{full name}|Administrator;{user}{last}|\xe9t\xe9;"
     "{user}{lonely}|<none>;{user}{nextline}|<none>;{Root}{mode}|<none>",
     "{Root}{hostname}|cam02|camera01|cam02;{Root}{hostname}|cam 02|camera01|\"cam 02\";"
     "{Root}{hostname}|a\"b\\c|camera01|\"a\\\"b\\\\c\";{Root}{hostname}||camera01|\"\";"
     "{Root}{Description}|Back|\"Front door \\\"north\\\"\"|Back;"
     "{net}{ip}|10.0.0.1|\"192.168.0.90\"|\"10.0.0.1\";{user}{last}|x|\xe9t\xe9|x;"
     "{user}{missing}|v;{user}{lonely}|v"},
    {"Standard2", standard2parser_parse, kStandard2,
     "{Root}{model}|CAM2100;{Root}{serial}|A1B2-00042;{http}{enabled}|yes;{http}{port}|80;"
     "{http}{timeout}|30;{http}{empty};{admin}{user}|admin;{admin}{password}|change me;"
     "{admin}{last}|value;{admin}{lonely}|<none>;{Root}{enabled}|<none>;{http}{model}|<none>",
     "{Root}{model}|CAM3000|= CAM2100|= CAM3000;"
     "{Root}{serial}|B2|serial \"A1B2-00042\"|serial = B2;{http}{port}|8080|port=80|port=8080;"
     "{http}{timeout}|60|=   30\t|=   60\t;{http}{empty}|x|empty =\n|empty =x\n;"
     "{admin}{user}|root|= admin\r|= root\r;"
     "{admin}{password}|a\"b\\c|\"change me\"|\"a\\\"b\\\\c\";{admin}{last}||= value|= \"\";"
     "{admin}{lonely}|v;{admin}{missing}|v"},
    {"Camsettings", camsettingsparser_parse, kCamsettings,
     "{Image}{Brightness}|50|int;{Image}{Contrast}|50|int;{Image}{Mirror}|off|cenum_on_off;"
     "{Image}{Resolution}|640x480|resolution;{Image}{Address}|192.168.0.90|ip;"
     "{Exposure}{Sensitivity}|low|high_low;{Overlay}{ShowClock}|yes|yes_no;"
     "{Overlay}{Text}|Front entrance|string;{Exposure}{Empty}|<none>;{Exposure}{orphan}|<none>;"
     "{Overlay}{Brightness}|<none>",
     "{Image}{Brightness}|75|Brightness 50|Brightness 75;"
     "{Image}{Contrast}|60|Contrast    50\t|Contrast 60\t;{Image}{Mirror}|on|Mirror off|Mirror on;"
     "{Image}{Address}|10.0.0.1|\"192.168.0.90\"|\"10.0.0.1\";"
     "{Overlay}{Text}|Back \"door\"|\"Front entrance\"|\"Back \\\"door\\\"\";"
     "{Exposure}{Empty}|x|string Empty|string Empty x;{Image}{Missing}|1;{Exposure}{orphan}|1"},
    {"Network", nwparser_parse, kNetwork,
     "{HOSTNAME}|cam01|string;{NETMASK}|255.255.255.0|ip;{GATEWAY}|192.168.0.1;"
     "{BROADCAST}|192.168.0.255;{DHCPENABLE}|no|yes_no;{IP}|<none>",
     "{NETMASK}|255.0.0.0|= \"255.255.255.0\"|= \"255.0.0.0\";"
     "{BROADCAST}|10.0.0.255|BROADCAST \"192.168.0.255\"|BROADCAST \"10.0.0.255\";"
     "{HOSTNAME}|cam 02|=cam01|=\"cam 02\""},
    {"Resolv", resolvparser_parse, kResolv,
     "{Search}|example.com|string;{Nameserver0}|192.168.0.1|ipaddr;{Nameserver1}|192.168.0.2;"
     "{Nameserver2}|10.0.0.3;{Nameserver3}|<none>;{options}|<none>",
     "{Search}|corp.example local|domain example.com|domain corp.example local;"
     "{Nameserver1}|10.1.1.1|nameserver\t192.168.0.2|nameserver 10.1.1.1;"
     "{Nameserver2}|10.2.2.2|nameserver 10.0.0.3|nameserver 10.2.2.2"},
};

class FormatTest : public Formats, public ::testing::WithParamInterface<Format> {};

TEST_P(FormatTest, ReadsEveryValueOfTheSample) {
  const Format& f = GetParam();
  std::vector<Param*> params = bind_rows(rows(f.reads), false, f.name);
  ASSERT_EQ(run(f.parse, f.sample), 0);
  expect_values(params, rows(f.reads));
}

TEST_P(FormatTest, OnlyTheChangedValueChangesAndReadsBack) {
  const Format& f = GetParam();
  for (const auto& edit : rows(f.edits)) {
    SCOPED_TRACE(edit[0] + "=" + edit[1]);
    group_ = new_group();
    Param* p = bind_rows({edit}, true, f.name)[0];
    bool changes = edit.size() == 4;
    std::string expected = f.sample, written;
    if (changes) expected.replace(expected.find(edit[2]), edit[2].size(), edit[3]);
    ASSERT_EQ(run(f.parse, f.sample, &written), 0);
    EXPECT_EQ(written, expected);
    EXPECT_EQ(p->status, changes ? PARAMSTATUS_STORED : PARAMSTATUS_UPDATED);
    if (changes) {
      EXPECT_EQ(read_back(f.parse, written, (f.name + edit[0]).c_str()), edit[1]);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(All, FormatTest, ::testing::ValuesIn(kFormats), kByName);

// A text of one format and a run over it: with `written` null, a read run in which each mount of
// `values` reads its value; otherwise a write run after a client set each value, which writes
// `written`. The run fails when it logs `logged`.
struct OddCase {
  const char* name;
  ParseFunction parse;
  std::string text;
  const char* values;  // mount|value rows
  const char* written = nullptr;
  const char* logged = nullptr;
};

class OddCaseTest : public Formats, public ::testing::WithParamInterface<OddCase> {};

TEST_P(OddCaseTest, RunGivesTheValuesAndText) {
  const OddCase& c = GetParam();
  std::vector<Param*> params = bind_rows(rows(c.values), c.written != nullptr);
  std::string written;
  EXPECT_EQ(run(c.parse, c.text, c.written != nullptr ? &written : nullptr), c.logged != nullptr);
  if (c.written != nullptr) {
    EXPECT_EQ(written, c.written);
  } else {
    expect_values(params, rows(c.values));
  }
  if (c.logged != nullptr) {
    EXPECT_EQ(count_logged(c.logged), 1) << c.logged;
  }
}

const OddCase kOddCases[] = {
    // A double-quoted shell value keeps its backslashes and is written between single quotes; a
    // bare one gains quotes.
    {"ShellCanonical", shellparser_parse, "A=\"x \\\"y\\\"\"\nB=plain\nC='c'\nls -l\n",
     "Shell{C}|d", "A='x \\\"y\\\"'\nB='plain'\nC='d'\nls -l\n"},
    // An unreadable value fails the run and leaves its parameter and the later ones without one.
    {"ShellUnclosed", shellparser_parse, "A='a'\n# note\nB='open\nC='c'\n",
     "Shell{A}|a;Shell{B}|<none>;Shell{C}|<none>", nullptr, "Unreadable value of 'B' on line 3."},
    {"StandardSecondSection", standardparser_parse, "x 0\n[a]\nx 1\n[b]\nx 2\n",
     "Standard{b}{x}|22", "x 0\n[a]\nx 1\n[b]\nx 22\n"},
    // A "#" after a value is a key; a line that cannot be read is copied as it is.
    {"StandardCanonical", standardparser_parse,
     "ip 1.2.3.4\nmode manual # note\n\x01 \"open\nk v\n", "Standard{Root}{k}|w",
     "ip \"1.2.3.4\"\nmode manual \"#\" note\n\x01 \"open\nk w\n"},
    {"Standard2Canonical", standard2parser_parse, "version = 4.12.1\nname = plain\nx = 1\n",
     "Standard2{Root}{x}|2", "version = \"4.12.1\"\nname = plain\nx = 2\n"},
    {"Standard2Unreadable", standard2parser_parse, "a = 1\n[s]\nb = \"open\nc = 3\n",
     "Standard2{Root}{a}|1", nullptr, "Unreadable value of 'b' on line 3."},
    {"CamsettingsFourthWord", camsettingsparser_parse, "[S]\nint A 1\nint B 2 extra\n", "", nullptr,
     "Camsettings file: more than a value after 'B' on line 3."},
    {"CamsettingsNoHeader", camsettingsparser_parse, "int A 1\n[S]\n", "", nullptr,
     "Camsettings file: expected a section header at '' on line 1."},
    {"CamsettingsUnknownType", camsettingsparser_parse, "[S]\nfloat B 1.5\n", "", nullptr,
     "Camsettings file: unknown type of 'B' on line 2."},
    {"CamsettingsLongKey", camsettingsparser_parse,
     "[S]\nint K23456789012345678901234567890123 1\n", "", nullptr,
     "Camsettings file: key longer than 32 characters 'K23456789012345678901234567890123' on "
     "line 2."},
    {"ResolvDefaults", resolvparser_parse, "options rotate\n",
     "Resolv{Search}|;Resolv{Nameserver1}|0.0.0.0"},
    // 0.0.0.0 and an empty search list stand for no line.
    {"ResolvRemovedLines", resolvparser_parse, "domain a\nnameserver 1.2.3.4\noptions x\n",
     "Resolv{Nameserver0}|0.0.0.0;Resolv{Search}|", "\n\noptions x\n"},
    {"ResolvEmptyFileGetsAllThree", resolvparser_parse, "",
     "Resolv{Nameserver1}|10.0.0.2;Resolv{Search}|a;Resolv{Nameserver0}|1.1.1.1",
     "search a\nnameserver 1.1.1.1\nnameserver 10.0.0.2\n"},
    // The top is after the comment lines that open the file.
    {"ResolvFirstOnTopSecondAtTheEnd", resolvparser_parse, "# kept\noptions rotate\n",
     "Resolv{Nameserver0}|10.0.0.1;Resolv{Nameserver1}|10.0.0.2",
     "# kept\nnameserver 10.0.0.1\noptions rotate\nnameserver 10.0.0.2\n"},
    {"ResolvSearchOnTop", resolvparser_parse, "nameserver 10.0.0.1\n", "Resolv{Search}|a",
     "search a\nnameserver 10.0.0.1\n"},
    {"ResolvSecondAfterTheFirst", resolvparser_parse, "nameserver 10.0.0.1",
     "Resolv{Nameserver1}|10.0.0.2", "nameserver 10.0.0.1\nnameserver 10.0.0.2\n"},
    {"ResolvNoAddressNoLine", resolvparser_parse, "", "Resolv{Nameserver0}|0.0.0.0", ""},
    // Search lines after the first that maps the value are dropped.
    {"ResolvLaterSearchLinesDropped", resolvparser_parse, "search a\ndomain b\n",
     "Resolv{Search}|c", "search c\n\n"},
    {"ResolvNameserverValueOnNextLine", resolvparser_parse, "search a\nnameserver\n10.0.0.1\n", "",
     nullptr, "Resolver file: no value after 'nameserver' on line 2."},
    {"ResolvSearchValueOnNextLine", resolvparser_parse, "search\na\n", "", nullptr,
     "Resolver file: no value after 'search' on line 1."},
};

INSTANTIATE_TEST_SUITE_P(All, OddCaseTest, ::testing::ValuesIn(kOddCases), kByName);

// The last line that is not a comment holds the value, taken as it stands; only it is replaced.
struct SingleValueCase {
  const char* name;
  const char* text;
  const char* value;
  const char* written;  // after the value was changed to "cam-02"
};

class SingleValueTest : public Formats, public ::testing::WithParamInterface<SingleValueCase> {};

TEST_P(SingleValueTest, ReadsTheLastValueLineAndReplacesOnlyIt) {
  const SingleValueCase& c = GetParam();
  Param* p = bound("Singlevalue{}");
  ASSERT_EQ(run(singlevalueparser_parse, c.text), 0);
  EXPECT_EQ(value_text(p), c.value);
  client_sets(p, "cam-02");
  std::string written;
  ASSERT_EQ(run(singlevalueparser_parse, c.text, &written), 0);
  EXPECT_EQ(written, c.written);
}

INSTANTIATE_TEST_SUITE_P(
    All, SingleValueTest,
    ::testing::Values(
        SingleValueCase{"CommentsAndBlanksAround", "# Host\n\n  \t\ncam-1\n\n# kept\n", "cam-1",
                        "# Host\n\n  \t\ncam-02\n\n# kept\n"},
        SingleValueCase{"LastOfSeveralLines", "old\n# between\nthe value  \n", "the value  ",
                        "old\n# between\ncam-02\n"},
        SingleValueCase{"NoLineEnd", "value", "value", "cam-02"},
        SingleValueCase{"CarriageReturn", "value\r\n", "value", "cam-02\r\n"},
        SingleValueCase{"LeadingBlanks", "  spaced value\n", "  spaced value", "cam-02\n"},
        SingleValueCase{"CommentLinesOnly", "# only\n# comments\n", "# only",
                        "cam-02\n# comments\n"},
        SingleValueCase{"IndentedHash", "v\n  # not a comment\n", "# not a comment",
                        "v\n  cam-02\n"},
        SingleValueCase{"EmptyFile", "", "", "cam-02"},
        SingleValueCase{"BlankLinesOnly", "\n\n", "", "cam-02\n\n"}),
    kByName);

// A parameter holding the whole file writes the "using" line and replaces the blocks after it;
// each block is written in the writing order, which puts SELECTED and USERNAMEB earlier than a
// reader expects them.
TEST_F(Formats, IspListWrittenInTheWritingOrder) {
  auto hash = [](std::vector<std::pair<const char*, Data*>> entries) {
    Data* data = legacy_drep_createData();
    legacy_drep_initializeHash(data);
    for (auto [key, value] : entries) legacy_drep_setHashValue(data, value, key);
    return data;
  };
  Param* whole = bound("ISP");
  Data* block = hash({{"LOGIN", string_data("l")},
                      {"USERNAMEB", string_data("ub")},
                      {"SELECTED", string_data("yes")},
                      {"UPLOADPATH", string_data("/up")}});
  client_sets(whole, nullptr,
              hash({{"using", string_data("new")}, {"isps", hash({{"new", block}})}}));
  std::string written;
  ASSERT_EQ(run(ispparser_parse, kIsp, &written), 0);
  EXPECT_EQ(written,
            "# Dial-up providers\nusing = new\n"
            "[new]\nSELECTED = yes\nLOGIN = l\nUSERNAME = \nUSERNAMEB = ub\nPASSWD = \n"
            "PASSWORD = \nPROMPT = \nPHONE1 = \nPHONE2 = \nCONNECTIONTYPE = \nCLOSEAFTER = \n"
            "NORETRIES = \nWAITBEFORERETRY = \nUPLOADPATH = /up\n\n");
  EXPECT_EQ(whole->status, PARAMSTATUS_STORED);
}

// The real shell as the oracle: whatever value the parser writes, in every assignment form,
// sourcing the file gives exactly that value. setenv is given the meaning it has in csh.
TEST_F(Formats, ShellSourcingTheFileGivesTheWrittenValue) {
  const std::string before = "# head\nFIRST='1'\n", after = "\n# tail\nOTHER='2'\n";
  const std::string source =
      "sh -c 'setenv() { eval \"$1=\\$2\"; }; . \"$1\"; printf %s \"$NAME\"' sh '" + file("ifcfg") +
      "'";
  for (const char* line : {"NAME='old'", "NAME=", "NAME=   ", "NAME=\"old\"", "export NAME='old'",
                           "setenv NAME 'old'", "NAME=bare"}) {
    for (const char* value : {"two words", "it's", "say \"hi\"", "back\\slash", "$HOME ${X} $(id)",
                              "", "`id`", "tab\there", "multi\nline", "''\\''", "\\'"}) {
      SCOPED_TRACE(std::string(line) + " := " + value);
      group_ = new_group();
      Param* p = bound("Shell{NAME}");
      client_sets(p, value);
      std::string written;
      ASSERT_EQ(run(shellparser_parse, before + line + after, &written), 0);
      ASSERT_TRUE(written.starts_with(before) && written.ends_with(after)) << written;
      write_file(file("ifcfg"), written);
      std::string out;
      EXPECT_EQ(tessard::test::run_command(source, &out), 0);
      EXPECT_EQ(out, value) << written;
      EXPECT_EQ(read_back(shellparser_parse, written, "Shell{NAME}"), value);
    }
  }
}

// `text` with one to four characters of `alphabet` (those a grammar cares about) inserted,
// deleted or put in place of others.
std::string edited(std::string text, std::string_view alphabet, std::minstd_rand& random) {
  for (unsigned edits = 1 + random() % 4; edits > 0; --edits) {
    size_t at = random() % (text.size() + 1);
    char letter = alphabet[random() % alphabet.size()];
    unsigned how = random() % 3;
    if (how == 0) {
      text.insert(at, 1, letter);
    } else if (at < text.size()) {
      how == 1 ? void(text.erase(at, 1)) : void(text[at] = letter);
    }
  }
  return text;
}

// Rounds of random edits of `base` run in read mode and in write mode with the parameter bound at
// `mount` set to `value`. Both modes agree. Where `others` (mount rows) are given, unless the text
// is malformed (and so not rewritten), each of them reads from the written text what it read
// before, and a stored value reads back. A successful write writes itself unchanged once no value
// is changed, unless the text holds one of the `unstable` characters. At least a third of the
// rounds parse.
constexpr int kRoundCount = 500;
struct RoundsCase {
  const char* name;
  ParseFunction parse;
  std::string_view alphabet;
  const char* mount;
  const char* value;
  std::string base;
  const char* unstable;
  const char* others = "";
};

class RoundsTest : public Formats, public ::testing::WithParamInterface<RoundsCase> {};

TEST_P(RoundsTest, NeverCrashAndRewriteStably) {
  const RoundsCase& c = GetParam();
  Param* changed = bound(c.mount);
  std::vector<Param*> others = bind_rows(rows(c.others), false);
  auto read = [&](const std::string& text, int* result) {
    for (Param* p : others) legacy_drep_resetData(&p->value), p->status = PARAMSTATUS_DEFINED;
    legacy_drep_resetData(&changed->value);
    changed->status = PARAMSTATUS_DEFINED;
    *result = run(c.parse, text);
    std::vector<std::string> values;
    for (Param* p : others) values.push_back(value_text(p));
    return values;
  };
  std::minstd_rand random(4711);
  int succeeded = 0;
  for (int round = 0; round < kRoundCount && !HasFailure(); ++round) {
    std::string text = edited(c.base, c.alphabet, random), once, twice;
    SCOPED_TRACE(::testing::PrintToString(text));
    int result = 0, again = 0;
    std::vector<std::string> before = read(text, &result);
    client_sets(changed, c.value);
    EXPECT_EQ(run(c.parse, text, &once), result);
    bool kept = result != 0 || parser_lastInputMalformed();
    bool stored = changed->status == PARAMSTATUS_STORED;
    succeeded += result == 0;
    if (!kept && !others.empty()) {
      EXPECT_EQ(read(once, &again), before) << ::testing::PrintToString(once);
      EXPECT_EQ(stored ? value_text(changed) : c.value, c.value) << ::testing::PrintToString(once);
    }
    if (result != 0 || text.find_first_of(c.unstable) != std::string::npos) continue;
    client_sets(changed, c.value);
    changed->status = PARAMSTATUS_LOADED;
    EXPECT_EQ(run(c.parse, once, &twice), 0);
    EXPECT_EQ(twice, once);
  }
  EXPECT_GE(succeeded, kRoundCount / 3);
}

// A double-quoted shell value ends at its closing quote and what follows it on the line is
// copied; written back in single quotes, that rest joins the value on the next reading. In the
// Standard formats a quote that the canonical form adds to a later token could close one left
// open. The malformed rounds edit texts of repeated keys with unclosed quotes and NUL bytes.
const RoundsCase kRounds[] = {
    {"Shell", shellparser_parse, "aI= \t\n'\"\\$#\x01", "Shell{IPADDR}", "it's \"x\"", kShell,
     "\""},
    {"ShellMalformed", shellparser_parse, std::string_view("ABC= \n'\"\\#\0", 12), "Shell{B}",
     "new value", "A='1'\nB='two'\nexport C='3'\nA=4\n", "\"", "Shell{A};Shell{C}"},
    {"Standard", standardparser_parse, "ab1 \t\n\r\"\\[]#=_\x01\x7f\xa0\xe9", "Standard{Root}{zz}",
     "v", kStandard, "\""},
    {"StandardMalformed", standardparser_parse, std::string_view("abc \n\"\\[]#\0", 12),
     "Standard{Root}{b}", "new value", "a 1\nb \"two\"\n[s]\nc 3\na 4\n", "\"",
     "Standard{Root}{a};Standard{s}{c};Standard{s}{a}"},
    {"Standard2", standard2parser_parse, "ab1 \t\n\r=\"\\[]#_\xe9", "Standard2{http}{port}", "v w",
     kStandard2, ""},
    {"Standard2Malformed", standard2parser_parse, std::string_view("abc =\n\"\\[]#\0", 13),
     "Standard2{Root}{b}", "new value", "a = 1\nb = \"two\"\n[s]\nc = 3\na 4\n", "\"",
     "Standard2{Root}{a};Standard2{s}{c};Standard2{s}{a}"},
    {"Camsettings", camsettingsparser_parse, "ab1 \t\n\"[]#_\x01\xe9",
     "Camsettings{Image}{Contrast}", "v w", kCamsettings, ""},
    {"Resolv", resolvparser_parse, "ns1. \t\n#\x01\xe9", "Resolv{Search}", "v w", kResolv, ""},
    {"Singlevalue", singlevalueparser_parse, "ab #\n\r\t\x01\xe9", "Singlevalue{}", "cam 02",
     "# host\n\ncam-1\n# kept\n", ""},
};

INSTANTIATE_TEST_SUITE_P(All, RoundsTest, ::testing::ValuesIn(kRounds), kByName);

}  // namespace
