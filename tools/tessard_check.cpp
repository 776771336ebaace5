// The checks of tessard-check. The configuration is loaded as the daemon loads it at start-up
// (the same parser, database and backing-file parsers), except that every step that would write
// is left out: backing files are read with the parsers in read mode, missing files are reported
// instead of created, and the round trip runs a parser's write mode into memory only.
#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "base/handles.h"
#include "base/log.h"
#include "dynamic/dynamic_internal.h"
#include "mapping/getters.h"
#include "mapping/quibmapping.h"
#include "parsers/mappinginterface.h"
#include "parsers/parserframework.h"
#include "parsers/quibconfigparser.h"
#include "tools/tessard_check.h"
#include "values/legacydatarep.h"

namespace {

constexpr const char* kTemplateDirs[] = {"/usr/etc/sysconfig/template", "/etc/sysconfig/template"};
constexpr std::string_view kGroupTemplateSuffix = "_grp.conf";
constexpr std::string_view kValueTemplateSuffix = "_par.conf";
constexpr int kFirstCheckGroup = 9000;  // checked templates become root.T9000, root.T9001, ...
constexpr const char* kCheckValueFile = "/etc/dynamic/check.conf";

// What the daemon's code logged since the last take_log().
std::vector<std::string>& logged() {
  static std::vector<std::string> lines;
  return lines;
}

constexpr std::string_view kFatalMarker = "Last error fatal. Exit.";

std::vector<Finding>* current_findings = nullptr;
void (*on_fatal)(const std::vector<Finding>&) = nullptr;

// The configuration parser prints its complaints about parameter list files on standard output.
// While it runs, standard output goes to memory; the lines become findings.
class StdoutCapture {
 public:
  StdoutCapture() {
    fflush(stdout);
    memory_ = memfd_create("tessard-check-stdout", MFD_CLOEXEC);
    saved_ = memory_ >= 0 ? dup(STDOUT_FILENO) : -1;
    if (saved_ >= 0) dup2(memory_, STDOUT_FILENO);
    active() = this;
  }
  ~StdoutCapture() {
    restore();
    if (memory_ >= 0) close(memory_);
    active() = nullptr;
  }
  StdoutCapture(const StdoutCapture&) = delete;
  StdoutCapture& operator=(const StdoutCapture&) = delete;

  void restore() {
    fflush(stdout);
    if (saved_ < 0) return;
    dup2(saved_, STDOUT_FILENO);
    close(saved_);
    saved_ = -1;
  }
  // What was printed, one line per element.
  std::vector<std::string> lines() {
    restore();
    std::vector<std::string> lines;
    std::unique_ptr<FILE, int (*)(FILE*)> in(memory_ >= 0 ? fdopen(dup(memory_), "r") : nullptr,
                                             fclose);
    if (!in) return lines;
    rewind(in.get());
    char line[1024];
    while (fgets(line, sizeof line, in.get()) != nullptr) {
      lines.emplace_back(line, strcspn(line, "\n"));
    }
    return lines;
  }
  static StdoutCapture*& active() {
    static StdoutCapture* capture = nullptr;
    return capture;
  }

 private:
  int memory_ = -1;
  int saved_ = -1;
};

// log_fatal logs its message and then the marker, and exits when the sink returns.
void collect(int /*priority*/, const char* message) {
  if (message != kFatalMarker || current_findings == nullptr) {
    logged().emplace_back(message);
    return;
  }
  std::string last = logged().empty() ? "" : logged().back();
  current_findings->push_back({"fatal", "", 0, last + " (the daemon would end here)", ""});
  if (StdoutCapture::active() != nullptr) StdoutCapture::active()->restore();
  if (on_fatal != nullptr) on_fatal(*current_findings);
}

std::vector<std::string> take_log() {
  std::vector<std::string> lines;
  lines.swap(logged());
  return lines;
}

std::string joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += (text.empty() ? "" : "; ") + line;
  return text;
}

struct Location {
  std::string file;
  int line = 0;
};

class Checker {
 public:
  explicit Checker(std::vector<Finding>* findings) : findings_(findings) {}

  void load(const CheckRequest& request);
  void check_parameters(Group* group);
  void check_round_trips();
  void check_templates();

