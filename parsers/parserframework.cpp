#include "parsers/parserframework.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <vector>

#include "base/log.h"
#include "parsers/camsettingsparser.h"
#include "parsers/resolvparser.h"
#include "parsers/shellparser.h"
#include "parsers/singlevalueparser.h"
#include "parsers/standard2parser.h"
#include "parsers/standardparser.h"

namespace {

constexpr const char* kSource = "parserframework";
constexpr int kIndexedTypes = TOKEN_NONE + 1;

struct HandlerNode {
  HandlerNode* next;
  AcceptFunction accept;
  OutputFunction output;
  int type;
};

// Parser rows and token handlers. Handlers stay in a list in registration order; `by_type` points
// at the first handler of each type so that a look-up does not walk the list.
struct Registry {
  ParserEntry rows[kMaxParsers];
  int count;
  HandlerNode* handlers;
  HandlerNode* handlers_tail;
  HandlerNode* by_type[kIndexedTypes];
};

Registry registry;

// The rewritten file as it grows, positioned like a stream: pif_unputChar steps back and the next
// character is written over the old one, while text behind the position stays in the file.
class OutputText {
 public:
  void clear() {
    text_.clear();
    pos_ = 0;
  }
  void put(char c) {
    if (pos_ < text_.size()) {
      text_[pos_] = c;
    } else {
      text_.push_back(c);
    }
    ++pos_;
  }
  void put(std::string_view s) {
    size_t over = std::min(s.size(), text_.size() - pos_);
    text_.replace(pos_, over, s.data(), s.size());
    pos_ += s.size();
  }
  void unput() {
    if (pos_ > 0) {
      --pos_;
    }
  }
  bool ends_with(std::string_view tail) const {
    return pos_ >= tail.size() &&
           std::string_view(text_).substr(pos_ - tail.size(), tail.size()) == tail;
  }
  std::string& text() { return text_; }

 private:
  std::string text_;
  size_t pos_ = 0;
};

// The file being processed. The whole input is in memory; the look-ahead of a token being
// recognised is the input from `cursor` on, so a failed accept leaves nothing to put back and
// characters looked at beyond an accepted token are read again by what follows.
struct Framework {
  bool active;
  bool readonly;
  bool synchronization;
  std::string_view input;
  std::string path;
  OutputText* output;
  size_t cursor;
  int line;
  bool at_line_start;
  int result;
  int position;  // characters of the token being recognised consumed so far
  int current;   // the character at `position`, 0 at the end of the file
  const char* lookahead;
  Token token;
  bool token_pending;  // accepted and not yet written or dropped by pif_syncToken
  bool corruption_reported;
  bool end_reached;
  bool malformed;  // a NUL byte or a quote never closed: a rewrite could misplace text
  std::vector<const Param*> stored;  // values written in this run
};

Framework fw;

HandlerNode* find_handler(int type) {
  if (type >= 0 && type < kIndexedTypes) {
    return registry.by_type[type];
  }
  for (HandlerNode* h = registry.handlers; h != nullptr; h = h->next) {
    if (h->type == type) {
      return h;
    }
  }
  return nullptr;
}

bool writing() {
  return fw.active && !fw.readonly && fw.output != nullptr;
}
bool copying() {
  return fw.synchronization && writing();
}

int char_at(size_t offset) {
  return offset < fw.input.size() ? static_cast<unsigned char>(fw.input[offset]) : 0;
}

// Passes one input character outside any token, copying it through.
void pass_char() {
  if (copying()) {
    fw.output->put(fw.input[fw.cursor]);
  }
  ++fw.cursor;
}

void report_nul() {
  if (fw.corruption_reported) {
    return;
  }
  fw.corruption_reported = true;
  fw.malformed = true;
  log_error(kSource, "Possible corruption in configuration file: %s", fw.path.c_str());
}

// A "#" line: every character up to and including the newline, copied through at once.
void pass_comment() {
  std::string_view rest = fw.input.substr(fw.cursor);
  size_t end = rest.find('\n');
  std::string_view line = rest.substr(0, end == std::string_view::npos ? rest.size() : end + 1);
  if (line.find('\0') != std::string_view::npos) {
    report_nul();
  }
  if (copying()) {
    fw.output->put(line);
  }
  fw.cursor += line.size();
  if (end != std::string_view::npos) {
    ++fw.line;
    fw.at_line_start = true;
  }
}

void reset_token(Token* token) {
  token_clear(token);
  static char empty[] = "";
  token->text = empty;
}

int run_parser(ParseFunction parse, std::string_view input, const char* path,
               const char* group_path, bool readonly, OutputText* output) {
  fw.active = true;
  fw.readonly = readonly;
  fw.synchronization = true;
  fw.input = input;
  fw.path = path;
  fw.output = readonly ? nullptr : output;
  if (fw.output != nullptr) {
    fw.output->clear();
  }
  fw.cursor = 0;
  fw.line = 1;
  fw.at_line_start = true;
  fw.result = 0;
  fw.position = 0;
  reset_token(&fw.token);
  fw.token_pending = false;
  fw.corruption_reported = false;
  fw.end_reached = false;
  fw.malformed = false;
  fw.stored.clear();
  if (parse(&fw.token, group_path) != 0) {
    fw.result = 1;
  }
  token_clear(&fw.token);
  fw.active = false;
  fw.output = nullptr;
  fw.input = {};
  return fw.result;
}

const ParserEntry* parser_for(const char* name) {
  if (name == nullptr) {
    return nullptr;
  }
  for (int i = 0; i < registry.count; ++i) {
    if (strcmp(registry.rows[i].name, name) == 0) {
      return &registry.rows[i];
    }
  }
  return nullptr;
}

}  // namespace

