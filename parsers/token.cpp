#include "parsers/token.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "base/log.h"

namespace {

constexpr const char* kSource = "token";
// Longest strong-quoted value, terminating NUL included.
constexpr int kStrongQuotedMax = kTokenValueMax + 1;
constexpr int kScratchSize = 100;

bool is_digit(int ch) {
  return ch >= '0' && ch <= '9';
}

// Character classes as a table: a call into the C library per character was a large part of
// reading and rewriting a file.
constexpr uint8_t class_of(int ch) {
  uint8_t c = 0;
  if ((ch > ' ' && ch < 127) || ch >= 161) c |= TOKEN_CLASS_GRAPH;
  if ((ch >= '0' && ch <= '9') || (ch >= 'A' && ch <= 'Z') || (ch >= 'a' && ch <= 'z') ||
      ch >= 161) {
    c |= TOKEN_CLASS_ALNUM;
  }
  bool space = ch == ' ' || (ch >= '\t' && ch <= '\r');
  if (space) c |= TOKEN_CLASS_SPACE;
  if (!space && ch != 0) c |= TOKEN_CLASS_WORD;
  if (!space && ch != 0 && ch != '=') c |= TOKEN_CLASS_KEY;
  if (ch >= '0' && ch <= '9') c |= TOKEN_CLASS_DIGIT;
  return c;
}

struct ClassTable {
  uint8_t classes[256];
  constexpr ClassTable() : classes() {
    for (int ch = 0; ch < 256; ++ch) classes[ch] = class_of(ch);
  }
};

constexpr ClassTable kClasses;

bool in_class(int ch, uint8_t mask) {
  return ch >= 0 && ch <= 255 && (kClasses.classes[ch] & mask) != 0;
}

// Long runs (values of many kilobytes) are checked sixteen bytes at a time; `in` gives each lane
// of a block all ones when its byte is in the class. Returns how many leading bytes of the whole
// blocks are in the class, a multiple of sixteen; the table finishes the run.
using Block = unsigned char __attribute__((vector_size(16)));

template <typename InClass>
size_t span_blocks(const char* p, size_t n, InClass in) {
  size_t i = 0;
  for (; i + sizeof(Block) <= n; i += sizeof(Block)) {
    Block b;
    memcpy(&b, p + i, sizeof b);
    auto lanes = in(b);
    uint64_t halves[2];
    memcpy(halves, &lanes, sizeof halves);
    if ((halves[0] & halves[1]) != ~uint64_t{0}) {
      break;
    }
  }
  return i;
}

size_t span_whole_blocks(const char* p, size_t n, TokenCharClass keep) {
  switch (keep) {
    case TOKEN_CLASS_GRAPH:
      return span_blocks(p, n, [](Block b) { return ((b > ' ') & (b < 127)) | (b >= 161); });
    case TOKEN_CLASS_ALNUM:
      return span_blocks(p, n, [](Block b) {
        Block lower = b | 0x20;  // a letter of either case as a lower-case one
        return ((b >= '0') & (b <= '9')) | ((lower >= 'a') & (lower <= 'z')) | (b >= 161);
      });
    case TOKEN_CLASS_WORD:
      return span_blocks(p, n,
                         [](Block b) { return (b != 0) & (b != ' ') & ((b < '\t') | (b > '\r')); });
    case TOKEN_CLASS_KEY:
      return span_blocks(p, n, [](Block b) {
        return (b != 0) & (b != ' ') & (b != '=') & ((b < '\t') | (b > '\r'));
      });
    default:
      return 0;
  }
}

bool is_line_break(int ch) {
  return ch == '\n' || ch == '\r';
}

std::string_view consumed(const char* const* buffer, const int* count) {
  return {*buffer, static_cast<size_t>(*count)};
}

// Stores the recognised text, unless an expected text is given and differs from it.
int finish(Token* token, std::string_view text, const char* expected) {
  if (expected != nullptr && text != std::string_view(expected)) {
    return -1;
  }
  return token_set_str(token, text.data(), static_cast<int>(text.size())) ? 0 : -1;
}

// Stores the text and the quote it was read with, unless an expected text is given and differs.
int finish_quoted(Token* token, std::string_view text, const char* expected, int quote) {
  if (finish(token, text, expected) != 0) {
    return -1;
  }
  token->quote = quote;
  return 0;
}

// Consumes a double-quoted string, its opening quote being current, and gives the text between
// the quotes; a backslash makes the character after it part of the text. False when NUL comes
// before the closing quote.
bool read_double_quoted(const int* ch, const char* const* buffer, const int* count,
                        std::string_view* raw) {
  ctok_newChar();
  while (*ch != '"') {
    if (*ch == 0) {
      return false;
    }
    if (*ch == '\\') {
      ctok_newChar();
    }
    ctok_newChar();
  }
  ctok_newChar();
  std::string_view all = consumed(buffer, count);
  *raw = all.substr(1, all.size() - 2);
  return true;
}

// Drops each backslash and takes the character after it as it is.
int set_unescaped(Token* token, std::string_view raw, const char* expected) {
  char scratch[kScratchSize];
  char* out = scratch;
  if (raw.size() + 1 > sizeof scratch) {
    out = static_cast<char*>(malloc(raw.size() + 1));
    if (out == nullptr) {
      log_fatal(kSource, "Out of memory in acceptStringToken!");
    }
  }
  size_t n = 0;
  for (size_t i = 0; i < raw.size(); ++i) {
    if (raw[i] == '\\' && i + 1 < raw.size()) {
      ++i;
    }
    out[n++] = raw[i];
  }
  int rc = finish_quoted(token, {out, n}, expected, '"');
  if (out != scratch) {
    free(out);
  }
  return rc;
}

int acceptStringToken(Token* token, const int* ch, const char* const* buffer, const int* count,
                      const char* expected) {
  std::string_view raw;
  if (*ch == '"') {
    return read_double_quoted(ch, buffer, count, &raw) ? set_unescaped(token, raw, expected) : -1;
  }
  if (!token_isgraph(*ch)) {
    return -1;
  }
  ctok_newCharsWhile(TOKEN_CLASS_GRAPH);
  return finish_quoted(token, consumed(buffer, count), expected, 0);
}

int acceptWordToken(Token* token, const int* /*ch*/, const char* const* buffer, const int* count,
                    const char* expected) {
  ctok_newCharsWhile(TOKEN_CLASS_WORD);
  return finish(token, consumed(buffer, count), expected);
}

int acceptKeyToken(Token* token, const int* /*ch*/, const char* const* buffer, const int* count,
                   const char* expected) {
  ctok_newCharsWhile(TOKEN_CLASS_KEY);
  return finish(token, consumed(buffer, count), expected);
}

// Shell quoting: '...' sections taken literally, backslash escapes and line continuations
// outside them; an unquoted line break ends the value. The opening quote is current on entry.
int acceptStrongQuoted(Token* token, const int* ch, const char* expected) {
  char text[kStrongQuotedMax];
  int n = 0;
  bool quoted = false;
  for (;;) {
    int c = *ch;
    if (quoted) {
      if (c == 0) {
        return -1;
      }
      ctok_newChar();
      if (c == '\'') {
        quoted = false;
        continue;
      }
    } else {
      if (c == 0 || is_line_break(c)) {
        break;
      }
      ctok_newChar();
      if (c == '\'') {
        quoted = true;
        continue;
      }
      if (c == '\\') {
        if (is_line_break(*ch)) {
          ctok_newChar();
        }
        if (*ch == 0) {
          break;
        }
        c = *ch;
        ctok_newChar();
      }
    }
    text[n++] = static_cast<char>(c);
    if (n >= kStrongQuotedMax) {
      log_error(kSource, "Too long strong quoted string.");
      return -1;
    }
  }
  return finish_quoted(token, {text, static_cast<size_t>(n)}, expected, '\'');
}

int acceptValueToken(Token* token, const int* ch, const char* const* buffer, const int* count,
                     const char* expected) {
  std::string_view raw;
  if (*ch == '\'') {
    return acceptStrongQuoted(token, ch, expected);
  }
  if (*ch == '"') {
    // Text right after the closing quote (a quote opened there, a word joined on) is not read.
    bool closed = read_double_quoted(ch, buffer, count, &raw) &&
                  (*ch == 0 || *ch == ' ' || *ch == '\t' || is_line_break(*ch));
    return closed ? finish_quoted(token, raw, expected, '"') : -1;
  }
  while (*ch != 0 && *ch != '\n') {
    ctok_newChar();
  }
  return finish_quoted(token, consumed(buffer, count), expected, 0);
}

int acceptSectionToken(Token* token, const int* ch, const char* const* buffer, const int* count,
                       const char* expected) {
  if (*ch != '[') {
    return -1;
  }
  do {
    ctok_newChar();
    if (*ch == 0) {
      return -1;
    }
  } while (*ch != ']');
  ctok_newChar();
  std::string_view all = consumed(buffer, count);
  return finish(token, all.substr(1, all.size() - 2), expected);
}

int acceptIntegerToken(Token* token, const int* ch, const char* const* buffer, const int* count,
                       const char* expected) {
  if (!is_digit(*ch)) {
    return -1;
  }
  ctok_newCharsWhile(TOKEN_CLASS_DIGIT);
  std::string digits(consumed(buffer, count));
  if (finish(token, digits, expected) != 0) {
    return -1;
  }
  token->value = static_cast<int32_t>(strtol(digits.c_str(), nullptr, 10));
  return 0;
}

// Reads a decimal number of at most 255 at text[*pos]; at least one digit is required.
bool parse_octet(std::string_view text, size_t* pos, uint8_t* octet) {
  unsigned value = 0;
  size_t start = *pos;
  while (*pos < text.size() && is_digit(static_cast<unsigned char>(text[*pos]))) {
    value = value * 10 + static_cast<unsigned>(text[*pos] - '0');
    if (value > 255) {
      return false;
    }
    ++*pos;
  }
  *octet = static_cast<uint8_t>(value);
  return *pos > start;
}

int acceptIpaddrToken(Token* token, const int* /*ch*/, const char* const* buffer, const int* count,
                      const char* expected) {
  ctok_newCharsWhile(TOKEN_CLASS_WORD);
  std::string_view text = consumed(buffer, count);
  uint8_t octets[4];
  size_t pos = 0;
  for (int i = 0; i < 4; ++i) {
    if (!parse_octet(text, &pos, &octets[i])) {
      return -1;
    }
    if (i < 3 && (pos >= text.size() || text[pos++] != '.')) {
      return -1;
    }
  }
  char canonical[16];
  snprintf(canonical, sizeof canonical, "%d.%d.%d.%d", octets[0], octets[1], octets[2], octets[3]);
  if (finish(token, canonical, expected) != 0) {
    return -1;
  }
  memcpy(token->address, octets, sizeof octets);
  return 0;
}

int acceptLiteralToken(Token* token, const int* ch, const char* const* /*buffer*/,
                       const int* /*count*/, const char* expected) {
  if (expected == nullptr || expected[0] == 0) {
    return -1;
  }
  size_t matched = 0;
  while (expected[matched] != 0 && *ch == static_cast<unsigned char>(expected[matched])) {
    ctok_newChar();
    ++matched;
  }
  if (expected[matched] != 0) {
    return -1;
  }
  return finish(token, expected, nullptr);
}

int acceptLineToken(Token* token, const int* ch, const char* const* buffer, const int* count,
                    const char* expected) {
  if (*ch == 0) {
    return -1;
  }
  while (*ch != 0 && !is_line_break(*ch)) {
    ctok_newChar();
  }
  return finish(token, consumed(buffer, count), expected);
}

const char* text_of(const Token* token) {
  return token->text != nullptr ? token->text : "";
}

void putPlainToken(Token* token) {
  ctok_putString(text_of(token));
}

void putSectionToken(Token* token) {
  ctok_putChar('[');
  ctok_putString(text_of(token));
  ctok_putChar(']');
}

void putValueToken(Token* token) {
  token->quote = '\'';
  std::string out = "'";
  for (const char* p = text_of(token); *p != 0; ++p) {
    if (*p == '\'') {
      out += "'\\''";
    } else {
      out += *p;
    }
  }
  out += '\'';
  ctok_putString(out.c_str());
}

bool is_bare_word(std::string_view text) {
  return !text.empty() && token_classSpan(text, 0, TOKEN_CLASS_ALNUM) == text.size();
}

void putStringToken(Token* token) {
  std::string_view text = text_of(token);
  if (token->quote == 0 && is_bare_word(text)) {
    ctok_putText(text);
    return;
  }
  if (token->quote == 0) {
    token->quote = '"';
  }
  // Written in pieces between the characters that need a backslash; a quote character of 0
  // cannot occur here.
  ctok_putChar(token->quote);
  for (size_t next; (next = text.find_first_of("\"\\")) != std::string_view::npos;) {
    ctok_putText(text.substr(0, next));
    ctok_putChar('\\');
    ctok_putChar(text[next]);
    text.remove_prefix(next + 1);
  }
  ctok_putText(text);
  ctok_putChar(token->quote);
}

// Gives up an owned buffer after a failed allocation.
int out_of_memory(Token* token, const char* message) {
  if (token->capacity != 0) {
    free(token->text);
  }
  token->text = nullptr;
  token->capacity = 0;
  log_error(kSource, "%s", message);
  return 0;
}

}  // namespace