 private:
  void add(const char* kind, const Location& where, const std::string& message,
           std::string diff = "") {
    findings_->push_back({kind, where.file, where.line, message, std::move(diff)});
  }
  void load_file(const std::string& path);
  void load_dir(const std::string& dir);
  Location declared(const Param* param) const;
  bool usable_backing_file(Param* param, std::string* path);
  bool check_binding(Param* param, const std::string& path);
  void read_value(Param* param, Group* group, const std::string& path);
  void check_group_template(const std::string& path);
  void check_value_template(const std::string& path, const std::string& group_path);

  std::vector<Finding>* findings_;
  std::map<std::string, Location> declarations_;  // parameter path: first declaration
  // Per backing file: each mount bound so far and the path of the parameter bound to it.
  std::map<std::string, std::vector<std::pair<std::string, std::string>>> bindings_;
  std::set<std::string> bad_files_;      // reported once, not read
  std::map<std::string, Param*> files_;  // readable backing files: a parameter of each
  int templates_ = 0;                    // checked so far
};

Location Checker::declared(const Param* param) const {
  auto found = declarations_.find(param->path);
  return found != declarations_.end() ? found->second : Location{};
}

void Checker::load_file(const std::string& path) {
  ConfigReport report;
  take_log();
  if (config_parseFileReporting(path.c_str(), 1, &report) != 0) {
    const ConfigDiagnostic& error = report.error;
    if (!error.message.empty()) {
      add("grammar", {error.file, error.line}, error.message);
    } else {
      add("grammar", {path, 0}, joined(take_log()));
    }
  }
  for (const ConfigDeclaration& d : report.params)
    declarations_.try_emplace(d.path, Location{d.file, d.line});
}

// Every file below dir, as the daemon's -d reads them (symbolic links to files included).
void Checker::load_dir(const std::string& dir) {
  UniqueDir handle(opendir(dir.c_str()));
  if (!handle) {
    add("file", {dir, 0}, "Failed to opendir(" + dir + ")");
    return;
  }
  std::set<std::string> names;  // sorted, so that findings come in a stable order
  while (const dirent* entry = readdir(handle.get())) {
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
      names.insert(entry->d_name);
    }
  }
  for (const std::string& name : names) {
    std::string path = dir + (dir.ends_with('/') ? "" : "/") + name;
    struct stat st;
    if (stat(path.c_str(), &st) != 0) continue;
    if (S_ISDIR(st.st_mode)) {
      load_dir(path);
    } else if (S_ISREG(st.st_mode)) {
      load_file(path);
    }
  }
}

void Checker::load(const CheckRequest& request) {
  StdoutCapture printed;
  load_file(request.config);
  for (const std::string& dir : request.dirs) load_dir(dir);
  for (const std::string& line : printed.lines()) add("file", {}, line);
}

// Whether the parameter's backing file can be read; reports why not (once per file).
bool Checker::usable_backing_file(Param* param, std::string* path) {
  Option* parser = map_getParamOption(param, "parser");
  if (parser == nullptr || parser_find(parser->value) == nullptr) {
    take_log();
    // Stops at the unknown parser, before it looks at the file: the daemon's own message.
    parser_invokeForParam(param, param->group->path, 1);
    add("parser", declared(param), joined(take_log()));
    return false;
  }
  Option* file = map_getParamOption(param, "file");
  if (file == nullptr) {
    add("file", declared(param), std::string(param->path) + " has no file option");
    return false;
  }
  char resolved[PATH_MAX];
  *path = realpath(file->value, resolved) != nullptr ? resolved : file->value;
  if (bad_files_.contains(*path)) return false;
  int fd = open(path->c_str(), O_RDONLY | O_CLOEXEC);
  if (fd >= 0) {
    close(fd);
    return true;
  }
  bad_files_.insert(*path);
  int error = errno;
  std::string dir = path->substr(0, path->rfind('/') + 1);
  struct stat st;
  if (error == ENOENT &&
      (stat(dir.empty() ? "." : dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))) {
    add("file", declared(param),
        "Backing file " + *path + " of " + param->path +
            " does not exist, and the daemon cannot create it: its directory is missing");
  } else if (error == ENOENT) {
    add("file", declared(param),
        "Backing file " + *path + " of " + param->path +
            " does not exist; the daemon would create it empty");
  } else {
    add("file", declared(param),
        "Couldn't open file '" + *path + "' for input!: " + errno_text(error));
  }
  return false;
}

