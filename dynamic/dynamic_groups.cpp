// Dynamic groups and the parameter database: creating a group from its templates, deleting one,
// and installing the pending files at synchronisation.
#include <dirent.h>
#include <sys/stat.h>

#include <cctype>
#include <cstring>
#include <string>

#include "base/handles.h"
#include "base/log.h"
#include "dynamic/dynamic.h"
#include "dynamic/dynamic_internal.h"
#include "mapping/quibmapping.h"
#include "mapping/setters.h"
#include "movefile/movefile.h"
#include "parsers/quibconfigparser.h"

namespace {

constexpr const char* kCreate = "create_new_group";

// Removal reason for the database: the request mode, or 10 below 9.
int removal_reason(int mode) {
  return mode < 9 ? 10 : mode;
}

// The final and pending names of a parent's group and parameter files.
struct ParentFiles {
  std::string groupFile;
  std::string paramFile;
  std::string tmpGroupFile;
  std::string tmpParamFile;
};

// The current text of a parent's file: its pending file when one is waiting, else the final
// file (made with its header line when missing, unless noCreate). Fills in both names.
FILE* open_parent_file(std::string_view parent, bool paramFile, bool noCreate, ParentFiles* files) {
  std::string& finalName = paramFile ? files->paramFile : files->groupFile;
  std::string& pending = paramFile ? files->tmpParamFile : files->tmpGroupFile;
  if (TmpListEntry* entry = get_tmplist(parent)) {
    finalName = paramFile ? entry->paramFile : entry->groupFile;
    pending = paramFile ? entry->tmpParamFile : entry->tmpGroupFile;
    return open_own_file(pending);
  }
  pending = pending_file_name(parent, paramFile ? kTempPar : kTempGrp);
  return get_file(parent, &finalName, paramFile, noCreate);
}

// Everything one creation works with, from the parsed parent path to the names of the files.
struct Creation {
  Creation(const char* parentPath, int number, const char* tmpl, int mode)
      : parentPath(parentPath), number(number), tmpl(tmpl), mode(mode) {}

  const char* parentPath;
  int number;
  const char* tmpl;
  int mode;
  std::string pathCopy;
  std::vector<char*> components;
  std::string parent;  // the parent path without "root."
  char name[32] = {};
  int assigned = -1;  // the new group's number
  int previous = -1;  // the number of the sibling the new group follows, -1 when it goes first
  Group* parentGroup = nullptr;
  Group* group = nullptr;
  bool inserted = false;  // the new group was made by this creation
  ParentFiles files;

