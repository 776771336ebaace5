#include "parsers/standardparser.h"

#include <cstdio>

#include "parsers/mappinginterface.h"
#include "parsers/parserframework.h"
#include "parsers/parserutil.h"

namespace {

constexpr size_t kKeySize = 65;

// Writes the value of the parameter mounted at `key` (changed by a client) after the key, in
// place of the old value, which the parse then drops.
void write_value(void* argument) {
  write_section_value(static_cast<const char*>(argument), "string", TOKEN_STRING);
}

// An entry: the key is the current token. Only a value on the key's own line is mapped; a key
// alone on its line is copied through.
void parse_entry(Token* token) {
  char key[kKeySize];
  copy_cut(key, sizeof key, token->text);
  int line = pif_getLineNumber();
  pif_syncToken();
  pif_skipWhitespace();
  if (pif_getLineNumber() != line) {
    return;
  }
  mif_probeKey(key, write_value, key);
  mif_enterSection(key);
  if (pif_acceptToken(TOKEN_STRING, nullptr)) {
    mif_enterScalar("string");
    dif_customScalarSetFromString(token->text, token->quote);
    mif_leaveScalar();
  }
  pif_syncToken();
  mif_leaveSection();
  pif_skipWhitespace();
}

// Text that can start neither a header nor a key (a control character, or a quote that is never
// closed): the rest of its line is copied through as it is. False when nothing could be passed.
bool pass_stray_text() {
  if (!pif_acceptToken(TOKEN_LINE, nullptr)) {
    return false;
  }
  pif_syncToken();
  pif_skipWhitespace();
  return true;
}

}  // namespace

int standardparser_parse(Token* token, const char* group_path) {
  pif_skipWhitespace();
  mif_enterRootSection("Standard", group_path);
  mif_enterSection("Root");
  while (token->type != TOKEN_EOF) {
    if (pif_acceptToken(TOKEN_SECTION, nullptr)) {
      mif_leaveSection();
      mif_enterSection(token->text);
      pif_syncToken();
      pif_skipWhitespace();
    } else if (pif_acceptToken(TOKEN_STRING, nullptr)) {
      parse_entry(token);
    } else if (!pass_stray_text()) {
      break;
    }
  }
  mif_leaveSection();
  mif_leaveRootSection();
  return 0;
}

int standardparser_register() {
  return parser_registerParser(standardparser_parse, "Standardparser");
}
