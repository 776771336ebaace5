#include "parsers/parserutil.h"

#include "base/handles.h"
#include "base/log.h"
#include "parsers/mappinginterface.h"
#include "parsers/parserframework.h"

void write_section_value(const char* section, const char* type, int token_type,
                         const char* prefix) {
  mif_enterSection(section);
  mif_enterScalar(type);
  pif_outputString(prefix);
  char quote = 0;
  CString text(dif_customScalarGetAsString(&quote));
  pif_outputToken(token_type, text != nullptr ? text.get() : "", quote);
  mif_leaveScalar();
  mif_notifyStored();
  mif_leaveSection();
}

bool parse_string_value(Token* token, const char* section, int value_type) {
  mif_enterSection(section);
  bool empty = pif_skipBlanks() != 0;
  // An unreadable value leaves the parameter without one: no scalar is entered for it.
  bool ok = empty || pif_acceptToken(value_type, nullptr) != 0;
  if (ok) {
    mif_enterScalar("string");
    dif_customScalarSetFromString(empty ? "" : token->text, empty ? 0 : token->quote);
    if (!empty) pif_syncToken();
    mif_leaveScalar();
  } else {
    log_error("parserutil", "Unreadable value of '%s' on line %d.", section, pif_getLineNumber());
  }
  mif_leaveSection();
  if (!ok) {
    pif_copyRest();
  }
  return ok;
}

int parse_lines(Token* token, const char* root, const char* group_path,
                bool (*parse_line)(Token* token)) {
  pif_skipWhitespace();
  mif_enterRootSection(root, group_path);
  int result = 0;
  while (token->type != TOKEN_EOF) {
    if (!parse_line(token)) {
      result = -1;
      break;
    }
    pif_skipWhitespace();
  }
  mif_leaveRootSection();
  return result;
}