  std::string group_path() const { return parent + "." + name; }
};

// The components are written into the group file, so each must read back as one name of the
// configuration grammar: a letter, then letters, digits and underscores.
bool is_config_name(const char* name) {
  if (!isalpha(static_cast<unsigned char>(*name))) return false;
  for (const char* p = name; *p != '\0'; ++p) {
    if (!isalnum(static_cast<unsigned char>(*p)) && *p != '_') return false;
  }
  return true;
}

// Inserts each component below the previous one from the root; a missing one is made empty and
// marked for its daemon's signal.
Group* walk_parents(const std::vector<char*>& components) {
  Group* current = map_getRootGroup();
  for (char* component : components) {
    Group* child = nullptr;
    int rc = map_addGroup(component, current, &child);
    if (rc == -2) log_fatal(kDynSource, "Memory allocation failed (in function %s).", kCreate);
    if (rc != 0 && rc != -1) return nullptr;
    if (rc == 0) child->daemonPending = 1;
    current = child;
  }
  return current;
}

// Inserts the group NAME below the parent; the result of the insertion goes to *status.
Group* insert_numbered(Creation* c, int number, int* status) {
  snprintf(c->name, sizeof c->name, "%c%d", c->components.back()[0], number);
  Group* group = nullptr;
  *status = map_addGroup(c->name, c->parentGroup, &group);
  if (*status == -2) log_fatal(kDynSource, "Memory allocation failed (in function %s).", kCreate);
  return group;
}

// Picks the new group's name: the lowest free number, or the requested one (which may exist
// already only while upgrading: re-creating a group is allowed then).
int number_group(Creation* c, int* status) {
  if (c->number < 0) {
    for (int n = 0;; ++n) {
      Group* group = insert_numbered(c, n, status);
      if (group != nullptr) group->daemonPending = 1;
      if (*status == -1) continue;
      if (*status != 0) return -1;
      c->group = group;
      c->inserted = true;
      c->assigned = n;
      c->previous = n - 1;
      return 0;
    }
  }
  c->group = insert_numbered(c, c->number, status);
  c->inserted = *status == 0;
  if (!c->inserted && !(*status == -1 && upgradeMode)) return -1;
  c->group->daemonPending = 1;
  c->assigned = c->number;
  char sibling[32];
  for (c->previous = c->number - 1; c->previous >= 0; --c->previous) {
    snprintf(sibling, sizeof sibling, "%c%d", c->components.back()[0], c->previous);
    if (map_findChildGroup(sibling, c->parentGroup) != nullptr) break;
  }
  return 0;
}

// Creates the scratch file of KIND for writing; null (logged, naming FUNCTION) when it cannot.
FILE* open_scratch(const char* kind, const char* function, std::string* path) {
  *path = scratch_file_name(kind);
  FILE* out = create_private_file(*path);
  if (out == nullptr) log_error(kDynSource, "%s, cannot write '%s'.", function, path->c_str());
  return out;
}

bool close_scratch(UniqueFile* file, const std::string& path, const char* function) {
  if (fclose(file->release()) == 0) return true;
  log_error(kDynSource, "%s, fclose() failed on '%s': %m", function, path.c_str());
  return false;
}

// Writes the parent's parameter file with the new group's values appended into the scratch file.
int create_param_file(Creation* c) {
  static constexpr const char* kFn = "create_param_file";
  UniqueFile in(open_parent_file(c->parent, true, false, &c->files));
  if (!in) return -1;
  std::string scratch;
  UniqueFile out(open_scratch(kTempPar, kFn, &scratch));
  if (!out) return -1;
  LineBuffer line(kFn);
  while (line.read(in.get())) {
    if (fputs(line.text, out.get()) == EOF) {
      log_error(kDynSource, "%s, fputs() failed to put line in '%s'! (%m)", kFn, scratch.c_str());
      return -1;
    }
  }
  const DynamicDirs& dirs = dyn_dirs();
  if (merge_text(out.get(), template_path(dirs.tmpl, c->tmpl, kParSuffix),
                 template_path(dirs.tmplFallback, c->tmpl, kParSuffix), c->group_path(),
                 nullptr) != 0) {
    return -1;
  }
  return close_scratch(&out, scratch, kFn) ? 0 : -1;
}

// Writes the parent's group file with the new group's block at its sorted place into the scratch
// file.
int create_group_file(Creation* c) {
  static constexpr const char* kFn = "create_group_file";
  UniqueFile in(open_parent_file(c->parent, false, false, &c->files));
  if (!in) return -1;
  std::string scratch;
  UniqueFile out(open_scratch(kTempGrp, kFn, &scratch));
  if (!out) return -1;
  const DynamicDirs& dirs = dyn_dirs();
  TemplateMerge merge{template_path(dirs.tmpl, c->tmpl, kGrpSuffix),
                      template_path(dirs.tmplFallback, c->tmpl, kGrpSuffix), c->group_path(),
                      c->files.paramFile.c_str()};
  std::vector<char*> parent(c->components.begin(), c->components.end());
  if (find_sorted_place_in_file(in.get(), out.get(), parent, c->components.back()[0], c->assigned,
                                merge) != 0) {
    return -1;
  }
  return close_scratch(&out, scratch, kFn) ? 0 : -1;
}

// Moves both scratch files to the parent's pending files and lists the parent as pending.
int install_pending(Creation* c) {
  std::string scratchPar = scratch_file_name(kTempPar);
  std::string scratchGrp = scratch_file_name(kTempGrp);
  if (move_file(scratchPar.c_str(), c->files.tmpParamFile.c_str()) != 0) {
    log_error(kDynSource, "Couldn't rename temporary param file '%s' to '%s': %m",
              scratchPar.c_str(), c->files.tmpParamFile.c_str());
    return -1;
  }
  if (move_file(scratchGrp.c_str(), c->files.tmpGroupFile.c_str()) != 0) {
    log_error(kDynSource, "Couldn't rename temporary group file '%s' to '%s': %m",
              scratchGrp.c_str(), c->files.tmpGroupFile.c_str());
    return -1;
  }
  const ParentFiles& f = c->files;
  if (get_tmplist(c->parent) == nullptr) {
    add_tmplist(c->parentPath, f.groupFile, f.paramFile, f.tmpGroupFile, f.tmpParamFile);
  }
  return 0;
}

void unlink_child(Group* parent, Group* group) {
  for (Group** link = &parent->children; *link != nullptr; link = &(*link)->next) {
    if (*link == group) {
      *link = group->next;
      group->next = nullptr;
      return;
    }
  }
}

// Moves the new group in the parent's children behind the first sibling whose number is not
// smaller than the previous number, or to the head when it goes first.
int find_sorted_place_in_list(const char* parentPath, const char* name, int number, int previous) {
  static constexpr const char* kFn = "find_sorted_place_in_list";
  Group* parent = map_getGroupByPath(parentPath);
  if (parent == nullptr) {
    log_error(kDynSource, "%s, could not find group '%s'.", kFn, parentPath);
    return -1;
  }
  Group* group = map_findChildGroup(name, parent);
  if (group == nullptr) {
    log_error(kDynSource, "%s, could not find group '%s.%s'.", kFn, parentPath, name);
    return -1;
  }
  unlink_child(parent, group);
  Group* after = nullptr;
  if (number != 0 && previous != -1) {
    for (after = parent->children; after != nullptr; after = after->next) {
      if (strtol(after->name + 1, nullptr, 10) >= previous) break;
    }
  }
  Group** link = after != nullptr ? &after->next : &parent->children;
  group->next = *link;
  *link = group;
  if (after != nullptr || number == 0 || previous == -1) return 0;
  log_error(kDynSource, "%s, could not find previous group (with prefix %d) for '%s.%s'.", kFn,
            previous, parentPath, name);
  return -1;
}

// Reads the new group's values from the pending parameter file: the group's file option points
// there while its values are loaded (its parameters share the text), then points back. False
// when the pending name does not fit in the text (a template with a file option of its own).
bool load_values(Group* group, const std::string& pendingParamFile) {
  Option* file = map_getGroupOption(group, "file");
  if (file == nullptr) return true;
  if (pendingParamFile.size() > strlen(file->value)) {
    log_error(kDynSource,
              "Tried to copy data to a memory area that can not hold the entire data (in "
              "function %s)",
              kCreate);
    return false;
  }
  std::string finalFile = file->value;
  strcpy(file->value, pendingParamFile.c_str());
  map_checkTreeValues(group, 0);
  strcpy(file->value, finalFile.c_str());
  return true;
}

int load_group(Creation* c) {
  if (config_parseFile(c->files.tmpGroupFile.c_str(), 1) != 0) return -1;
  if (!load_values(c->group, c->files.tmpParamFile)) return -1;
  if (c->mode != 9 && c->mode != 12) {
    if (Option* add = map_getGroupOption(c->group, "dbusgroupadd")) {
      map_sendGroupDbusMessage(add->value, c->group);
    }
  }
  return 0;
}

int create_in_files(Creation* c, int* status) {
  c->pathCopy = c->parentPath;
  c->components = parse_path(c->pathCopy.data());
  if (c->components.empty()) return -1;
  for (char* component : c->components) {
    if (!is_config_name(component)) {
      log_error(kDynSource, "%s, '%s' is not a group name.", kCreate, component);
      return -1;
    }
  }
  c->parent = join_components(c->components, c->components.size());
  c->parentGroup = walk_parents(c->components);
  if (c->parentGroup == nullptr || number_group(c, status) != 0) return -1;
  if (create_param_file(c) != 0 || create_group_file(c) != 0 || install_pending(c) != 0) {
    return -1;
  }
  if (find_sorted_place_in_list(c->parentPath, c->name, c->assigned, c->previous) != 0) return -1;
  return load_group(c);
}

void undo_creation(const Creation& c, int* status) {
  if (c.inserted) {
    std::string path = c.group->path;
    map_removeGroupByPath(path.c_str(), 0, removal_reason(c.mode));
  }
  remove(scratch_file_name(kTempPar).c_str());
  remove(scratch_file_name(kTempGrp).c_str());
  if (*status == -1) {
    log_info(kDynSource, "Creating group for '%s' with number '%d' failed! (Already exists)",
             c.parentPath, c.number);
  } else {
    log_info(kDynSource, "Creating group for '%s' failed!", c.parentPath);
  }
}

// Writes the parent's group file without the group's block into the scratch file. 1 when the
// parent has no group file (nothing to rewrite).
int remove_group_file(std::string_view parent, const std::vector<char*>& components,
                      ParentFiles* files) {
  static constexpr const char* kFn = "remove_group_file";
  std::string scratch;
  UniqueFile out(open_scratch(kTempGrp, kFn, &scratch));
  if (!out) return -1;
  UniqueFile in(open_parent_file(parent, false, true, files));
  int rc = !in ? 1 : copy_without_group(in.get(), out.get(), components, scratch.c_str());
  if (rc == 0 && close_scratch(&out, scratch, kFn)) return 0;
  out.reset();
  remove(scratch.c_str());
  return rc == 0 ? -1 : rc;
}

// Writes the parent's parameter file without the group's sections into the scratch file.
int remove_param_file(std::string_view parent, const char* own, ParentFiles* files) {
  static constexpr const char* kFn = "remove_param_file";
  std::string scratch;
  UniqueFile out(open_scratch(kTempPar, kFn, &scratch));
  if (!out) return -1;
  UniqueFile in(open_parent_file(parent, true, true, files));
  auto fail = [&]() {
    out.reset();
    remove(scratch.c_str());
    remove(scratch_file_name(kTempGrp).c_str());
    return -1;
  };
  if (!in) return fail();
  std::string key = "[" + std::string(parent) + "." + own;
  if (copy_without_sections(in.get(), out.get(), key) != 0) {
    log_error(kDynSource, "%s, fputs() failed to put line in file '%s'.", kFn, scratch.c_str());
    return fail();
  }
  return close_scratch(&out, scratch, kFn) ? 0 : fail();
}

// Rewrites the group's parent files as pending files. 0, or -1 when the deletion must fail.
int remove_from_parent_files(const std::vector<char*>& components) {
  std::string parent = join_components(components, components.size() - 1);
  ParentFiles files;
  int rc = remove_group_file(parent, components, &files);
  if (rc != 0) return rc < 0 ? -1 : 0;
  if (remove_param_file(parent, components.back(), &files) != 0) return -1;
  if (get_tmplist(parent) == nullptr) {
    add_tmplist(parent, files.groupFile, files.paramFile, files.tmpGroupFile, files.tmpParamFile);
  }
  move_file(scratch_file_name(kTempGrp).c_str(), files.tmpGroupFile.c_str());
  move_file(scratch_file_name(kTempPar).c_str(), files.tmpParamFile.c_str());
  return 0;
}

// Removes the regular files of one data directory whose names begin with the prefix of the
// group's files (net_i0 for root.Net.I0). The match is a plain prefix: the files of a sibling
// such as I01 go as well, as they always have. False when the directory cannot be scanned.
bool remove_files_with_prefix(std::string_view parent, const char* own, bool paramFile) {
  std::string name;
  UniqueFile stream(get_file(parent, &name, paramFile, true));
  stream.reset();
  size_t slash = name.rfind('/');
  std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : name.substr(0, slash);
  std::string base = slash == std::string::npos ? name : name.substr(slash + 1);
  UniqueDir listing(opendir(dir.c_str()));
  if (!listing) {
    log_error(kDynSource, "Opening directory '%s' failed: %m", dir.c_str());
    return false;
  }
  size_t conf = base.find(".conf");
  if (conf == std::string::npos) return false;
  std::string prefix = base.substr(0, conf) + (own != nullptr ? "_" + std::string(own) : "");
  normalize_file_name(&prefix);
  while (const dirent* entry = readdir(listing.get())) {
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    if (strncmp(entry->d_name, prefix.c_str(), prefix.size()) != 0) continue;
    std::string path = dir + "/" + entry->d_name;
    struct stat st {};
    if (stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) remove(path.c_str());
  }
  return true;
}

// The data files of the groups nested below the deleted one. A group directly under the root
// has no parent files: its own name takes the parent's place in the prefix.
void remove_dependant_files(const std::vector<char*>& components) {
  bool nested = components.size() > 1;
  std::string parent = join_components(components, nested ? components.size() - 1 : 1);
  const char* own = nested ? components.back() : nullptr;
  for (bool paramFile : {false, true}) {
    if (!remove_files_with_prefix(parent, own, paramFile)) return;
  }
}

}  // namespace

