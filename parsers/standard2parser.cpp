#include "parsers/standard2parser.h"

#include <cstdio>

#include "parsers/mappinginterface.h"
#include "parsers/parserframework.h"
#include "parsers/parserutil.h"

namespace {

// Keys keep at most 64 characters.
constexpr size_t kKeySize = 65;

struct ValueWriter {
  char key[kKeySize];
  bool add_equals;  // the line has no "=": the new value brings one
};

// Writes the new value of the key (changed by a client) where the old value starts, after the
// "=" or, for a "key value" line, with "= " before it. The old value is dropped afterwards and
// the line end kept.
void write_value(void* argument) {
  const auto* writer = static_cast<const ValueWriter*>(argument);
  write_section_value(writer->key, "string", TOKEN_STRING, writer->add_equals ? "= " : "");
}

// An entry; its key is the current token. A key alone on its line is copied through and maps
// nothing; "key =" at the end of a line is the empty value. False when the value cannot be read:
// the rest of the file is then kept as it is.
bool parse_entry(Token* token) {
  ValueWriter writer{};
  copy_cut(writer.key, sizeof writer.key, token->text);
  pif_syncToken();
  if (pif_skipBlanks()) {
    return true;
  }
  writer.add_equals = !pif_acceptToken(TOKEN_LITERAL, "=");
  if (!writer.add_equals) {
    pif_syncToken();
    pif_skipBlanks();  // the blanks after the "=" stay; a new value follows them
  }
  mif_probeKey(writer.key, write_value, &writer);
  return parse_string_value(token, writer.key, TOKEN_STRING);
}

}  // namespace

int standard2parser_parse(Token* token, const char* group_path) {
  pif_skipWhitespace();
  mif_enterRootSection("Standard2", group_path);
  mif_enterSection("Root");
  int result = 0;
  while (token->type != TOKEN_EOF) {
    if (pif_acceptToken(TOKEN_SECTION, nullptr)) {
      mif_leaveSection();
      mif_enterSection(token->text);
      pif_syncToken();
    } else if (pif_acceptToken(TOKEN_KEY, nullptr) && !parse_entry(token)) {
      result = -1;
      break;
    }
    pif_skipWhitespace();
  }
  mif_leaveSection();
  mif_leaveRootSection();
  return result;
}

int standard2parser_register() {
  return parser_registerParser(standard2parser_parse, "Standard2parser");
}
