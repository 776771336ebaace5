// Pieces shared by the dynamic-group sources (dynamic.cpp: directories, names, templates and the
// pending list; dynamic_create.cpp; dynamic_delete.cpp) and by their unit tests.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

constexpr const char* kDynSource = "dynamic";
constexpr const char* kTempPar = "temp_par";
constexpr const char* kTempGrp = "temp_grp";
constexpr const char* kParSuffix = "_par.conf";
constexpr const char* kGrpSuffix = "_grp.conf";
// The first line of every new parameter file (20 bytes).
constexpr const char* kFileHeader = "#Created by tessard\n";

struct DynamicDirs {
  std::string tmpl;          // primary template directory
  std::string tmplFallback;  // fallback template directory
  std::string group;         // group files
  std::string param;         // parameter files
  std::string scratch;       // scratch and pending files
};
DynamicDirs& dyn_dirs();

// A parent group whose files were rewritten but are not installed yet. The list is newest first.
struct TmpListEntry {
  TmpListEntry* next;
  std::string name;          // "root." and the parent path
  std::string tmpGroupFile;  // pending files in the scratch directory
  std::string tmpParamFile;
  std::string groupFile;  // final files
  std::string paramFile;
};
TmpListEntry* get_tmplist(std::string_view parentPath);
TmpListEntry* add_tmplist(std::string_view parentPath, std::string_view groupFile,
                          std::string_view paramFile, std::string_view tmpGroupFile,
                          std::string_view tmpParamFile);
TmpListEntry* dyn_tmplistHead();
// Unlinks and frees the entry and removes its pending files (if they are still there).
void remove_tmplist(TmpListEntry* entry);

// Splits a group path in place: "root" (when the path starts with it) and the text before the
// first dot are skipped, each dot ends a component. root.Foo.Bar gives Foo, Bar.
std::vector<char*> parse_path(char* path);
// The first COUNT components joined by dots.
std::string join_components(const std::vector<char*>& components, size_t count);

// Lowers every letter and turns every dot into an underscore, except a dot followed by "conf"
// (without regard to case).
void normalize_file_name(std::string* path);
// <group or parameter dir>/<parent>.conf, normalised.
std::string data_file_name(std::string_view parent, bool paramFile);
// <scratch>/<parent>_<kind>, normalised: the pending file of a parent.
std::string pending_file_name(std::string_view parent, const char* kind);
// <scratch>/<kind>: the fixed scratch file a new pending file is written into.
std::string scratch_file_name(const char* kind);
// Creates PATH afresh for writing, mode 0600: what was there is removed first, and a link or a
// file planted again meanwhile makes it fail (O_EXCL, O_NOFOLLOW). Null (logged) on failure.
FILE* create_private_file(const std::string& path);
// Opens PATH for reading only when it is a regular file of the daemon's own (no link). Null
// (logged, unless it is missing) otherwise.
FILE* open_own_file(const std::string& path);
// Whether PATH is a regular file of the daemon's own (not a link).
bool is_own_file(const std::string& path);
// <dir>/<tmpl><suffix>
std::string template_path(const std::string& dir, std::string_view tmpl, const char* suffix);

// Opens the data file of PARENT (the parent path without "root.") for reading. A missing file is
// created holding the header line unless noCreate is set. *path receives the file name, except
// when creation failed (then it is emptied and the failure logged).
FILE* get_file(std::string_view parent, std::string* path, bool paramFile, bool noCreate);

// Writes the substituted template (primary, else fallback) to OUT for the group GROUPPATH (the
// path without "root."). FILENAME is given for group templates: it replaces REPLACE_FILE and
// turns quoted types into "dynamic:" types. 0, or -1 (logged).
int merge_text(FILE* out, const std::string& tmpl, const std::string& fallback,
               std::string_view groupPath, const char* fileName);

// Replaces LENGTH characters at POSITION of LINE (a malloc'd buffer of *capacity bytes) by TEXT.
// Returns the new malloc'd line, which always holds the whole result; *capacity follows it. The
// old line is freed.
char* replace_text(char* line, size_t* capacity, size_t position, size_t length, const char* text);

// One line of a stream at a time, in a malloc'd buffer that replace_text may swap.
struct LineBuffer {
  explicit LineBuffer(const char* function) : function(function) {}
  ~LineBuffer() { free(text); }
  LineBuffer(const LineBuffer&) = delete;
  LineBuffer& operator=(const LineBuffer&) = delete;
  // False at the end of the stream; running out of memory is fatal, naming FUNCTION.
  bool read(FILE* in);

  const char* function;
  char* text = nullptr;
  size_t capacity = 0;
};

// Names of groups compare exactly with -casesensitive, otherwise without regard to case.
bool dyn_namesEqual(const char* a, const char* b);
// A line holding "group" and two words: the second word goes to name (64 bytes).
bool read_group_header(const char* line, char* name);
// Adds the '{' and '}' of LINE to the counters.
void count_braces(const char* line, int* opens, int* closes);

// The group template of one new group, ready to be merged wherever the group file needs it.
struct TemplateMerge {
  std::string tmpl;
  std::string fallback;
  std::string groupPath;  // parent path, a dot, the new name
  const char* fileName;   // the final parameter file (group templates), or null
  int write(FILE* out) const { return merge_text(out, tmpl, fallback, groupPath, fileName); }
};

// Copies the group file IN to OUT with the new group's block inserted at its sorted place under
// the parent PARENT (its components), before the first sibling block of the same letter and a
// greater number. 0, or -1 on a write failure (logged).
int find_sorted_place_in_file(FILE* in, FILE* out, const std::vector<char*>& parent, char letter,
                              int number, const TemplateMerge& merge);

// Copies the group file IN to OUT without the block of the group whose components are GROUP.
// 0, or -1 on a write failure (logged, naming SCRATCHPATH).
int copy_without_group(FILE* in, FILE* out, const std::vector<char*>& group,
                       const char* scratchPath);

// Copies the parameter file IN to OUT without the sections whose header holds KEY ("[Net.I0")
// followed by ']' or '.'. 0, or -1 on a write failure.
int copy_without_sections(FILE* in, FILE* out, std::string_view key);