bool token_isgraph(int ch) {
  return in_class(ch, TOKEN_CLASS_GRAPH);
}
bool token_isalnum(int ch) {
  return in_class(ch, TOKEN_CLASS_ALNUM);
}
bool token_isspace(int ch) {
  return in_class(ch, TOKEN_CLASS_SPACE);
}

size_t token_classSpan(std::string_view text, size_t from, TokenCharClass keep) {
  const char* p = text.data() + from;
  const size_t n = text.size() - from;
  size_t i = span_whole_blocks(p, n, keep);
  while (i < n && (kClasses.classes[static_cast<unsigned char>(p[i])] & keep) != 0) {
    ++i;
  }
  return i;
}

int token_set_str(Token* token, const char* bytes, int length) {
  if (token->capacity <= length) {
    // A text that is not owned yet (capacity 0) is left to its owner.
    char* old = token->capacity != 0 ? token->text : nullptr;
    char* grown = static_cast<char*>(realloc(old, static_cast<size_t>(length) + 1));
    if (grown == nullptr) {
      return out_of_memory(token, "Out of mem in token_set_str!");
    }
    token->text = grown;
    token->capacity = length + 1;
  }
  memmove(token->text, bytes, static_cast<size_t>(length));
  token->text[length] = 0;
  return 1;
}