// Whether the place `inner` lies within `outer` (or is it): its mount continues outer's with
// further sections.
bool within(std::string_view inner, std::string_view outer) {
  return inner.starts_with(outer) && (inner.size() == outer.size() || inner[outer.size()] == '{');
}

// False for a parameter bound to the place of an earlier one, or to a place inside it or around
// it (reported): only one of them can take the value there.
bool Checker::check_binding(Param* param, const std::string& path) {
  Option* mount = map_getParamOption(param, "mount");
  if (mount == nullptr) return true;
  auto& bound = bindings_[path];
  for (const auto& [other, other_path] : bound) {
    if (!within(mount->value, other) && !within(other, mount->value)) continue;
    std::string how = other == mount->value ? " is bound to the same place as "
                                            : " is bound to a place inside or around that of ";
    add("binding", declared(param),
        std::string(param->path) + how + other_path + " (" + path + ", mount " + mount->value +
            (other == mount->value ? "" : " and " + other) + ")");
    return false;
  }
  bound.emplace_back(mount->value, param->path);
  return true;
}

std::string value_text(const Param* param) {
  char buffer[4096] = "";
  if (param->value == nullptr ||
      legacy_drep_getCustomStringToBuffer(param->value, buffer, sizeof buffer) != 0) {
    return "";
  }
  return buffer;
}

// The check pass of one parameter as the daemon's start-up runs it, read-only, with the value
// looked at before and after its constraint.
void Checker::read_value(Param* param, Group* group, const std::string& path) {
  if (param->status == PARAMSTATUS_DEFINED && !param->synced) {
    take_log();
    if (parser_invokeForParam(param, group->path, 1) != 0) {
      mif_reset();
      std::vector<std::string> lines = take_log();
      std::string why = lines.empty() ? "" : ": " + joined(lines);
      if (bad_files_.insert(path).second) {
        add("parser", declared(param), "The parser could not read " + path + why);
      }
      return;
    }
  }
  if (!param->synced) {
    Option* mount = map_getParamOption(param, "mount");
    add("mount", declared(param),
        std::string(param->path) + ": mount " + (mount ? mount->value : "(none)") +
            " is found nowhere in " + path);
    return;
  }
  if (param->status == PARAMSTATUS_DEFINED) {
    std::string before = value_text(param);
    take_log();
    map_checkParamConstraint(param, 1);
    for (const std::string& line : take_log()) {
      if (line.find("received a value out of range") == std::string::npos) continue;
      add("constraint", declared(param),
          line + " (" + path + " holds " + before + ", the daemon would store " +
              value_text(param) + ")");
    }
  }
  param->status = PARAMSTATUS_LOADED;
  param->synced = 0;
}

void Checker::check_parameters(Group* group) {
  for (Param* param = group->params; param != nullptr; param = param->next) {
    if (param->hasGetter) continue;  // the getter's output, no file
    std::string path;
    if (!usable_backing_file(param, &path)) continue;
    if (!check_binding(param, path)) continue;
    if (param->value != nullptr) param->value->mark = nullptr;
    read_value(param, group, path);
    if (param->status == PARAMSTATUS_LOADED) files_.try_emplace(path, param);
  }
  for (Group* child = group->children; child != nullptr; child = child->next) {
    check_parameters(child);
  }
}

bool read_text(const std::string& path, std::string* text) {
  std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(path.c_str(), "r"), fclose);
  if (!file) return false;
  char chunk[8192];
  size_t got;
  while ((got = fread(chunk, 1, sizeof chunk, file.get())) > 0) text->append(chunk, got);
  return ferror(file.get()) == 0;
}

// What the daemon's first write of each file would make of it when no value changed: the
// parser's write mode over the file with every parameter loaded, into memory.
void Checker::check_round_trips() {
  for (const auto& [path, param] : files_) {
    std::string text, output;
    if (!read_text(path, &text)) continue;
    const ParserEntry* parser = parser_find(map_getParamOption(param, "parser")->value);
    take_log();
    int result =
        parser_runOnText(parser->parse, text, path.c_str(), param->group->path, 0, &output);
    mif_reset();
    take_log();
    if (result != 0 || output == text) continue;
    int line = 0;
    std::string diff = unified_diff(text, output, path, path + " (as the daemon writes it)", &line);
    add("roundtrip", {path, line}, "the first write changes this file although no value changed",
        diff);
  }
}

