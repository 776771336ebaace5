#include "parsers/resolvparser.h"

#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>
#include <string_view>

#include "base/handles.h"
#include "base/log.h"
#include "parsers/mappinginterface.h"
#include "parsers/parserframework.h"
#include "parsers/parserutil.h"

namespace {

constexpr const char* kSource = "resolvparser";
constexpr const char* kNoAddress = "0.0.0.0";
constexpr size_t kSectionSize = 32;
constexpr size_t kKeywordSize = 16;

// A statement's place in the tree and the keyword it is written with.
struct Statement {
  char section[kSectionSize];
  const char* type;
  char keyword[kKeywordSize];
  bool line_end;    // written as a line of its own; in place of an old line, that line's end stays
  bool line_start;  // written after a last line that has no line end
};

const Statement kSearch{"Search", "string", "search", true, false};

Statement nameserver(const char* section) {
  Statement statement{"", "ipaddr", "nameserver", true, false};
  copy_cut(statement.section, sizeof statement.section, section);
  return statement;
}

// An empty value, and a name server of 0.0.0.0, stand for no line.
bool writes_line(const Statement& statement, const char* text) {
  return text != nullptr && text[0] != 0 &&
         (strcmp(statement.type, "ipaddr") != 0 || strcmp(text, kNoAddress) != 0);
}

// Writes the statement's value (changed by a client) as "keyword value".
void write_statement(void* argument) {
  const auto* statement = static_cast<const Statement*>(argument);
  mif_enterSection(statement->section);
  mif_enterScalar(statement->type);
  CString text(dif_customScalarGetAsString(nullptr));
  if (writes_line(*statement, text.get())) {
    std::string line = std::string(statement->line_start ? "\n" : "") + statement->keyword + " " +
                       text.get() + (statement->line_end ? "\n" : "");
    pif_outputString(line.c_str());
  }
  mif_leaveScalar();
  mif_notifyStored();
  mif_leaveSection();
}

void write_search(void* /*argument*/) {
  Statement statement = kSearch;
  write_statement(&statement);
}

void write_nameserver(void* argument) {
  Statement statement = nameserver(static_cast<const char*>(argument));
  write_statement(&statement);
}

// The second name server, appended to a file whose last line has no line end.
void write_last_nameserver(void* argument) {
  Statement statement = nameserver(static_cast<const char*>(argument));
  statement.line_start = true;
  write_statement(&statement);
}

// The whole group, for a parameter that holds all of it and whose file has none of it. Looked
// up below the parser's group, as the probe that found the change was.
void write_all(void* argument) {
  mif_enterRootSection("Resolv", static_cast<const char*>(argument));
  write_search(nullptr);
  write_nameserver(const_cast<char*>("Nameserver0"));
  write_nameserver(const_cast<char*>("Nameserver1"));
  mif_notifyStored();
  mif_leaveRootSection();
}

// True when a line of the text begins with one of the keywords.
bool has_line(std::string_view text, std::initializer_list<std::string_view> keywords) {
  for (size_t start = 0; start < text.size();) {
    size_t end = text.find('\n', start);
    std::string_view line = text.substr(start, end == std::string_view::npos ? end : end - start);
    size_t word = line.find_first_not_of(" \t\r\f\v");
    if (word != std::string_view::npos) {
      std::string_view first = line.substr(word, line.find_first_of(" \t\r\f\v", word) - word);
      for (std::string_view keyword : keywords) {
        if (first == keyword) {
          return true;
        }
      }
    }
    start = end == std::string_view::npos ? text.size() : end + 1;
  }
  return false;
}

void declare_default(const char* section, const char* type, const char* text) {
  mif_enterSection(section);
  mif_enterScalar(type);
  dif_customScalarSetFromString(text, 0);
  mif_leaveScalar();
  mif_leaveSection();
}

// A statement line; its keyword is the current token, written through unless the line is
// rewritten. The value must follow on the same line. False after a logged failure.
bool parse_statement(Token* token, Statement* statement, int value_type) {
  copy_cut(statement->keyword, sizeof statement->keyword, token->text);
  statement->line_end = false;
  mif_probeSection(statement->section, write_statement, statement);
  mif_enterSection(statement->section);
  mif_enterScalar(statement->type);
  pif_syncToken();
  bool ok = !pif_skipBlanks() && pif_acceptToken(value_type, nullptr);
  if (ok) {
    dif_customScalarSetFromString(token->text, 0);
    pif_syncToken();
  }
  mif_leaveScalar();
  mif_leaveSection();
  if (!ok) {
    log_error(kSource, "Resolver file: no value after '%s' on line %d.", statement->keyword,
              pif_getLineNumber());
    pif_copyRest();
  }
  return ok;
}

// One line. Lines of other keywords are copied as they are, and so is anything after a
// statement's value.
bool parse_line(Token* token, int* nameservers) {
  pif_acceptToken(TOKEN_WORD, nullptr);
  std::string_view keyword = token->text;
  bool ok = true;
  if (keyword == "nameserver") {
    char section[kSectionSize];
    snprintf(section, sizeof section, "Nameserver%d", (*nameservers)++);
    Statement statement = nameserver(section);
    ok = parse_statement(token, &statement, TOKEN_WORD);
  } else if (keyword == "search" || keyword == "domain") {
    Statement statement = kSearch;
    ok = parse_statement(token, &statement, TOKEN_LINE);
  } else {
    pif_syncToken();
  }
  if (ok && !pif_skipBlanks() && pif_acceptToken(TOKEN_LINE, nullptr)) {
    pif_syncToken();
  }
  return ok;
}

}  // namespace

// A changed Search or Nameserver0 that the file lacks is written at the top, a changed
// Nameserver1 that it lacks at the end; values the file has are rewritten in their lines, which
// keep their keyword (domain stays domain).
int resolvparser_parse(Token* token, const char* group_path) {
  int nameservers = 0;
  pif_skipWhitespace();
  mif_probeRootSection("Resolv", group_path, write_all, const_cast<char*>(group_path));
  mif_enterRootSection("Resolv", group_path);
  std::string_view unread = pif_unreadInput();
  if (!has_line(unread, {"search", "domain"})) {
    mif_probeSection("Search", write_search, nullptr);
  }
  if (!has_line(unread, {"nameserver"})) {
    mif_probeSection("Nameserver0", write_nameserver, const_cast<char*>("Nameserver0"));
  }
  declare_default("Search", "string", "");
  declare_default("Nameserver0", "ipaddr", kNoAddress);
  declare_default("Nameserver1", "ipaddr", kNoAddress);
  bool ok = true;
  while (ok && token->type != TOKEN_EOF) {
    ok = parse_line(token, &nameservers);
    pif_skipWhitespace();
  }
  if (ok) {
    bool open_end = !unread.empty() && unread.back() != '\n';
    mif_probeSection("Nameserver1", open_end ? write_last_nameserver : write_nameserver,
                     const_cast<char*>("Nameserver1"));
  }
  mif_leaveRootSection();
  return ok ? 0 : 1;
}

int resolvparser_register() {
  return parser_registerParser(resolvparser_parse, "Resolvparser");
}