int token_strcat(Token* token, const char* s) {
  size_t add = strlen(s);
  if (token->text == nullptr && add <= static_cast<size_t>(token->capacity)) {
    return out_of_memory(token, "Out of mem in token_strcat!");
  }
  size_t have = token->text != nullptr ? strlen(token->text) : 0;
  size_t joined = have + add;
  if (token->text != nullptr && token->capacity != 0 &&
      joined + 1 <= static_cast<size_t>(token->capacity)) {
    memcpy(token->text + have, s, add + 1);
    token->capacity = static_cast<int32_t>(joined + 1);
    return 1;
  }
  char* grown = static_cast<char*>(malloc(joined + 1));
  if (grown == nullptr) {
    return out_of_memory(token, "Out of mem in token_strcat!");
  }
  if (have != 0) {
    memcpy(grown, token->text, have);
  }
  memcpy(grown + have, s, add + 1);
  if (token->capacity != 0) {
    free(token->text);
  }
  token->text = grown;
  token->capacity = static_cast<int32_t>(joined + 1);
  return 1;
}

int token_set_strlen(Token* token, int n) {
  if (token->capacity > n) {
    return 1;
  }
  if (token->capacity != 0) {
    char* grown = static_cast<char*>(realloc(token->text, static_cast<size_t>(n) + 1));
    if (grown == nullptr) {
      return out_of_memory(token, "Out of mem in token_set_strlen!");
    }
    token->text = grown;
    return 1;
  }
  // A buffer not owned so far: the new one is owned from now on, so its size is recorded.
  char* fresh = static_cast<char*>(malloc(static_cast<size_t>(n) + 1));
  if (fresh == nullptr) {
    return out_of_memory(token, "Out of mem in token_set_strlen!");
  }
  size_t keep = token->text != nullptr ? strnlen(token->text, static_cast<size_t>(n)) : 0;
  if (keep != 0) {
    memcpy(fresh, token->text, keep);
  }
  fresh[keep] = 0;
  token->text = fresh;
  token->capacity = n + 1;
  return 1;
}

void token_clear(Token* token) {
  if (token->capacity != 0) {
    free(token->text);
  }
  *token = Token{};
  token->type = TOKEN_NONE;
}

void token_init() {
  ctok_registerTokenHandlers(TOKEN_STRING, acceptStringToken, putStringToken);
  ctok_registerTokenHandlers(TOKEN_WORD, acceptWordToken, putPlainToken);
  ctok_registerTokenHandlers(TOKEN_KEY, acceptKeyToken, putPlainToken);
  ctok_registerTokenHandlers(TOKEN_VALUE, acceptValueToken, putValueToken);
  ctok_registerTokenHandlers(TOKEN_INTEGER, acceptIntegerToken, putPlainToken);
  ctok_registerTokenHandlers(TOKEN_IPADDR, acceptIpaddrToken, putPlainToken);
  ctok_registerTokenHandlers(TOKEN_SECTION, acceptSectionToken, putSectionToken);
  ctok_registerTokenHandlers(TOKEN_LITERAL, acceptLiteralToken, putPlainToken);
  ctok_registerTokenHandlers(TOKEN_LINE, acceptLineToken, putPlainToken);
}