char* create_new_group(const char* parentPath, int number, const char* tmpl, int* status,
                       int mode) {
  int ignored = 0;
  if (status == nullptr) status = &ignored;
  *status = 0;
  if (parentPath == nullptr || tmpl == nullptr) return nullptr;
  Creation c(parentPath, number, tmpl, mode);
  if (create_in_files(&c, status) != 0) {
    undo_creation(c, status);
    return nullptr;
  }
  log_info(kDynSource, "Created new group '%s' for '%s'.", c.name, parentPath);
  char* name = strdup(c.name);
  if (name == nullptr) log_fatal(kDynSource, "Memory allocation failed (in function %s).", kCreate);
  return name;
}

int delete_group(const char* path, int mode) {
  if (path == nullptr || map_getGroupByPath(path) == nullptr) return -1;
  std::string copy = path;
  std::vector<char*> components = parse_path(copy.data());
  if (components.empty()) {
    log_info(kDynSource, "Deleteing 'root' is FORBIDDEN!");
    return -1;
  }
  if (components.size() > 1 && remove_from_parent_files(components) != 0) {
    log_error(kDynSource, "delete_group '%s' failed!", path);
    return -1;
  }
  remove_dependant_files(components);
  map_removeGroupByPath(path, 1, removal_reason(mode));
  log_info(kDynSource, "Deleted '%s'.", path);
  return 0;
}