// The template at path substituted as the daemon substitutes it for the group at group_path
// (without "root."); file_name is given for group templates. False after a finding.
bool substituted(const std::string& path, const std::string& group_path, const char* file_name,
                 std::string* text) {
  char* buffer = nullptr;
  size_t size = 0;
  FILE* out = open_memstream(&buffer, &size);
  if (out == nullptr) return false;
  int merged = merge_text(out, path, path, group_path, file_name);
  fclose(out);
  text->assign(buffer, size);
  free(buffer);
  return merged == 0;
}

// A group template through the configuration parser, into a group of its own. The substitution
// adds one marker line behind the REPLACE_GROUP line; lines are counted in the template itself.
void Checker::check_group_template(const std::string& path) {
  std::string group_path = "Check.T" + std::to_string(kFirstCheckGroup + templates_++);
  std::string text;
  take_log();
  if (!substituted(path, group_path, kCheckValueFile, &text)) {
    add("template", {path, 0}, joined(take_log()));
    return;
  }
  ConfigReport report;
  if (config_parseText(text, path.c_str(), 1, &report) == 0) {
    std::string values = path.substr(0, path.size() - kGroupTemplateSuffix.size());
    check_value_template(values + std::string(kValueTemplateSuffix), group_path);
    return;
  }
  std::string original;
  read_text(path, &original);
  size_t group_at = original.find("REPLACE_GROUP");
  int group_line = 1;
  for (size_t i = 0; i < group_at && i < original.size(); ++i) group_line += original[i] == '\n';
  int line = report.error.line;
  if (group_at != std::string::npos && line > group_line) --line;
  add("template", {path, line}, report.error.message);
}

// The first values of a new group: its value template must give every parameter of the group
// template a value, through the parser the parameters name.
void Checker::check_value_template(const std::string& path, const std::string& group_path) {
  std::string text;
  if (access(path.c_str(), F_OK) != 0 || !substituted(path, group_path, nullptr, &text)) {
    add("template", {path, 0}, "the value template cannot be read: " + joined(take_log()));
    return;
  }
  std::string own = group_path.substr(group_path.rfind('.') + 1);
  Group* group = map_getGroupByPath(("root." + own).c_str());
  if (group == nullptr || group->params == nullptr) return;
  Option* parser_name = map_getParamOption(group->params, "parser");
  const ParserEntry* parser = parser_find(parser_name ? parser_name->value : nullptr);
  if (parser == nullptr) return;  // reported with the group's parameters when one is created
  if (parser_runOnText(parser->parse, text, path.c_str(), group->path, 1, nullptr) != 0) {
    mif_reset();
    add("template", {path, 0},
        "the parser could not read the value template: " + joined(take_log()));
    return;
  }
  for (Param* param = group->params; param != nullptr; param = param->next) {
    Option* mount = map_getParamOption(param, "mount");
    if (param->hasGetter || param->synced || mount == nullptr) continue;
    std::string shown = mount->value;  // as the template writes it
    for (size_t at; (at = shown.find(group_path)) != std::string::npos;) {
      shown.replace(at, group_path.size(), "REPLACE");
    }
    add("template", {path, 0},
        std::string(param->name) + ": mount " + shown + " is not in the value template");
  }
}

void Checker::check_templates() {
  for (const char* dir : kTemplateDirs) {
    UniqueDir handle(opendir(dir));
    if (!handle) continue;
    std::set<std::string> names;
    while (const dirent* entry = readdir(handle.get())) {
      if (std::string_view(entry->d_name).ends_with(kGroupTemplateSuffix)) {
        names.insert(entry->d_name);
      }
    }
    for (const std::string& name : names) check_group_template(std::string(dir) + "/" + name);
  }
}

}  // namespace

void check_configuration(const CheckRequest& request, std::vector<Finding>* findings) {
  current_findings = findings;
  on_fatal = request.on_fatal;
  log_setSink(collect);
  parser_init();
  mif_init();
  map_init("/dev/null");
  Checker checker(findings);
  checker.load(request);
  checker.check_parameters(map_getRootGroup());
  checker.check_round_trips();
  checker.check_templates();
  log_setSink(nullptr);
  current_findings = nullptr;
}