// Registry and start.

int parser_init() {
  token_init();
  // The parsers of the system, in this fixed order: "Resolvparser", "ShellParser",
  // "SinglevalueParser", "Camsettingsparser", "Standardparser", "Standard2parser". They fill the
  // six rows of the registry, so the parsers that only have a registration function ("NWparser",
  // "ISPparser") are not registered.
  using RegisterFunction = int (*)();
  static constexpr RegisterFunction kParsers[] = {
      resolvparser_register,      shellparser_register,    singlevalueparser_register,
      camsettingsparser_register, standardparser_register, standard2parser_register,
  };
  for (RegisterFunction reg : kParsers) {
    if (reg() != 0) {
      log_fatal(kSource, "Failed initializing parser!");
    }
  }
  fw.active = false;
  return 0;
}

int parser_registerParser(ParseFunction parse, const char* name) {
  if (registry.count == kMaxParsers) {
    log_fatal(kSource, "Too many parsers registered!");
  }
  registry.rows[registry.count++] = ParserEntry{name, parse};
  return 0;
}

const ParserEntry* parser_find(const char* name) {
  const ParserEntry* entry = parser_for(name);
  return entry != nullptr && entry->parse != nullptr ? entry : nullptr;
}

int ctok_registerTokenHandlers(int type, AcceptFunction accept, OutputFunction output) {
  auto* node = new (std::nothrow) HandlerNode{nullptr, accept, output, type};
  if (node == nullptr) {
    log_fatal(kSource, "Out of memory in ctok_registerTokenHandlers!");
  }
  int before = 0;
  for (HandlerNode* h = registry.handlers; h != nullptr; h = h->next) {
    ++before;
  }
  if (registry.handlers_tail != nullptr) {
    registry.handlers_tail->next = node;
  } else {
    registry.handlers = node;
  }
  registry.handlers_tail = node;
  if (type >= 0 && type < kIndexedTypes && registry.by_type[type] == nullptr) {
    registry.by_type[type] = node;
  }
  return before;
}

int parser_parseText(const char* parser_name, std::string_view text, const char* group_path,
                     int readonly, std::string* output) {
  const ParserEntry* entry = parser_find(parser_name);
  if (entry == nullptr) {
    return 1;
  }
  return parser_runOnText(entry->parse, text, "(text)", group_path, readonly, output);
}

void pif_noteStored(const Param* param) {
  fw.stored.push_back(param);
}

void pif_noteProbed(const Param* param) {
  // Its key again after its value was written: the later value, which reading takes, is dropped.
  if (std::find(fw.stored.begin(), fw.stored.end(), param) != fw.stored.end()) {
    fw.malformed = true;
  }
}

bool parser_lastInputMalformed() {
  return fw.malformed;
}

int parser_runOnText(ParseFunction parse, std::string_view text, const char* file_name,
                     const char* group_path, int readonly, std::string* output) {
  OutputText out;
  int result = run_parser(parse, text, file_name, group_path, readonly != 0, &out);
  if (readonly == 0 && output != nullptr) {
    *output = std::move(out.text());
  }
  return result;
}

// Cursor and tokens.

void ctok_newChar() {
  size_t offset = fw.cursor + static_cast<size_t>(fw.position);
  if (offset < fw.input.size()) {
    ++fw.position;
  }
  fw.current = char_at(fw.cursor + static_cast<size_t>(fw.position));
}

void ctok_newCharsWhile(TokenCharClass keep) {
  size_t offset = std::min(fw.cursor + static_cast<size_t>(fw.position), fw.input.size());
  offset += token_classSpan(fw.input, offset, keep);
  fw.position = static_cast<int>(offset - fw.cursor);
  fw.current = char_at(offset);
}

int pif_acceptToken(int type, const char* expected) {
  HandlerNode* handler = find_handler(type);
  if (handler == nullptr || !fw.active) {
    fw.token.type = TOKEN_NONE;
    fw.token_pending = false;
    return 0;
  }
  fw.position = 0;
  fw.lookahead = fw.input.data() + fw.cursor;
  fw.current = char_at(fw.cursor);
  int first = fw.current;
  if (handler->accept(&fw.token, &fw.current, &fw.lookahead, &fw.position, expected) != 0) {
    // A quoted text that fails runs into a NUL byte or the end, or past the length limit.
    bool quoted = first == '"' || (first == '\'' && type == TOKEN_VALUE);
    if (expected == nullptr && quoted && (type == TOKEN_STRING || type == TOKEN_VALUE)) {
      fw.malformed = true;
    }
    return 0;
  }
  fw.token.type = type;
  fw.token.line = fw.line;
  fw.token.offset = static_cast<int32_t>(fw.cursor);
  fw.token_pending = true;
  if (fw.position > 0) {
    fw.at_line_start = false;
  }
  fw.cursor += static_cast<size_t>(fw.position);
  fw.position = 0;
  return 1;
}

