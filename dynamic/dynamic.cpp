// Dynamic groups, the file side: the directories, the names of data, pending and scratch files,
// templates and their substitution, and the list of pending files.
#include "dynamic/dynamic.h"

#include <fcntl.h>
#include <glib.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "base/handles.h"
#include "base/log.h"
#include "dynamic/dynamic_internal.h"
#include "mapping/quibmapping.h"
#include "movefile/movefile.h"

namespace {

constexpr size_t kLineStep = 80;
constexpr const char* kMarker = "#DO NOT REMOVE THIS LINE: ";

TmpListEntry* g_tmplist = nullptr;

[[noreturn]] void out_of_memory(const char* function) {
  log_fatal(kDynSource, "Memory allocation failed (in function %s).", function);
}

std::string root_name(std::string_view parentPath) {
  if (parentPath.size() >= 5 && strncasecmp(parentPath.data(), "root.", 5) == 0) {
    return std::string(parentPath);
  }
  return "root." + std::string(parentPath);
}

std::string last_component(std::string_view groupPath) {
  size_t dot = groupPath.rfind('.');
  return std::string(dot == std::string_view::npos ? groupPath : groupPath.substr(dot + 1));
}

// The marker written behind the line that held REPLACE_GROUP, naming the template by the base
// name of the file opened up to its last underscore; empty when that name has no such parts.
std::string marker_line(const std::string& opened, std::string_view groupPath) {
  size_t slash = opened.rfind('/');
  if (slash == std::string::npos) return {};
  std::string base = opened.substr(slash + 1);
  size_t underscore = base.rfind('_');
  if (underscore == std::string::npos) return {};
  return kMarker + std::string(groupPath) + " " + base.substr(0, underscore) + "\n";
}

// A quoted type option in a group template: its first quote becomes "\"dynamic:".
bool holds_quoted_type(const char* line) {
  static GRegex* const kTypePattern = g_regex_new("\\s*type\\s*=\\s*\\\"\\S*\\\"\\s*",
                                                  G_REGEX_OPTIMIZE, GRegexMatchFlags(0), nullptr);
  return g_regex_match(kTypePattern, line, GRegexMatchFlags(0), nullptr);
}

void replace_in_line(LineBuffer* line, const char* at, size_t length, const std::string& text) {
  line->text = replace_text(line->text, &line->capacity, at - line->text, length, text.c_str());
}

// Replaces the first placeholder found, tested in a fixed order. Returns whether the line held
// REPLACE_GROUP.
bool substitute_line(LineBuffer* line, std::string_view groupPath, const char* fileName) {
  std::string own = last_component(groupPath);
  bool heldGroup = false;
  if (const char* at = strstr(line->text, "REPLACE_GROUP")) {
    replace_in_line(line, at, 13, own);
    heldGroup = true;
  } else if (const char* at = strstr(line->text, "REPLACE_NBR")) {
    replace_in_line(line, at, 11, own.empty() ? own : own.substr(1));
  } else if (const char* at = fileName ? strstr(line->text, "REPLACE_FILE") : nullptr) {
    replace_in_line(line, at, 12, fileName);
  } else if (const char* at = strstr(line->text, "REPLACE")) {
    replace_in_line(line, at, 7, std::string(groupPath));
  }
  if (fileName != nullptr && holds_quoted_type(line->text)) {
    replace_in_line(line, strchr(line->text, '"'), 1, "\"dynamic:");
  }
  size_t length = strlen(line->text);
  if (length == 0 || line->text[length - 1] != '\n') {
    replace_in_line(line, line->text + length, 0, "\n");
  }
  return heldGroup;
}

// The group or parameter template TMPL, primary directory first; null when neither opens.
FILE* open_template(std::string_view tmpl, const char* suffix, std::string* opened) {
  for (const std::string* dir : {&dyn_dirs().tmpl, &dyn_dirs().tmplFallback}) {
    *opened = template_path(*dir, tmpl, suffix);
    if (FILE* f = fopen(opened->c_str(), "r")) return f;
  }
  return nullptr;
}

// The value of OPTION set in LINE: a quoted text behind the option name and an '='.
char* option_value_in_line(const char* line, const char* option) {
  const char* at = strstr(line, option);
  if (at == nullptr) return nullptr;
  const char* equals = strchr(at + strlen(option), '=');
  if (equals == nullptr) return nullptr;
  const char* open = strchr(equals + 1, '"');
  if (open == nullptr) return nullptr;
  const char* close = strchr(open + 1, '"');
  if (close == nullptr) return nullptr;
  char* value = strndup(open + 1, close - open - 1);
  if (value == nullptr) out_of_memory("get_option_from_template");
  return value;
}

// A new data file holds the header line only. It is written beside its final name and moved
// into place; a failure shows when the caller opens the file.
void create_data_file(const std::string& name) {
  std::string tmp = name + ".tmp";
  FILE* out = create_private_file(tmp);
  if (out == nullptr) return;
  fputs(kFileHeader, out);
  if (safe_close_file(&out, tmp.c_str()) == 0) move_file(tmp.c_str(), name.c_str());
}

}  // namespace

