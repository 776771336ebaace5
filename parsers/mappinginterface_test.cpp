#include "parsers/mappinginterface.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/parsertest_support.h"

namespace {

using tessard::test::client_sets;
using tessard::test::value_text;

class MappingTest : public tessard::test::ParserTest {
 protected:
  void set_scalar(const char* text, int quote = 0) {
    mif_enterScalar("string");
    EXPECT_EQ(dif_customScalarSetFromString(text, quote), 0);
    mif_leaveScalar();
  }
};

TEST_F(MappingTest, DefinedParamConsumedBelowItsGroupOnly) {
  Param* p = bound("T{a}{k}");
  Group* other = group_;
  group_ = new_group();  // a second group with the same mount, not searched
  Param* elsewhere = bound("T{a}{k}");
  mif_enterRootSection("T", other->path);
  mif_enterSection("a");
  mif_enterSection("k");
  set_scalar("hello", '"');
  mif_leaveSection();
  mif_leaveSection();
  mif_leaveRootSection();
  char quote = 0;
  EXPECT_EQ(value_text(p, &quote), "hello");
  EXPECT_EQ(quote, '"');
  EXPECT_EQ(p->synced, 1);
  EXPECT_EQ(value_text(elsewhere), "<none>");
}

// A mount spells at most 64 characters of a root section's name and 62 of any other section's.
TEST_F(MappingTest, LongSectionNamesCutAsMountsSpellThem) {
  Param* p = bound((std::string(64, 'R') + "{" + std::string(62, 'a') + "}").c_str());
  mif_enterRootSection(std::string(70, 'R').c_str(), group_->path);
  mif_enterSection(std::string(63, 'a').c_str());
  set_scalar("long");
  mif_leaveSection();
  mif_leaveRootSection();
  EXPECT_EQ(value_text(p), "long");
}

TEST_F(MappingTest, LoadedParamWalkedWithoutTouchingItsValue) {
  Param* loaded = bound("T{h}");
  Param* next = bound("T{k}");
  client_sets(loaded, "kept");
  loaded->status = PARAMSTATUS_LOADED;
  mif_enterRootSection("T", group_->path);
  mif_enterSection("h");
  mif_enterSection("x");  // a walk below a scalar: only counted
  mif_enterList();
  set_scalar("ignored");
  EXPECT_EQ(mif_endOfSections() + mif_endOfList(), 2);
  mif_leaveList();
  mif_leaveSection();
  mif_leaveSection();
  mif_enterSection("k");  // back at section level, the next mount consumes again
  set_scalar("read");
  mif_leaveSection();
  mif_leaveRootSection();
  EXPECT_EQ(value_text(loaded), "kept");
  EXPECT_EQ(value_text(next), "read");
}

void write_k(void* /*argument*/) {
  mif_enterSection("k");
  mif_enterScalar("string");
  char* text = dif_customScalarGetAsString(nullptr);
  pif_outputString(text);
  free(text);
  mif_leaveScalar();
  mif_notifyStored();
  mif_leaveSection();
}

// "k value": probes T{k} before the value, then reads the value into the parameter.
int key_value(Token* token, const char* group_path) {
  mif_enterRootSection("T", group_path);
  pif_acceptToken(TOKEN_STRING, nullptr);
  pif_syncToken();
  pif_skipWhitespace();
  mif_probeSection("k", write_k, nullptr);
  mif_enterSection("k");
  mif_enterScalar("string");
  pif_acceptToken(TOKEN_STRING, nullptr);
  dif_customScalarSetFromString(token->text, token->quote);
  pif_syncToken();
  mif_leaveScalar();
  mif_leaveSection();
  pif_skipWhitespace();
  mif_leaveRootSection();
  return 0;
}

struct ModeCase {
  const char* type;
  int status;
  const char* output;
  int status_after;
  const char* value_after;
};

void PrintTo(const ModeCase& c, std::ostream* os) {
  *os << c.type << "/" << c.status;
}

class ModeTest : public MappingTest, public ::testing::WithParamInterface<ModeCase> {};

TEST_P(ModeTest, StatusDecidesWhatHappensToTheValue) {
  const ModeCase& c = GetParam();
  Param* p = bound("T{k}");
  map_setParamOption("type", c.type, p);
  client_sets(p, "new");
  p->status = c.status;
  std::string output;
  ASSERT_EQ(parser_runOnText(key_value, "k old\n", "t", group_->path, 0, &output), 0);
  EXPECT_EQ(output, c.output);
  EXPECT_EQ(p->status, c.status_after);
  EXPECT_EQ(value_text(p), c.value_after);
  EXPECT_EQ(p->setterPending, c.status == PARAMSTATUS_UPDATED && c.status_after != c.status);
}

INSTANTIATE_TEST_SUITE_P(
    Mapping, ModeTest,
    ::testing::Values(
        ModeCase{"string", PARAMSTATUS_UPDATED, "k new\n", PARAMSTATUS_STORED, "new"},
        ModeCase{"nosync", PARAMSTATUS_UPDATED, "k old\n", PARAMSTATUS_LOADED, "new"},
        ModeCase{"string:nosync:x", PARAMSTATUS_UPDATED, "k old\n", PARAMSTATUS_LOADED, "new"},
        ModeCase{"string:nosyncing", PARAMSTATUS_UPDATED, "k new\n", PARAMSTATUS_STORED, "new"}));

// Misuse ends the process: with one leave too many below the parameter of T{a}, its own value is
// off the stack and the next section is looked up as a mount while the parameter is current.
void leave_once_too_often(const char* group_path) {
  mif_enterRootSection("T", group_path);
  mif_enterSection("a");
  mif_enterList();
  mif_leaveList();
  mif_leaveList();
  mif_enterSection("b");
}

TEST_F(MappingTest, NestedMappingIsFatal) {
  bound("T{a}");
  bound("T{a}{b}");
  EXPECT_EXIT(leave_once_too_often(group_->path), ::testing::ExitedWithCode(1),
              "No double mapping allowed!");
}

}  // namespace