void pif_getToken(Token* token) {
  const char* text = fw.token.text != nullptr ? fw.token.text : "";
  char* own_text = token->text;
  int32_t own_capacity = token->capacity;
  *token = fw.token;
  token->text = own_text;
  token->capacity = own_capacity;
  token_set_str(token, text, static_cast<int>(strlen(text)));
}

void pif_syncToken() {
  bool pending = fw.token_pending;
  fw.token_pending = false;
  if (!pending || !copying()) {
    return;
  }
  HandlerNode* handler = find_handler(fw.token.type);
  if (handler == nullptr || handler->output == nullptr) {
    log_fatal(kSource, "No sync-function registered for type %d!", fw.token.type);
  }
  handler->output(&fw.token);
}

void pif_skipWhitespace() {
  for (;;) {
    if (fw.cursor >= fw.input.size()) {
      fw.token.type = TOKEN_EOF;
      fw.token_pending = false;
      fw.end_reached = true;
      return;
    }
    int c = char_at(fw.cursor);
    if (c == '#' && fw.at_line_start) {
      pass_comment();
      continue;
    }
    if (c == 0) {
      report_nul();
    } else if (!token_isspace(c)) {
      return;
    }
    pass_char();
    if (c == '\n') {
      ++fw.line;
    }
    fw.at_line_start = c == '\n';
  }
}

int pif_moreOnLine() {
  int line = fw.line;
  pif_skipWhitespace();
  return line == fw.line && !fw.end_reached ? 1 : 0;
}

int pif_skipBlanks() {
  for (; fw.cursor < fw.input.size(); pass_char()) {
    int c = char_at(fw.cursor);
    if (c == '\n') {
      return 1;
    }
    if (c == 0) {
      report_nul();
    } else if (!token_isspace(c)) {
      return 0;
    }
    fw.at_line_start = false;
  }
  return 1;
}

std::string_view pif_unreadInput() {
  return fw.input.substr(std::min(fw.cursor, fw.input.size()));
}

void pif_copyRest() {
  if (copying()) {
    fw.output->put(pif_unreadInput());
  }
  fw.cursor = fw.input.size();
  fw.token.type = TOKEN_EOF;
  fw.token_pending = false;
  fw.end_reached = true;
}

int pif_getLineNumber() {
  return fw.line;
}

int pif_isReadonly() {
  return fw.active && fw.readonly ? 1 : 0;
}

void pif_setSynchronization(int on) {
  fw.synchronization = on != 0;
}

// Output.

void pif_outputToken(int type, const char* text, int quote) {
  if (fw.synchronization) {
    log_fatal(kSource, "pif_outputToken called with synchronization ON!");
  }
  if (fw.readonly) {
    log_fatal(kSource, "pif_outputToken called during readonly-parsing!");
  }
  HandlerNode* handler = find_handler(type);
  if (handler == nullptr || handler->output == nullptr) {
    log_fatal(kSource, "No sync-function registered for type %d!", type);
  }
  Token token{};
  token.type = type;
  token.quote = quote;
  token.text = const_cast<char*>(text != nullptr ? text : "");
  handler->output(&token);
}

void pif_outputString(const char* text) {
  if (fw.synchronization) {
    log_fatal(kSource, "pif_outputString called with synchronization ON!");
  }
  if (fw.readonly) {
    log_fatal(kSource, "pif_outputString called during readonly-parsing!");
  }
  ctok_putString(text);
}

int pif_checkUninitializedToken() {
  if (fw.synchronization) {
    log_fatal(kSource, "pif_checkUninitializedToken called with synchronization ON!");
  }
  if (fw.readonly) {
    log_fatal(kSource, "pif_checkUninitializedToken called during readonly-parsing!");
  }
  return writing() && fw.output->ends_with("=\n") ? 1 : 0;
}

void pif_unputChar() {
  if (writing()) {
    fw.output->unput();
  }
}

void ctok_putString(const char* text) {
  ctok_putText(text != nullptr ? text : "");
}

void ctok_putText(std::string_view text) {
  if (fw.readonly) {
    log_fatal(kSource, "ctok_putString called during readonly-parsing!");
  }
  if (writing()) {
    fw.output->put(text);
  }
}

void ctok_putChar(int ch) {
  if (fw.readonly) {
    log_fatal(kSource, "ctok_putChar called during readonly-parsing!");
  }
  if (writing()) {
    fw.output->put(static_cast<char>(ch));
  }
}
