#include "parsers/nwparser.h"

#include <cstring>
#include <string_view>

#include "base/log.h"
#include "parsers/mappinginterface.h"
#include "parsers/parserframework.h"
#include "parsers/parserutil.h"

namespace {

constexpr const char* kSource = "nwparser";

struct NetworkKey {
  const char* key;
  const char* type;
};

constexpr NetworkKey kKeys[] = {
    {"MACADR", "eth_addr"},
    {"IP", "ip"},
    {"NETMASK", "ip"},
    {"BROADCAST", "ip"},
    {"NETWORK", "ip"},
    {"GATEWAY", "ip"},
    {"BOOTPROTO", "string"},
    {"BOOTPENABLE", "yes_no"},
    {"DHCPENABLE", "yes_no"},
    {"DHCPENABLECLIENTS", "yes_no"},
    {"HOSTNAME", "string"},
    {"DOMAINNAME", "string"},
    {"MEDIA", "string"},
    {"UPNPENABLE", "yes_no"},
    {"UPNPFRIENDLYNAME", "string"},
    {"LINKLOCALIPENABLE", "yes_no"},
    {"LINKLOCALIPADDR", "ip"},
    {"NAMESERVER", "string"},
};

const NetworkKey* find_key(const char* key) {
  for (const NetworkKey& row : kKeys) {
    if (strcmp(row.key, key) == 0) {
      return &row;
    }
  }
  return nullptr;
}

// Writes the new value of the key (changed by a client) where the old value starts; the old
// value is dropped afterwards and its line end kept.
void write_value(void* argument) {
  const auto* row = static_cast<const NetworkKey*>(argument);
  write_section_value(row->key, row->type, TOKEN_STRING);
}

// Gives up the parse: the rest of the file is kept as it is.
bool fail(const char* what) {
  log_error(kSource, "Network file: %s on line %d.", what, pif_getLineNumber());
  pif_copyRest();
  return false;
}

// The key of the line, after "export" or "setenv" when the line has one. Null after a logged
// failure; `*setenv` tells the form without "=".
const NetworkKey* parse_key(Token* token, bool* setenv) {
  pif_acceptToken(TOKEN_KEY, nullptr);
  std::string_view word = token->text;
  *setenv = word == "setenv";
  if (*setenv || word == "export") {
    pif_syncToken();
    if (pif_skipBlanks()) {
      fail("missing key");
      return nullptr;
    }
    pif_acceptToken(*setenv ? TOKEN_WORD : TOKEN_KEY, nullptr);
  }
  pif_syncToken();
  const NetworkKey* row = find_key(token->text);
  if (row == nullptr) {
    log_error(kSource, "Network file: unknown key '%s' on line %d.", token->text,
              pif_getLineNumber());
    pif_copyRest();
  }
  return row;
}

// One assignment. False after a logged failure.
bool parse_line(Token* token) {
  bool setenv = false;
  const NetworkKey* row = parse_key(token, &setenv);
  if (row == nullptr) {
    return false;
  }
  if (!setenv) {
    pif_skipBlanks();
    if (!pif_acceptToken(TOKEN_LITERAL, "=")) {
      return fail("missing \"=\"");
    }
    pif_syncToken();
  }
  if (pif_skipBlanks()) {
    return fail("missing value");
  }
  mif_probeSection(row->key, write_value, const_cast<NetworkKey*>(row));
  mif_enterSection(row->key);
  bool ok = pif_acceptToken(TOKEN_STRING, nullptr) != 0;
  if (ok) {
    mif_enterScalar(row->type);
    dif_customScalarSetFromString(token->text, token->quote);
    mif_leaveScalar();
    pif_syncToken();
  }
  mif_leaveSection();
  return ok || fail("unreadable value");
}

}  // namespace

int nwparser_parse(Token* token, const char* group_path) {
  return parse_lines(token, "Network", group_path, parse_line);
}

int nwparser_register() {
  return parser_registerParser(nwparser_parse, "NWparser");
}
