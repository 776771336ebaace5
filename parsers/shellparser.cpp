#include "parsers/shellparser.h"

#include <cstdio>
#include <string_view>

#include "parsers/mappinginterface.h"
#include "parsers/parserframework.h"
#include "parsers/parserutil.h"

namespace {

// Variable names keep at most 63 characters.
constexpr size_t kNameSize = 64;

// Writes the new value of the variable `name` (changed by a client) where the old one starts:
// right after the "=" (or the blank after the name of setenv), even when the "=" ended its line.
// The old value that the parse reads afterwards is dropped, the old line end kept.
void write_value(void* argument) {
  write_section_value(static_cast<const char*>(argument), "string", TOKEN_VALUE);
}

// Accepts a name or a word (which cannot fail) and writes it through. True when more follows on
// the line.
bool accept_on_line(int type) {
  pif_acceptToken(type, nullptr);
  pif_syncToken();
  return pif_skipBlanks() == 0;
}

// The "=" of an assignment. Without it the rest of the line is copied as it is.
bool accept_equals() {
  if (pif_acceptToken(TOKEN_LITERAL, "=")) {
    pif_syncToken();
    return true;
  }
  if (pif_acceptToken(TOKEN_LINE, nullptr)) {
    pif_syncToken();
  }
  return false;
}

// The value of `name` from the cursor to the end of the line; nothing there is the empty value.
// False when a quoted value is not closed: the rest of the file is then kept as it is.
bool parse_value(char* name, Token* token) {
  mif_probeKey(name, write_value, name);
  return parse_string_value(token, name, TOKEN_VALUE);
}

// One line: NAME=value, export NAME=value or setenv NAME value. Any other line is copied through
// and maps nothing. False when the value cannot be read.
bool parse_line(Token* token) {
  if (!accept_on_line(TOKEN_KEY)) {
    return true;
  }
  std::string_view word = token->text;
  bool setenv = word == "setenv";
  bool exported = word == "export";
  if (setenv && !accept_on_line(TOKEN_WORD)) {
    return true;
  }
  if (exported && !accept_on_line(TOKEN_KEY)) {
    return true;
  }
  char name[kNameSize];
  copy_cut(name, sizeof name, token->text);
  if (!setenv && !accept_equals()) {
    return true;
  }
  return parse_value(name, token);
}

}  // namespace

int shellparser_parse(Token* token, const char* group_path) {
  return parse_lines(token, "Shell", group_path, parse_line);
}

int shellparser_register() {
  return parser_registerParser(shellparser_parse, "ShellParser");
}
