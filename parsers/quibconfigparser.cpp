#include "parsers/quibconfigparser.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "base/handles.h"
#include "base/log.h"
#include "mapping/quibmapping.h"
#include "parsers/parserutil.h"
#include "values/legacydatarep.h"

namespace {

constexpr const char* kSource = "quibconfigparser";

enum TokenKind { kString = 0, kPunctuation = 1, kEndOfInput = 2 };
enum Punctuation { kEquals = 0, kOpen = 1, kClose = 2 };

constexpr size_t kTokenMinCapacity = 128;
constexpr size_t kParamFileFieldSize = 100;
constexpr size_t kMountMax = 200;
constexpr size_t kListLineMax = 255;

struct Token {
  std::string text;
  int kind = kEndOfInput;
  int punctuation = 0;
};

// State of one configuration file being read; included files replace the source only.
struct ParseState {
  InputSource* source = nullptr;
  bool end_of_input = false;
  char current = '\0';
  Token token;
  Group* group = nullptr;
  int additive = 1;
  const char* file_name = nullptr;    // the file given to config_parseFile, also inside includes
  const char* source_name = nullptr;  // the file being read: file_name or an included file
  int line = 1;                       // of the current character in source_name
  int token_line = 1;                 // where the current token begins
  ConfigReport* report = nullptr;     // null: grammar errors are fatal
};

// --- Tokenizer ----------------------------------------------------------------------------------

bool at_end(const ParseState& state) {
  return state.source->position >= state.source->length;
}

void load_char(ParseState* state) {
  state->current = at_end(*state) ? '\0' : state->source->data[state->source->position];
}

// A mapped file's pages are handed back once read (the parser never looks back), so that a large
// configuration does not add its size to the daemon's peak memory while it loads.
constexpr uint64_t kReleaseStep = 256 * 1024;

void release_read_pages(InputSource* source) {
  madvise(const_cast<char*>(source->data) + source->released, kReleaseStep, MADV_DONTNEED);
  source->released += kReleaseStep;
}

void advance(ParseState* state) {
  if (state->current == '\n') state->line++;
  InputSource* source = state->source;
  source->position++;
  if (source->mapped && source->position - source->released > kReleaseStep) {
    release_read_pages(source);
  }
  load_char(state);
}

bool is_letter(char c) {
  return isalpha(static_cast<unsigned char>(c)) != 0;
}

// Skips white space and comments; false at the end of the data.
bool skip_blanks(ParseState* state) {
  while (!at_end(*state)) {
    if (isspace(static_cast<unsigned char>(state->current))) {
      advance(state);
    } else if (state->current == '#') {
      while (!at_end(*state) && state->current != '\n') advance(state);
    } else {
      return true;
    }
  }
  return false;
}

void read_identifier(ParseState* state) {
  std::string& text = state->token.text;
  text.clear();
  while (!at_end(*state) &&
         (isalnum(static_cast<unsigned char>(state->current)) || state->current == '_')) {
    text += state->current;
    advance(state);
  }
  state->token.kind = kString;
}

// Up to the next quote not directly behind a backslash; backslashes stay in the text.
void read_quoted(ParseState* state) {
  std::string& text = state->token.text;
  text.clear();
  advance(state);
  char previous = '\0';
  while (!at_end(*state)) {
    char c = state->current;
    advance(state);
    if (c == '"' && previous != '\\') break;
    text += c;
    previous = c;
  }
  state->token.kind = kString;
}

void read_punctuation(ParseState* state, int code) {
  state->token.text.assign(1, state->current);
  state->token.kind = kPunctuation;
  state->token.punctuation = code;
  advance(state);
}

// Any other character makes no token: the previous token stays current and the position does not
// move, so values that do not begin with a letter must be quoted.
void config_nextToken(ParseState* state) {
  if (!skip_blanks(state)) {  // an error at the end names the line of the last token
    state->end_of_input = true;
    state->token.kind = kEndOfInput;
    state->token.text.clear();
    return;
  }
  state->token_line = state->line;
  char c = state->current;
  if (is_letter(c)) {
    read_identifier(state);
  } else if (c == '"') {
    read_quoted(state);
  } else if (c == '=') {
    read_punctuation(state, kEquals);
  } else if (c == '{') {
    read_punctuation(state, kOpen);
  } else if (c == '}') {
    read_punctuation(state, kClose);
  }
}

void start_source(ParseState* state, InputSource* source, const char* name) {
  state->source = source;
  state->source_name = name;
  state->line = 1;
  state->end_of_input = false;
  load_char(state);
  state->token.text.reserve(kTokenMinCapacity);
  config_nextToken(state);
}

bool is_punctuation(const ParseState& state, int code) {
  return state.token.kind == kPunctuation && state.token.punctuation == code;
}

bool is_string(const ParseState& state) {
  return state.token.kind == kString;
}

const char* token_text(const ParseState& state) {
  return state.token.text.c_str();
}

// Keeps the first error of a parse with a report, at the current token.
void record_error(ParseState* state, const char* message) {
  if (state->report == nullptr || !state->report->error.message.empty()) return;
  state->report->error = {state->source_name, state->token_line, message};
}

// A grammar error: logged as an error and, with a report, recorded (the first one only: the items
// that enclose it fail in turn). The file is refused, never the process ended: group files are
// written from client requests and loaded by READ_FILE. Returns false for the caller to return.
bool grammar_error(ParseState* state, const char* format, ...) TESSARD_PRINTF(2, 3);
bool grammar_error(ParseState* state, const char* format, ...) {
  char message[1024];
  va_list args;
  va_start(args, format);
  vsnprintf(message, sizeof message, format, args);
  va_end(args);
  log_error(kSource, "%s", message);
  record_error(state, message);
  return false;
}

void note_declaration(ParseState* state, const Param* param) {
  if (state->report != nullptr) {
    state->report->params.push_back({param->path, state->source_name, state->token_line});
  }
}

// --- Items --------------------------------------------------------------------------------------

bool parse_body(ParseState* state);

// For a group declared again: read its parameters back without writing any file, then drop those
// that no backing file provides any more.
void reload_group(Group* group) {
  int previous = map_setWriteBack(0);
  map_syncGroup(group, 0);
  map_setWriteBack(previous);
  Param* param = group->params;
  while (param != nullptr) {
    Param* next = param->next;
    if (param->status == PARAMSTATUS_DEFINED && !param->hasGetter) {
      log_info(kSource, "Removing param '%s'", param->path);
      map_deleteParam(param);
    }
    param = next;
  }
}

// Enters the group named by the token; *redeclared tells whether it existed and must be read back.
// False when it cannot be made.
bool enter_group(ParseState* state, bool* redeclared) {
  Group* group = nullptr;
  int result = map_addGroup(token_text(*state), state->group, &group);
  if (result != 0 && result != -1) {
    return grammar_error(state, "Couldn't create group: %s!", token_text(*state));
  }
  state->group = group;
  *redeclared = result != 0 && !state->additive;
  if (!*redeclared) return true;
  for (Param* param = group->params; param != nullptr; param = param->next) {
    if (param->status != PARAMSTATUS_UPDATED) map_setParamStatusDefined(param);
  }
  return true;
}

bool parse_group(ParseState* state) {
  config_nextToken(state);
  if (!is_string(*state)) return grammar_error(state, "%s: Expected groupname!", state->file_name);
  Group* enclosing = state->group;
  bool redeclared = false;
  if (!enter_group(state, &redeclared)) return false;
  Group* group = state->group;
  config_nextToken(state);
  if (!is_punctuation(*state, kOpen)) {
    return grammar_error(state, "%s: Expected '{' after group %s!", state->file_name, group->path);
  }
  config_nextToken(state);
  if (!parse_body(state)) return grammar_error(state, "Error in group members!");
  if (!is_punctuation(*state, kClose)) {
    return grammar_error(state, "%s: Expected '}' to end group %s!", state->file_name, group->path);
  }
  config_nextToken(state);
  if (redeclared) reload_group(group);
  state->group = enclosing;
  return true;
}

Param* enter_param(ParseState* state) {
  Param* param = map_findParamInGroup(token_text(*state), state->group);
  if (param != nullptr) {
    if (!state->additive) legacy_drep_resetData(&param->value);  // read again later
    return param;
  }
  if (map_createParam(token_text(*state), state->group, &param) != 0) {
    grammar_error(state, "Couldn't create parameter!");
    return nullptr;
  }
  return param;
}

bool parse_param(ParseState* state) {
  config_nextToken(state);
  if (!is_string(*state)) return grammar_error(state, "%s: Expected paramname!", state->file_name);
  Param* param = enter_param(state);
  note_declaration(state, param);
  config_nextToken(state);
  if (!is_punctuation(*state, kOpen)) {
    return grammar_error(state, "%s: Expected '{' after param %s!", state->file_name, param->path);
  }
  config_nextToken(state);
  while (is_string(*state)) {
    std::string name = state->token.text;
    config_nextToken(state);
    if (!is_punctuation(*state, kEquals)) {
      return grammar_error(state, "%s: Expected '=' after param %s optionname %s.",
                           state->file_name, param->path, name.c_str());
    }
    config_nextToken(state);
    if (!is_string(*state))
      return grammar_error(state, "%s: Expected option value.", state->file_name);
    if (map_setParamOption(name.c_str(), token_text(*state), param) != 0) {
      log_error(kSource, "Couldn't add option to parameter!");
      return false;
    }
    config_nextToken(state);
  }
  if (map_getParamOption(param, "getter") != nullptr && map_applyGetter(param) != 0) return false;
  if (!is_punctuation(*state, kClose)) {
    return grammar_error(state, "%s: Expected '}' to end param %s!", state->file_name, param->path);
  }
  config_nextToken(state);
  return true;
}

// --- Parameter list files -----------------------------------------------------------------------

bool set_list_option(Param* param, const char* name, const char* value) {
  if (map_setParamOption(name, value, param) == 0) return true;
  log_error(kSource, "Couldn't add option to parameter!");
  return false;
}

struct ListFile {
  const char* path;
  const char* parser;
  std::string prefix;  // the parser name without its "parser" suffix
  Group* home;         // the group that was current at the paramfile
  Group* group;        // the group of the last section line
  ConfigReport* report;
  int line;  // of the line being read
};

void add_list_param(ListFile* list, const std::string& type, const std::string& name) {
  Param* param = map_findParamInGroup(name.c_str(), list->group);
  if (param == nullptr && map_createParam(name.c_str(), list->group, &param) != 0) {
    log_error(kSource, "Couldn't create parameter!");
    return;
  }
  char mount[kMountMax + 1];
  snprintf(mount, sizeof mount, "%s{%s}{%s}", list->prefix.c_str(), list->group->name,
           name.c_str());
  set_list_option(param, "file", list->path);
  set_list_option(param, "parser", list->parser);
  set_list_option(param, "mount", mount);
  set_list_option(param, "type", type.c_str());
  if (list->report != nullptr)
    list->report->params.push_back({param->path, list->path, list->line});
}

void enter_list_section(ListFile* list, const std::string& line) {
  size_t end = line.find(']', 1);
  std::string name = line.substr(1, end == std::string::npos ? std::string::npos : end - 1);
  int result = map_addGroup(name.c_str(), list->home, &list->group);
  // Entries up to the next section line that can be made then go to the last group made.
  if (result != 0 && result != -1) log_error(kSource, "Couldn't create group: %s!", name.c_str());
}

// TYPE, blanks, NAME, blanks, VALUE; the value itself comes from the backing file later.
void read_list_param(ListFile* list, const std::string& line) {
  size_t type_end = line.find(' ');
  if (type_end == std::string::npos) return;
  size_t name_start = line.find_first_not_of(' ', type_end);
  if (name_start == std::string::npos) return;
  size_t name_end = line.find(' ', name_start);
  if (name_end == std::string::npos) return;
  add_list_param(list, line.substr(0, type_end), line.substr(name_start, name_end - name_start));
}

void read_list_line(ListFile* list, const std::string& line, int number) {
  if (line.size() < 2) return;
  if (line.size() > kListLineMax) {
    log_error(kSource, "%s: line %d is longer than %zu characters, skipped.", list->path, number,
              kListLineMax);
    return;
  }
  list->line = number;
  if (line[0] == '[') {
    enter_list_section(list, line);
  } else if (line[0] != '#' && line[0] != ';') {
    read_list_param(list, line);
  }
}

void read_param_list(const char* path, const char* parser, Group* home, ConfigReport* report) {
  if (strcmp(parser, "Camsettingsparser") != 0) {
    puts("ERROR: Only Camsettingsparser supported for paramfile!");
    return;
  }
  UniqueFile file(fopen(path, "r"));
  if (!file) {
    printf("Failed to open %s\n", path);
    return;
  }
  ListFile list{path,   parser, std::string(parser, strlen(parser) - strlen("parser")), home, home,
                report, 0};
  char* buffer = nullptr;
  size_t capacity = 0;
  ssize_t length;
  for (int number = 1; (length = getline(&buffer, &capacity, file.get())) >= 0; number++) {
    std::string line(buffer, length);
    if (!line.empty() && line.back() == '\n') line.pop_back();
    read_list_line(&list, line, number);
  }
  free(buffer);
}

void copy_field(char (&field)[kParamFileFieldSize], const std::string& value) {
  copy_cut(field, sizeof field, value.c_str());
}

bool parse_paramfile(ParseState* state) {
  const char* group_path = state->group->path;
  config_nextToken(state);
  if (!is_punctuation(*state, kOpen)) {
    return grammar_error(state, "%s: Expected '{'after paramfile %s!", state->file_name,
                         group_path);
  }
  config_nextToken(state);
  char file[kParamFileFieldSize] = "";
  char parser[kParamFileFieldSize] = "";
  while (is_string(*state)) {
    std::string name = state->token.text;
    config_nextToken(state);
    if (!is_punctuation(*state, kEquals)) {
      return grammar_error(state, "%s: Expected '=' after paramfile %s optionname.",
                           state->file_name, group_path);
    }
    config_nextToken(state);
    if (!is_string(*state)) {
      return grammar_error(state, "%s: Expected option value in %s.", state->file_name, group_path);
    }
    if (name == "file") {
      copy_field(file, state->token.text);
    } else if (name == "parser") {
      copy_field(parser, state->token.text);
    } else {
      printf("## Unknokn token: %s for paramfile\n", name.c_str());
    }
    config_nextToken(state);
  }
  read_param_list(file, parser, state->group, state->report);
  if (!is_punctuation(*state, kClose)) {
    return grammar_error(state, "%s: Expected '}' to end paramfile %s!", state->file_name,
                         group_path);
  }
  config_nextToken(state);
  return true;
}

// --- include ------------------------------------------------------------------------------------

enum class ItemsResult { kDone, kNotAnItem, kFailed };

// Items of a file (or included file) until its end.
ItemsResult parse_items(ParseState* state) {
  while (!state->end_of_input) {
    if (!is_string(*state)) {
      log_error(kSource, "%s: Expected token string before reading group members.",
                state->file_name);
      std::string message =
          std::string(state->file_name) + ": Expected token string before reading group members.";
      record_error(state, message.c_str());
      return ItemsResult::kNotAnItem;
    }
    if (!parse_body(state)) return ItemsResult::kFailed;
  }
  return ItemsResult::kDone;
}

// The included file ends the including one as well: its end-of-input state is kept, so include
// is the last item of a file.
bool parse_include(ParseState* state) {
  config_nextToken(state);
  std::string path = state->token.text;
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0)
    return grammar_error(state, "Couldn't open included configuration file: %s!", path.c_str());
  InputSource* included = mmap_fd(fd.get());
  if (included == nullptr) {
    log_error(kSource, "Could not map file '%s' into memory (%m)", path.c_str());
    record_error(state, ("Could not map file '" + path + "' into memory").c_str());
    return false;
  }
  ParseState including = *state;
  start_source(state, included, path.c_str());
  bool ok = parse_items(state) == ItemsResult::kDone;
  config_unmapSource(included);
  state->source = including.source;
  state->current = including.current;
  state->source_name = including.source_name;
  state->line = including.line;
  return ok;
}

