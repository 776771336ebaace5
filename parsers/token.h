// Tokens of backing files: the nine token types, their accept and output functions, and the text
// buffer of a token.
//
// Parsers never call the accept functions themselves: they ask the parser framework
// (parsers/parserframework.h) with pif_acceptToken(type, expected), and the framework dispatches
// to the handler registered here by token_init. Accept functions move through the input with
// ctok_newChar (or ctok_newCharsWhile for a run); output functions write with ctok_putString,
// ctok_putText and ctok_putChar. Those live in the parser framework beside them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

enum TokenType : int32_t {
  TOKEN_STRING = 0,   // double-quoted string (escapes removed) or a run of graphic characters
  TOKEN_WORD = 1,     // characters up to white space (may be empty)
  TOKEN_KEY = 2,      // characters up to "=" or white space (may be empty)
  TOKEN_VALUE = 3,    // shell value: rest of line, double-quoted or strong (single) quoted
  TOKEN_SECTION = 4,  // a name in square brackets
  TOKEN_INTEGER = 5,  // decimal digits
  TOKEN_IPADDR = 6,   // dotted IPv4 address, text made canonical
  TOKEN_LITERAL = 7,  // exactly the expected text
  TOKEN_LINE = 8,     // rest of the line up to CR or LF
  TOKEN_EOF = 9,      // end of file, set by the framework
  TOKEN_NONE = 10,    // no current token, set by the framework
};

// Longest shell value (TOKEN_VALUE) that reads back: a strong-quoted text holds fewer characters.
constexpr int kTokenValueMax = 1023;

// One token. The text is NUL-terminated; `capacity` is the allocated size of `text`, and 0 means
// the record does not own `text` (it points at someone else's buffer, or is null).
struct Token {
  int32_t type;
  int32_t quote;  // '"' or '\'' the token was read with, 0 when unquoted
  char* text;
  int32_t capacity;
  uint8_t address[4];  // octets of a TOKEN_IPADDR token
  int32_t value;       // value of a TOKEN_INTEGER token
  int32_t line;        // line number at which the framework accepted the token
  int32_t offset;      // byte offset in the file at which the token starts
};

// Accept function: recognises a token at the framework's cursor. `ch` points at the current
// character; `*buffer` holds the characters seen from the token's start, of which the first
// `*count` are consumed. Fills `token` and returns 0 on success, -1 on failure.
using AcceptFunction = int (*)(Token* token, const int* ch, const char* const* buffer,
                               const int* count, const char* expected);
// Output function: writes a token of its type to the framework's output.
using OutputFunction = void (*)(Token* token);

// Sets the text to `length` bytes of `bytes` plus NUL. 1 on success, 0 on allocation failure
// (the old buffer is then freed and capacity is 0).
int token_set_str(Token* token, const char* bytes, int length);
// Appends `s`. 1 on success, 0 on failure.
int token_strcat(Token* token, const char* s);
// Makes room for `n` characters plus NUL without changing the recorded capacity. 1 / 0.
int token_set_strlen(Token* token, int n);
// Frees an owned text and clears the record to an empty TOKEN_NONE.
void token_clear(Token* token);

// Registers the accept and output functions of the nine token types with the parser framework.
void token_init();

// Character classes of the C locale (the daemon never changes its locale), with every byte of 161
// or more graphic and alphanumeric. Anything outside 0..255 is in no class.
bool token_isgraph(int ch);
bool token_isalnum(int ch);
bool token_isspace(int ch);

// Classes a run of characters is read by (ctok_newCharsWhile). NUL is in none of them.
enum TokenCharClass : uint8_t {
  TOKEN_CLASS_GRAPH = 1,   // token_isgraph
  TOKEN_CLASS_ALNUM = 2,   // token_isalnum
  TOKEN_CLASS_SPACE = 4,   // token_isspace
  TOKEN_CLASS_WORD = 8,    // anything but white space and NUL
  TOKEN_CLASS_KEY = 16,    // a word character other than "="
  TOKEN_CLASS_DIGIT = 32,  // decimal digits
};
// Number of characters of `text` from `from` on that are all in the class `keep`.
size_t token_classSpan(std::string_view text, size_t from, TokenCharClass keep);

// Provided by the parser framework (parserframework.cpp).
int ctok_registerTokenHandlers(int type, AcceptFunction accept, OutputFunction output);
void ctok_newChar();
// ctok_newChar as long as the current character is in the class `keep`.
void ctok_newCharsWhile(TokenCharClass keep);
void ctok_putString(const char* text);
void ctok_putText(std::string_view text);
void ctok_putChar(int ch);