FILE* create_private_file(const std::string& path) {
  if (unlink(path.c_str()) != 0 && errno != ENOENT) {
    log_error(kDynSource, "Could not remove '%s': %m", path.c_str());
    return nullptr;
  }
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  FILE* out = fd >= 0 ? fdopen(fd, "w") : nullptr;
  if (out == nullptr) {
    log_error(kDynSource, "Could not create '%s': %m", path.c_str());
    if (fd >= 0) close(fd);
  }
  return out;
}

namespace {

bool is_own_regular(const struct stat& st) {
  return S_ISREG(st.st_mode) && st.st_uid == geteuid();
}

}  // namespace

FILE* open_own_file(const std::string& path) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (fd.get() < 0) {
    if (errno != ENOENT) log_error(kDynSource, "Could not open '%s': %m", path.c_str());
    return nullptr;
  }
  struct stat st {};
  if (fstat(fd.get(), &st) != 0 || !is_own_regular(st)) {
    log_error(kDynSource, "'%s' is not a file of the daemon's own, not read.", path.c_str());
    return nullptr;
  }
  FILE* in = fdopen(fd.get(), "r");
  if (in != nullptr) fd.release();
  return in;
}

bool is_own_file(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0 && is_own_regular(st);
}

DynamicDirs& dyn_dirs() {
  static DynamicDirs dirs;
  return dirs;
}

void dyn_setScratchDir(const char* dir) {
  dyn_dirs().scratch = dir;
}

int dyn_init(const char* tmplDir, const char* tmplFallbackDir, const char* groupDir,
             const char* paramDir) {
  DynamicDirs& dirs = dyn_dirs();
  dirs.tmpl = tmplDir;
  dirs.tmplFallback = tmplFallbackDir;
  dirs.group = groupDir;
  dirs.param = paramDir;
  if (create_directory(paramDir, "parameter") != 0) return -1;
  return create_directory(groupDir, "group");
}

int create_directory(const char* path, const char* label) {
  static constexpr const char* kFn = "create_directory";
  struct stat first {};
  if (stat(path, &first) != 0 && mkdir(path, 0775) != 0) {
    log_error(kDynSource, "%s, trouble creating the %s dir '%s': %m", kFn, label, path);
    return 1;
  }
  // Whatever exists at the path passes, a regular file included: only a path that cannot be
  // examined any more counts as a failure.
  struct stat again {};
  if (stat(path, &again) == 0 || S_ISDIR(first.st_mode)) return 0;
  log_error(kDynSource, "%s, trouble verifying the %s dir '%s': %m", kFn, label, path);
  return 1;
}

bool LineBuffer::read(FILE* in) {
  errno = 0;
  if (getline(&text, &capacity, in) >= 0) return true;
  if (errno == ENOMEM) out_of_memory(function);
  return false;
}

bool dyn_namesEqual(const char* a, const char* b) {
  return caseSensitive ? strcmp(a, b) == 0 : strcasecmp(a, b) == 0;
}

bool read_group_header(const char* line, char* name) {
  char first[64];
  return strstr(line, "group") != nullptr && sscanf(line, "%63s%63s", first, name) == 2;
}

void count_braces(const char* line, int* opens, int* closes) {
  for (const char* c = line; *c != '\0'; ++c) {
    if (*c == '{') ++*opens;
    if (*c == '}') ++*closes;
  }
}

std::vector<char*> parse_path(char* path) {
  std::vector<char*> components;
  if (strncmp(path, "root", 4) == 0) path += 4;
  for (char* dot = strchr(path, '.'); dot != nullptr; dot = strchr(dot + 1, '.')) {
    *dot = '\0';
    components.push_back(dot + 1);
  }
  return components;
}

std::string join_components(const std::vector<char*>& components, size_t count) {
  std::string joined;
  for (size_t i = 0; i < count && i < components.size(); ++i) {
    if (i > 0) joined += '.';
    joined += components[i];
  }
  return joined;
}

void normalize_file_name(std::string* path) {
  for (size_t i = 0; i < path->size(); ++i) {
    char& c = (*path)[i];
    c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    if (c == '.' && strncasecmp(path->c_str() + i + 1, "conf", 4) != 0) c = '_';
  }
}

std::string data_file_name(std::string_view parent, bool paramFile) {
  const DynamicDirs& dirs = dyn_dirs();
  std::string name = (paramFile ? dirs.param : dirs.group) + "/" + std::string(parent) + ".conf";
  normalize_file_name(&name);
  return name;
}