// --- Bodies -------------------------------------------------------------------------------------

bool parse_group_option(ParseState* state) {
  std::string name = state->token.text;
  config_nextToken(state);
  if (!is_punctuation(*state, kEquals)) {
    return grammar_error(state, "%s: Expected '=' after group %s optionname.", state->file_name,
                         state->group->path);
  }
  config_nextToken(state);
  if (!is_string(*state))
    return grammar_error(state, "%s: Expected option value.", state->file_name);
  if (map_setGroupOption(name.c_str(), token_text(*state), state->group, 0) != 0) {
    log_error(kSource, "Couldn't add option to group!");
    return false;
  }
  config_nextToken(state);
  return true;
}

// Items up to a "}" (left to the enclosing item) or the end of the input. After a group option
// only group and param are keywords: an include or paramfile there is read as an option name.
bool parse_body(ParseState* state) {
  bool all_keywords = true;
  while (is_string(*state)) {
    const std::string& word = state->token.text;
    bool ok;
    if (word == "group") {
      ok = parse_group(state);
    } else if (word == "param") {
      ok = parse_param(state);
    } else if (all_keywords && word == "paramfile") {
      ok = parse_paramfile(state);
    } else if (all_keywords && word == "include") {
      ok = parse_include(state);
    } else {
      ok = parse_group_option(state);
      all_keywords = false;
      if (!ok) return false;
      continue;
    }
    if (!ok) return false;
    all_keywords = true;
  }
  return true;
}

