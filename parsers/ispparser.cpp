#include "parsers/ispparser.h"

#include <cstdio>
#include <iterator>

#include "base/handles.h"
#include "base/log.h"
#include "parsers/mappinginterface.h"
#include "parsers/parserframework.h"
#include "parsers/parserutil.h"

namespace {

constexpr const char* kSource = "ispparser";
// Provider names keep the characters a section of the mapping path keeps.
constexpr size_t kNameSize = 63;

constexpr const char* kReadingOrder[] = {
    "LOGIN",           "USERNAME",   "PASSWD",         "PASSWORD",   "PROMPT",
    "PHONE1",          "PHONE2",     "CONNECTIONTYPE", "CLOSEAFTER", "NORETRIES",
    "WAITBEFORERETRY", "UPLOADPATH", "SELECTED",       "USERNAMEB",
};
constexpr const char* kWritingOrder[] = {
    "SELECTED",   "LOGIN",     "USERNAME",        "USERNAMEB",  "PASSWD",
    "PASSWORD",   "PROMPT",    "PHONE1",          "PHONE2",     "CONNECTIONTYPE",
    "CLOSEAFTER", "NORETRIES", "WAITBEFORERETRY", "UPLOADPATH",
};
static_assert(std::size(kReadingOrder) == std::size(kWritingOrder));

struct EntryWriter {
  const char* key;
  bool line_end;  // a whole new line; in place of an old entry its line end stays
};

// Writes "KEY = value" for the entry `key` of the current value, the value as it is.
void write_entry(void* argument) {
  const auto* writer = static_cast<const EntryWriter*>(argument);
  mif_enterSection(writer->key);
  char quote = 0;
  CString text(dif_customScalarGetAsString(&quote));
  pif_outputString(writer->key);
  pif_outputString(" = ");
  pif_outputString(text != nullptr ? text.get() : "");
  if (writer->line_end) {
    pif_outputString("\n");
  }
  mif_notifyStored();
  mif_leaveSection();
}

void write_line(const char* key) {
  EntryWriter writer{key, true};
  write_entry(&writer);
}

// A block: the header and the entries in the writing order, then a blank line.
void write_block(void* argument) {
  const char* name = static_cast<const char*>(argument);
  mif_enterSection(name);
  pif_outputString("[");
  pif_outputString(name);
  pif_outputString("]\n");
  for (const char* key : kWritingOrder) {
    write_line(key);
  }
  mif_notifyStored();
  mif_leaveSection();
  pif_outputString("\n");
}

// Every provider of the list, in the order of its hash.
void write_isps(void* /*argument*/) {
  mif_enterSection("isps");
  const char* name = nullptr;
  mif_enterSectionNext(&name);
  while (!mif_endOfSections()) {
    write_block(const_cast<char*>(name));
    mif_enterSectionNext(&name);
  }
  mif_notifyStored();
  mif_leaveSection();
}

// The whole file, for a parameter that holds all of it. Looked up below the parser's group, as the
// probe that found the change was.
void write_file(void* argument) {
  mif_enterRootSection("ISP", static_cast<const char*>(argument));
  write_line("using");
  write_isps(nullptr);
  mif_notifyStored();
  mif_leaveRootSection();
}

// Gives up the parse: the rest of the file is kept as it is, unless it lies inside a list or block
// being replaced.
bool fail(const char* what, const char* key) {
  log_error(kSource, "ISP file: %s '%s' on line %d.", what, key, pif_getLineNumber());
  pif_copyRest();
  return false;
}

// "KEY = value" on one line, the entry's section entered; only "KEY =" is the empty value. Null
// or what is wrong with the entry.
const char* read_entry(Token* token, const char* key) {
  if (!pif_acceptToken(TOKEN_STRING, key)) {
    return "expected the entry";
  }
  pif_syncToken();
  if (pif_skipBlanks() || !pif_acceptToken(TOKEN_LITERAL, "=")) {
    return "expected \"=\" after";
  }
  pif_syncToken();
  mif_enterScalar("string");
  const char* error = nullptr;
  if (pif_skipBlanks()) {
    dif_customScalarSetFromString("", 0);
  } else if (pif_acceptToken(TOKEN_STRING, nullptr)) {
    dif_customScalarSetFromString(token->text, token->quote);
    pif_syncToken();
  } else {
    error = "unreadable value of";
  }
  mif_leaveScalar();
  return error;
}

bool parse_entry(Token* token, const char* key) {
  EntryWriter writer{key, false};
  mif_probeSection(key, write_entry, &writer);
  mif_enterSection(key);
  const char* error = read_entry(token, key);
  mif_leaveSection();
  if (error != nullptr) {
    return fail(error, key);
  }
  pif_skipWhitespace();
  return true;
}

void set_name(const char* name) {
  mif_enterSection("ISPNAME");
  mif_enterScalar("string");
  dif_customScalarSetFromString(name, 0);
  mif_leaveScalar();
  mif_leaveSection();
}

// A provider's block: its header, then the fourteen entries in the reading order.
bool parse_block(Token* token) {
  if (!pif_acceptToken(TOKEN_SECTION, nullptr)) {
    return fail("expected a provider's header", "[");
  }
  char name[kNameSize];
  copy_cut(name, sizeof name, token->text);
  mif_probeSection(name, write_block, name);
  mif_enterSection(name);
  set_name(name);
  pif_syncToken();
  pif_skipWhitespace();
  bool ok = true;
  for (const char* key : kReadingOrder) {
    if (!(ok = parse_entry(token, key))) {
      break;
    }
  }
  mif_leaveSection();
  return ok;
}

// The blocks after the "using" line; a changed list is written there, in place of the old blocks.
bool parse_isps(Token* token) {
  mif_probeSection("isps", write_isps, nullptr);
  mif_enterSection("isps");
  bool ok = true;
  while (ok && token->type != TOKEN_EOF) {
    ok = parse_block(token);
  }
  mif_leaveSection();
  return ok;
}

}  // namespace

int ispparser_parse(Token* token, const char* group_path) {
  pif_skipWhitespace();
  mif_probeRootSection("ISP", group_path, write_file, const_cast<char*>(group_path));
  mif_enterRootSection("ISP", group_path);
  bool ok = token->type != TOKEN_EOF || fail("no entry", "using");
  ok = ok && parse_entry(token, "using") && parse_isps(token);
  mif_leaveRootSection();
  return ok ? 0 : -1;
}

int ispparser_register() {
  return parser_registerParser(ispparser_parse, "ISPparser");
}