std::string pending_file_name(std::string_view parent, const char* kind) {
  std::string name = dyn_dirs().scratch + "/" + std::string(parent) + "_" + kind;
  normalize_file_name(&name);
  return name;
}

std::string scratch_file_name(const char* kind) {
  return dyn_dirs().scratch + "/" + kind;
}

std::string template_path(const std::string& dir, std::string_view tmpl, const char* suffix) {
  return dir + "/" + std::string(tmpl) + suffix;
}

FILE* get_file(std::string_view parent, std::string* path, bool paramFile, bool noCreate) {
  path->clear();
  std::string name = data_file_name(parent, paramFile);
  FILE* in = fopen(name.c_str(), "r");
  if (in == nullptr && !noCreate) {
    if (errno == ENOENT) create_data_file(name);
    in = fopen(name.c_str(), "r");
    if (in == nullptr) {
      log_error(kDynSource, "%s, Couldn't open file: %s! (%m)", "get_file", name.c_str());
      return nullptr;
    }
  }
  *path = std::move(name);
  return in;
}

int merge_text(FILE* out, const std::string& tmpl, const std::string& fallback,
               std::string_view groupPath, const char* fileName) {
  static constexpr const char* kFn = "merge_text";
  std::string opened = tmpl;
  UniqueFile in(fopen(tmpl.c_str(), "r"));
  if (!in) {
    opened = fallback;
    in.reset(fopen(fallback.c_str(), "r"));
  }
  if (!in) {
    log_error(kDynSource, "%s, fopen() failed on '%s': %m", kFn, fallback.c_str());
    return -1;
  }
  std::string marker = marker_line(opened, groupPath);
  LineBuffer line(kFn);
  while (line.read(in.get())) {
    bool heldGroup = substitute_line(&line, groupPath, fileName);
    if (fputs(line.text, out) == EOF ||
        (heldGroup && !marker.empty() && fputs(marker.c_str(), out) == EOF)) {
      log_error(kDynSource, "%s, fputs() failed!", kFn);
      return -1;
    }
  }
  return 0;
}

char* replace_text(char* line, size_t* capacity, size_t position, size_t length, const char* text) {
  size_t oldLength = strlen(line);
  size_t textLength = strlen(text);
  size_t needed = oldLength - length + textLength + 1;
  size_t size = *capacity;
  while (size < needed) size += kLineStep;
  char* result = static_cast<char*>(malloc(size));
  if (result == nullptr) out_of_memory("replace_text");
  memcpy(result, line, position);
  // The copy after it brings the rest of the line with its NUL.
  memcpy(result + position, text, textLength);  // NOLINT(bugprone-not-null-terminated-result)
  memcpy(result + position + textLength, line + position + length,
         oldLength - position - length + 1);
  free(line);
  *capacity = size;
  return result;
}

int get_option_from_template(const char* tmpl, const char* option, char** value) {
  if (tmpl == nullptr) return 2;
  std::string opened;
  UniqueFile in(open_template(tmpl, kGrpSuffix, &opened));
  if (!in) return 2;
  CString found;
  LineBuffer line("get_option_from_template");
  while (!found && option != nullptr && line.read(in.get())) {
    found.reset(option_value_in_line(line.text, option));
  }
  *value = found.release();
  return 0;
}

TmpListEntry* dyn_tmplistHead() {
  return g_tmplist;
}

TmpListEntry* get_tmplist(std::string_view parentPath) {
  std::string name = root_name(parentPath);
  for (TmpListEntry* entry = g_tmplist; entry != nullptr; entry = entry->next) {
    if (dyn_namesEqual(entry->name.c_str(), name.c_str())) return entry;
  }
  return nullptr;
}

TmpListEntry* add_tmplist(std::string_view parentPath, std::string_view groupFile,
                          std::string_view paramFile, std::string_view tmpGroupFile,
                          std::string_view tmpParamFile) {
  auto* entry = new (std::nothrow) TmpListEntry{g_tmplist,
                                                root_name(parentPath),
                                                std::string(tmpGroupFile),
                                                std::string(tmpParamFile),
                                                std::string(groupFile),
                                                std::string(paramFile)};
  if (entry == nullptr) out_of_memory("add_tmplist");
  g_tmplist = entry;
  return entry;
}

void remove_tmplist(TmpListEntry* entry) {
  for (TmpListEntry** link = &g_tmplist; *link != nullptr; link = &(*link)->next) {
    if (*link != entry) continue;
    *link = entry->next;
    remove(entry->tmpGroupFile.c_str());
    remove(entry->tmpParamFile.c_str());
    delete entry;
    return;
  }
}