ItemsResult parse_source(InputSource* source, const char* path, int additive,
                         ConfigReport* report) {
  ParseState state;
  state.group = map_getRootGroup();
  state.additive = additive;
  state.file_name = path;
  state.report = report;
  start_source(&state, source, path);
  ItemsResult result = parse_items(&state);
  if (result == ItemsResult::kFailed)
    log_error(kSource, "Couldn't parse configuration file: %s!", path);
  return result;
}

int parse_mapped_file(InputSource* source, const char* path, int additive, ConfigReport* report) {
  ItemsResult result = parse_source(source, path, additive, report);
  if (config_unmapSource(source) != 0 && result == ItemsResult::kDone) {
    log_error(kSource, "Unmapping file '%s' failed! (%m)", path);
  }
  return result == ItemsResult::kDone ? 0 : 1;
}

}  // namespace

InputSource* mmap_fd(int fd) {
  struct stat status;
  if (fstat(fd, &status) != 0) {
    log_error(kSource, "Couldn't get status from filedescriptor! (%m)");
    return nullptr;
  }
  auto* source = new (std::nothrow) InputSource{};
  if (source == nullptr) {
    log_error(kSource, "Memory allocation failed (in function %s).", "mmap_fd");
    return nullptr;
  }
  void* data = mmap(nullptr, status.st_size, PROT_READ, MAP_SHARED, fd, 0);
  if (data == MAP_FAILED) {
    delete source;
    return nullptr;
  }
  source->data = static_cast<const char*>(data);
  source->length = status.st_size;
  source->mapped = true;
  return source;
}

