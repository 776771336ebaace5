#include "parsers/standard2parser.h"

#include <cstdio>

#include "init/log.h"
#include "movefile/handles.h"
#include "parsers/mappinginterface.h"
#include "parsers/parserframework.h"

namespace {

constexpr const char* kSource = "standard2parser";
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
  mif_enterSection(writer->key);
  mif_enterScalar("string");
  if (writer->add_equals) {
    pif_outputString("= ");
  }
  char quote = 0;
  CString text(dif_customScalarGetAsString(&quote));
  pif_outputToken(TOKEN_STRING, text != nullptr ? text.get() : "", quote);
  mif_leaveScalar();
  mif_notifyStored();
  mif_leaveSection();
}

// An entry; its key is the current token. A key alone on its line is copied through and maps
// nothing; "key =" at the end of a line is the empty value. False when the value cannot be read:
// the rest of the file is then kept as it is.
bool parse_entry(Token* token) {
  ValueWriter writer{};
  snprintf(writer.key, sizeof writer.key, "%s", token->text);
  pif_syncToken();
  if (pif_skipBlanks()) {
    return true;
  }
  bool missing = false;
  writer.add_equals = !pif_acceptToken(TOKEN_LITERAL, "=");
  if (!writer.add_equals) {
    pif_syncToken();
    missing = pif_skipBlanks() != 0;
  }
  mif_probeSection(writer.key, write_value, &writer);
  mif_enterSection(writer.key);
  mif_enterScalar("string");
  bool ok = true;
  if (missing) {
    dif_customScalarSetFromString("", 0);
  } else if (pif_acceptToken(TOKEN_STRING, nullptr)) {
    dif_customScalarSetFromString(token->text, token->quote);
    pif_syncToken();
  } else {
    log_error(kSource, "Unreadable value of '%s' on line %d.", writer.key, pif_getLineNumber());
    ok = false;
  }
  mif_leaveScalar();
  mif_leaveSection();
  if (!ok) {
    pif_copyRest();
  }
  return ok;
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
