#include "parsers/camsettingsparser.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "base/log.h"
#include "parsers/mappinginterface.h"
#include "parsers/parserframework.h"
#include "parsers/parserutil.h"
#include "values/scalar.h"

namespace {

constexpr const char* kSource = "camsettingsparser";
// Types keep at most 32 characters; a longer key fails the parse.
constexpr size_t kTypeSize = 33;
constexpr size_t kKeySize = 33;

struct Entry {
  char type[kTypeSize];
  char key[kKeySize];
};

// Writes "KEY VALUE" for an entry changed by a client, in place of the old key and value (the
// type before them and the line end after them stay).
void write_entry(void* argument) {
  const auto* entry = static_cast<const Entry*>(argument);
  std::string key = std::string(entry->key) + " ";
  write_section_value(entry->key, entry->type, TOKEN_STRING, key.c_str());
}

// Gives up the parse: the rest of the file is kept as it is.
bool fail(const char* what, const char* text) {
  log_error(kSource, "Camsettings file: %s '%s' on line %d.", what, text, pif_getLineNumber());
  pif_copyRest();
  return false;
}

enum class Start { kEntry, kTypeAlone, kFailed };

// TYPE and KEY of an entry line. Both are words written back as they were read: the master
// configuration's parameter list reader takes them from this file by splitting at blanks, so
// they are never quoted (a canonical string would quote "yes_no").
Start read_type_and_key(Token* token, Entry* entry) {
  pif_acceptToken(TOKEN_WORD, nullptr);
  copy_cut(entry->type, sizeof entry->type, token->text);
  pif_syncToken();
  if (pif_skipBlanks()) {
    return Start::kTypeAlone;
  }
  pif_acceptToken(TOKEN_WORD, nullptr);
  const char* error = strlen(token->text) >= sizeof entry->key ? "key longer than 32 characters"
                      : scalar_findType(entry->type) < 0       ? "unknown type of"
                                                               : nullptr;
  if (error != nullptr) {
    pif_syncToken();
    fail(error, token->text);
    return Start::kFailed;
  }
  copy_cut(entry->key, sizeof entry->key, token->text);
  return Start::kEntry;
}

// An entry line, "TYPE KEY VALUE". A type alone, or a type and key without a value, maps nothing.
bool parse_entry(Token* token) {
  Entry entry{};
  Start start = read_type_and_key(token, &entry);
  if (start != Start::kEntry) {
    return start == Start::kTypeAlone;
  }
  mif_probeSection(entry.key, write_entry, &entry);
  mif_enterSection(entry.key);
  pif_syncToken();
  if (!pif_skipBlanks() && pif_acceptToken(TOKEN_STRING, nullptr)) {
    mif_enterScalar(entry.type);
    dif_customScalarSetFromString(token->text, token->quote);
    mif_leaveScalar();
    pif_syncToken();
  }
  mif_leaveSection();
  return pif_skipBlanks() || fail("more than a value after", entry.key);
}

// The entries of the section whose header is the current token, up to the next header (then
// current, and the result true) or the end of the file. `*ok` false after a failure.
bool parse_section(Token* token, bool* ok) {
  pif_syncToken();
  pif_skipWhitespace();
  mif_enterSection(token->text);
  bool next = false;
  while (*ok && token->type != TOKEN_EOF) {
    if (pif_acceptToken(TOKEN_SECTION, nullptr)) {
      next = true;
      break;
    }
    *ok = parse_entry(token);
    pif_skipWhitespace();
  }
  mif_leaveSection();
  return next;
}

}  // namespace

int camsettingsparser_parse(Token* token, const char* group_path) {
  pif_skipWhitespace();
  mif_enterRootSection("Camsettings", group_path);
  bool ok = pif_acceptToken(TOKEN_SECTION, nullptr) || fail("expected a section header at", "");
  for (bool more = ok; more;) {
    more = parse_section(token, &ok);
  }
  mif_leaveRootSection();
  return ok ? 0 : -1;
}

int camsettingsparser_register() {
  return parser_registerParser(camsettingsparser_parse, "Camsettingsparser");
}