int config_unmapSource(InputSource* source) {
  int result = munmap(const_cast<char*>(source->data), source->length);
  delete source;
  return result;
}

int config_parseFile(const char* path, int additive) {
  return config_parseFileReporting(path, additive, nullptr);
}

int config_parseText(std::string_view text, const char* name, int additive, ConfigReport* report) {
  if (name == nullptr || map_getRootGroup() == nullptr) return 1;
  InputSource source{text.data(), text.size(), 0};
  return parse_source(&source, name, additive, report) == ItemsResult::kDone ? 0 : 1;
}

int config_parseFileReporting(const char* path, int additive, ConfigReport* report) {
  if (path == nullptr || map_getRootGroup() == nullptr) return 1;
  if (strcmp(path, "/dev/null") == 0) return 0;
  UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) {
    if (errno == ENOENT) {
      log_error(kSource, "Couldn't open configuration file: %s! Does not exist.", path);
      return 0;
    }
    log_error(kSource, "Couldn't open configuration file: %s! (%m)", path);
    return 1;
  }
  if (flock(fd.get(), LOCK_EX) != 0) {
    log_error(kSource, "Failed to lock file %s: %m\n", path);
    return 1;
  }
  int result = 1;
  if (InputSource* source = mmap_fd(fd.get())) {
    result = parse_mapped_file(source, path, additive, report);
  } else {
    log_error(kSource, "Could not map file '%s' into memory (%m)", path);
  }
  if (flock(fd.get(), LOCK_UN) != 0) log_error(kSource, "Failed to unlock file %s: %m\n", path);
  return result;
}
