#include "parsers/token.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "parsers/parserframework.h"
#include "tests/support/logcapture.h"

namespace {

struct AcceptCase {
  const char* name;
  int type;
  const char* expected;  // expected text handed to the accept, or null
  std::string input;
  int ok;
  std::string text;    // token text when accepted
  int quote;           // token quote when accepted
  std::string output;  // the token written back, then the rest of the input copied through
};

void PrintTo(const AcceptCase& c, std::ostream* os) {
  *os << c.name;
}
const AcceptCase* current;
Token seen;
int accepted;

// Accepts one token at the start of the text and writes it back; copies the rest through.
int accept_once(Token* token, const char* /*group_path*/) {
  accepted = pif_acceptToken(current->type, current->expected);
  pif_getToken(&seen);
  pif_syncToken();
  for (pif_skipWhitespace(); token->type != TOKEN_EOF; pif_skipWhitespace()) {
    pif_acceptToken(TOKEN_WORD, nullptr);
    pif_syncToken();
  }
  return 0;
}

class AcceptTest : public ::testing::TestWithParam<AcceptCase> {
 protected:
  static void SetUpTestSuite() { token_init(); }
};

TEST_P(AcceptTest, ReadsAndWritesBack) {
  current = &GetParam();
  std::string output;
  ASSERT_EQ(parser_runOnText(accept_once, current->input, "t", "root", 0, &output), 0);
  ASSERT_EQ(accepted, current->ok);
  if (accepted) {
    EXPECT_EQ(seen.text, current->text);
    EXPECT_EQ(seen.quote, current->quote);
  }
  EXPECT_EQ(output, current->output);
}

const AcceptCase kCases[] = {
    {"StrongQuoted", TOKEN_VALUE, nullptr, "'it'\\''s'\n", 1, "it's", '\'', "'it'\\''s'\n"},
    {"StrongKeepsNewline", TOKEN_VALUE, nullptr, "'a\nb'", 1, "a\nb", '\'', "'a\nb'"},
    {"StrongContinuation", TOKEN_VALUE, nullptr, "'a'\\\nb c\nd", 1, "ab c", '\'', "'ab c'\nd"},
    {"StrongUnterminated", TOKEN_VALUE, nullptr, "'abc", 0, "", 0, "'abc"},
    {"ValueKeepsBackslash", TOKEN_VALUE, nullptr, "\"a\\\"b\" x", 1, "a\\\"b", '"', "'a\\\"b' x"},
    {"ValueUnterminated", TOKEN_VALUE, nullptr, "\"ab\\\"", 0, "", 0, "\"ab\\\""},
    {"ValueTextAfterQuote", TOKEN_VALUE, nullptr, "\"\"'", 0, "", 0, "\"\"'"},
    {"ValueRestOfLine", TOKEN_VALUE, nullptr, "a b\r\nc", 1, "a b\r", 0, "'a b\r'\nc"},
    {"StringUnescaped", TOKEN_STRING, nullptr, "\"a\\\"b\\\\\"", 1, "a\"b\\", '"',
     "\"a\\\"b\\\\\""},
    {"StringUnterminated", TOKEN_STRING, nullptr, "\"abc", 0, "", 0, "\"abc"},
    {"StringUnderscoreQuoted", TOKEN_STRING, nullptr, "a_b", 1, "a_b", 0, "\"a_b\""},
    {"StringEmpty", TOKEN_STRING, nullptr, "\"\"", 1, "", '"', "\"\""},
    {"StringNoControl", TOKEN_STRING, nullptr, "\x01z", 0, "", 0, "\x01z"},
    {"StringExpected", TOKEN_STRING, "abd", "abc", 0, "", 0, "abc"},
    {"WordEmpty", TOKEN_WORD, nullptr, " abc", 1, "", 0, " abc"},
    {"Section", TOKEN_SECTION, nullptr, "[n 1] x", 1, "n 1", 0, "[n 1] x"},
    {"SectionOpen", TOKEN_SECTION, nullptr, "[n", 0, "", 0, "[n"},
    {"LineAtEnd", TOKEN_LINE, nullptr, "", 0, "", 0, ""},
    {"LiteralPrefix", TOKEN_LITERAL, "Network", "Networks", 1, "Network", 0, "Networks"},
    {"LiteralShort", TOKEN_LITERAL, "Network", "Net", 0, "", 0, "Net"},
};

INSTANTIATE_TEST_SUITE_P(Token, AcceptTest, ::testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(AcceptTest, StrongQuotedStopsAt1024Characters) {
  tessard::test::clear_captured_log();
  for (int length : {1023, 1024}) {
    AcceptCase c{"", TOKEN_VALUE, nullptr, "'" + std::string(length, 'a') + "'", 0, "", 0, ""};
    current = &c;
    ASSERT_EQ(parser_runOnText(accept_once, c.input, "t", "root", 1, nullptr), 0);
    EXPECT_EQ(accepted, length == 1023 ? 1 : 0);
  }
  EXPECT_EQ(tessard::test::count_logged("Too long strong quoted string."), 1);
}

// The block-wise run check against a walk character by character over the class predicates.
TEST(TokenClassSpan, AgreesWithACharacterWalk) {
  struct Class {
    TokenCharClass keep;
    bool (*in)(int);
  };
  const Class classes[] = {
      {TOKEN_CLASS_GRAPH, token_isgraph},
      {TOKEN_CLASS_ALNUM, token_isalnum},
      {TOKEN_CLASS_SPACE, token_isspace},
      {TOKEN_CLASS_WORD, [](int c) { return c != 0 && !token_isspace(c); }},
      {TOKEN_CLASS_KEY, [](int c) { return c != 0 && c != '=' && !token_isspace(c); }},
      {TOKEN_CLASS_DIGIT, [](int c) { return c >= '0' && c <= '9'; }},
  };
  const unsigned char alphabet[] = {0,   '\t', '\r', '\v', ' ', '!', '0', '9',
                                    '=', 'a',  'Z',  '~',  127, 160, 161, 255};
  std::mt19937 random(7);
  for (int round = 0; round < 500; ++round) {
    std::string text(random() % 70, 'a');
    // Mostly one character repeated, so that runs cross whole blocks.
    unsigned char fill = alphabet[random() % sizeof alphabet];
    for (char& c : text) {
      c = static_cast<char>(random() % 8 == 0 ? alphabet[random() % sizeof alphabet] : fill);
    }
    size_t from = text.empty() ? 0 : random() % text.size();
    for (const Class& c : classes) {
      size_t walk = 0;
      while (from + walk < text.size() && c.in(static_cast<unsigned char>(text[from + walk]))) {
        ++walk;
      }
      ASSERT_EQ(token_classSpan(text, from, c.keep), walk) << int(c.keep) << " in " << text;
    }
  }
}

}  // namespace
