#include "mapping/quibmapping.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "base/log.h"
#include "mapping/quibmapping_index.h"
#include "mapping/quibmapping_state.h"
#include "mapping/setters.h"
#include "values/legacydatarep.h"

int caseSensitive = 0;
int upgradeMode = 0;

namespace {

constexpr const char* kSource = "quibmapping";

// Option names and values that are common enough to be kept as shared constants.
constexpr const char* kWellKnownNames[] = {
    "file", "mount",   "parser", "type",   "dbustype", "dbusgroupadd", "dbusgroupdel",
    "dbus", "default", "daemon", "signal", "setter",   "getter"};
constexpr const char* kWellKnownValues[] = {
    "Standardparser", "Camsettingsparser", "Standard2parser", "Resolvparser", "NWparser",
    "Passwdparser",   "Groupparser",       "string",          "IP",           "int"};
// A getter parameter has no backing file and announces nothing but its "dbus" message.
constexpr const char* kGetterStrippedOptions[] = {"file",     "mount",        "parser",
                                                  "dbustype", "dbusgroupadd", "dbusgroupdel",
                                                  "daemon",   "signal",       "setter"};
constexpr const char kOutOfMemory[] = "Out of memory";

template <size_t N>
const char* find_text(const char* text, const char* const (&table)[N]) {
  for (const char* entry : table) {
    if (strcmp(entry, text) == 0) return entry;
  }
  return nullptr;
}

// Parameters of groups removed with defer were taken out of the indexes at the removal, and their
// inherited option texts may already be gone with an ancestor.
bool is_indexed(const Param* param) {
  return !param->group->removed;
}

// Every change to the structure of the tree goes through here.
void tree_changed() {
  map_state().treeVersion++;
}

void copy_name(char (&target)[kMapNameMax + 1], const char* name) {
  size_t length = strnlen(name, kMapNameMax);
  memcpy(target, name, length);
  target[length] = '\0';
}

char* join_path(const char* parent, const char* name) {
  size_t size = strlen(parent) + strlen(name) + 2;
  char* path = static_cast<char*>(malloc(size));
  if (path != nullptr) snprintf(path, size, "%s.%s", parent, name);
  return path;
}

// --- Options ------------------------------------------------------------------------------------

// Points *slot at the well-known constant equal to text, or at a heap copy. Returns the size of
// the owned copy (0 for a constant), or -1 when the copy failed and *slot is "Out of memory".
template <size_t N>
int32_t store_text(const char* text, const char* const (&table)[N], char** slot) {
  if (const char* constant = find_text(text, table)) {
    *slot = const_cast<char*>(constant);
    return 0;
  }
  *slot = strdup(text);
  if (*slot != nullptr) return static_cast<int32_t>(strlen(text) + 1);
  *slot = const_cast<char*>(kOutOfMemory);
  return -1;
}

// A new option, or null when the record cannot be had. *failures counts texts that could not be
// copied.
Option* new_option(const char* name, const char* value, int* failures) {
  Option* option = new (std::nothrow) Option{};
  if (option == nullptr) return nullptr;
  int32_t name_size = store_text(name, kWellKnownNames, &option->name);
  int32_t value_size = store_text(value, kWellKnownValues, &option->value);
  *failures = (name_size < 0) + (value_size < 0);
  // Names longer than the field can count are still owned; only non-zero matters for names.
  option->nameSize = static_cast<int16_t>(name_size <= 0 ? 0 : std::min(name_size, 0x7fff));
  option->valueSize = value_size < 0 ? 0 : value_size;
  return option;
}

// Owned texts that option copies still point at after their option took a new value. Nothing
// records which copies remain, so they are kept until the whole tree goes (map_init).
std::vector<char*>& retired_texts() {
  static std::vector<char*>* texts = new std::vector<char*>();
  return *texts;
}

void free_retired_texts() {
  for (char* text : retired_texts()) free(text);
  retired_texts().clear();
}

// 0, or 1 when memory ran out and the value became "Out of memory".
int set_option_value(Option* option, const char* value) {
  if (option->value != nullptr && strcmp(option->value, value) == 0) return 0;
  if (option->shareCount != 0) {
    if (option->valueSize > 0) retired_texts().push_back(option->value);
    option->value = nullptr;
    option->valueSize = 0;
    option->shareCount = 0;
  }
  size_t needed = strlen(value) + 1;
  bool fits = option->value != nullptr && option->valueSize > 0 &&
              static_cast<size_t>(option->valueSize) >= needed;
  if (fits) {
    memcpy(option->value, value, needed);
    option->valueSize = static_cast<int32_t>(needed);
    return 0;
  }
  void* old = option->valueSize > 0 ? option->value : nullptr;
  char* buffer = static_cast<char*>(realloc(old, needed));
  if (buffer == nullptr) {
    free(old);
    option->value = const_cast<char*>(kOutOfMemory);
    option->valueSize = 0;
    return 1;
  }
  memcpy(buffer, value, needed);
  option->value = buffer;
  option->valueSize = static_cast<int32_t>(needed);
  return 0;
}

Option* find_option(Option* list, const char* name) {
  for (Option* option = list; option != nullptr; option = option->next) {
    if (strcmp(option->name, name) == 0) return option;
  }
  return nullptr;
}

// Sets the first option of that name or appends a new one; 0 or -2.
int set_option(Option** list, const char* name, const char* value) {
  Option** link = list;
  for (; *link != nullptr; link = &(*link)->next) {
    if (strcmp((*link)->name, name) == 0) {
      set_option_value(*link, value);
      return 0;
    }
  }
  int failures = 0;
  *link = new_option(name, value, &failures);
  return *link != nullptr ? 0 : -2;
}

// A copy of the list whose records point at the source's texts (see Option::shareCount).
Option* copy_options(const Option* source) {
  Option* head = nullptr;
  Option** tail = &head;
  for (const Option* option = source; option != nullptr; option = option->next) {
    Option* copy = new (std::nothrow) Option{nullptr, option->name, option->value, 0, 0, 0};
    if (copy == nullptr) log_fatal(kSource, "Out of memory!");
    // Saturating: a count that wrapped to 0 would let a shared text be overwritten.
    if (option->shareCount < INT16_MAX) const_cast<Option*>(option)->shareCount++;
    *tail = copy;
    tail = &copy->next;
  }
  return head;
}

void free_option(Option* option) {
  if (option->nameSize != 0) free(option->name);
  if (option->valueSize > 0) free(option->value);
  delete option;
}

void free_options(Option* list) {
  while (list != nullptr) {
    Option* next = list->next;
    free_option(list);
    list = next;
  }
}

// Removes every option named name from the list.
void remove_options(Option** list, const char* name) {
  Option** link = list;
  while (*link != nullptr) {
    Option* option = *link;
    if (strcmp(option->name, name) == 0) {
      *link = option->next;
      free_option(option);
    } else {
      link = &option->next;
    }
  }
}

}  // namespace

struct OptionSnapshot {
  OptionSnapshot* older;
  Option* options;
};

namespace {

// The options a new parameter of group inherits: the group's newest snapshot, taken now when
// the group's options changed since the last one.
Option* share_group_options(Group* group) {
  if (group->options == nullptr) return nullptr;
  if (!group->snapshotValid) {
    auto* snapshot = new (std::nothrow) OptionSnapshot{group->snapshots, nullptr};
    if (snapshot == nullptr) log_fatal(kSource, "Out of memory!");
    snapshot->options = copy_options(group->options);
    group->snapshots = snapshot;
    group->snapshotValid = 1;
  }
  return group->snapshots->options;
}

void free_snapshots(Group* group) {
  while (OptionSnapshot* snapshot = group->snapshots) {
    group->snapshots = snapshot->older;
    free_options(snapshot->options);
    delete snapshot;
  }
}

// The first option named name among the parameter's inherited and own options.
Option* find_param_option(const Param* param, const char* name) {
  Option* option = find_option(param->inherited, name);
  return option != nullptr ? option : find_option(param->options, name);
}

// Gives param copies of its inherited options, ahead of its own, before one of them changes.
void own_inherited(Param* param) {
  if (param->inherited == nullptr) return;
  Option* copies = copy_options(param->inherited);
  Option** tail = &copies;
  while (*tail != nullptr) tail = &(*tail)->next;
  *tail = param->options;
  param->options = copies;
  param->inherited = nullptr;
}

// --- Groups -------------------------------------------------------------------------------------

Group* new_group(const char* name, const Group* parent) {
  Group* group = new (std::nothrow) Group{};
  if (group == nullptr) return nullptr;
  copy_name(group->name, name);
  group->path = parent != nullptr ? join_path(parent->path, group->name) : strdup(group->name);
  if (group->path == nullptr) {
    delete group;
    return nullptr;
  }
  return group;
}

// Places child after every child whose name compares equal or less, without regard to case; the
// children are sorted, and the ordered index finds the place.
void insert_child(Group* parent, Group* child) {
  tree_changed();
  child->parent = parent;
  Group** link = map_index().child_link(parent, child->name);
  child->next = *link;
  *link = child;
  map_index().add_child(parent, child);
}

int add_root(const char* name, Group** out) {
  MapState& state = map_state();
  if (state.root != nullptr) {
    if (out != nullptr) *out = state.root;
    return -1;
  }
  Group* root = new_group(name, nullptr);
  if (root == nullptr) return -2;
  state.root = root;
  tree_changed();
  map_index().add_group(root);
  if (out != nullptr) *out = root;
  return 0;
}

// Takes group out of its parent's children; it stays linked to the parent as its parent.
void take_out_child(Group* group) {
  Group* parent = group->parent;
  Group** link = &parent->children;
  while (*link != group) link = &(*link)->next;
  *link = group->next;
  group->next = nullptr;
  map_index().remove_child(parent, group);
}

void unlink_child(Group* group) {
  take_out_child(group);
  group->parent = nullptr;
}

void free_group(Group* group) {
  map_unlistGroup(group);
  Param* param = group->params;
  while (param != nullptr) {
    Param* next = param->next;
    map_freeParam(param);
    param = next;
  }
  free_options(group->options);
  free_snapshots(group);
  free(group->path);
  delete group;
}

// Reasons 9 and 12 (sync modes that announce nothing) remove a group silently.
void defer_group(Group* group, int reason) {
  const Option* message = map_getGroupOption(group, "dbusgroupdel");
  if (message != nullptr && reason != 9 && reason != 12) {
    map_sendGroupDbusMessage(message->value, group);
  }
  group->removed = 1;
  map_addUpdatedGroupList_group(group);
}

// One group of a removal chain: its subtree first, then the group itself.
void remove_one(Group* group, int defer, int reason) {
  group->next = nullptr;
  Group* children = group->children;
  group->children = nullptr;
  if (children != nullptr) map_removeGroup(children, defer, reason);
  if (group->parent != nullptr) map_index().remove_child(group->parent, group);
  map_index().forget_children(group);
  map_index().remove_group(group);
  for (Param* param = group->params; param != nullptr; param = param->next) {
    map_index().remove_param(param);
  }
  if (defer) {
    defer_group(group, reason);
  } else {
    free_group(group);
  }
}

// The first parameter of the groups from `from` on, in the pre-order of top's subtree.
Param* first_param_from(const Group* from, const Group* top) {
  for (const Group* g = from; g != nullptr; g = map_nextInPreorder(g, top)) {
    if (g->params != nullptr) return g->params;
  }
  return nullptr;
}

Param* next_param_in_preorder(const Param* param, const Group* top) {
  if (param->next != nullptr) return param->next;
  const Group* after = map_nextInPreorder(param->group, top);
  return after != nullptr ? first_param_from(after, top) : nullptr;
}

// The memo's record for path, found with find when the memo does not hold it.
template <typename Record, typename Find>
Record* remembered(PathMemo<Record>* memo, const char* path, Find find) {
  const MapState& state = map_state();
  if (memo->version == state.treeVersion && memo->caseSensitive == caseSensitive &&
      memo->path == path) {
    return memo->record;
  }
  Record* record = find(path);
  *memo = {path, caseSensitive, state.treeVersion, record};
  return record;
}

Param* find_param_by_path(const char* path) {
  const char* dot = strrchr(path, '.');
  if (dot == nullptr) return nullptr;
  Group* group = map_state().root != nullptr
                     ? map_index().find_group(std::string_view(path, dot - path))
                     : nullptr;
  if (group == nullptr) return nullptr;
  const char* name = dot + 1;
  if (strlen(name) > kMapNameMax) return nullptr;
  return map_index().find_param(group, name);
}

void print_group(const Group* group) {
  int& indent = map_state().printIndent;
  printf("%*s[%s]\n", indent, "", group->name);
  indent += 2;
  for (const Param* param = group->params; param != nullptr; param = param->next) {
    printf("%*s%s: ", indent, "", param->name);
    for (const Option* list : {param->inherited, param->options}) {
      for (const Option* option = list; option != nullptr; option = option->next) {
        printf("%s=%s ", option->name, option->value);
      }
    }
    putchar('\n');
  }
  for (const Group* child = group->children; child != nullptr; child = child->next) {
    print_group(child);
  }
  indent -= 2;
}

}  // namespace

MapState& map_state() {
  static MapState* state = new MapState();
  return *state;
}

// --- Tree building ------------------------------------------------------------------------------

int map_init(const char* configFile) {
  MapState& state = map_state();
  map_emptyUpdatedLists(10);
  if (state.root != nullptr) map_removeGroupByPath(state.root->path, 0, 10);
  free_retired_texts();
  update_clearSignalledProcesses();
  update_clearRunSetters();
  state.changesPending = 0;
  state.initialSyncDone = 0;
  if (map_addGroup("root", nullptr, nullptr) != 0)
    log_fatal(kSource, "Couldn't create root group!");
  return state.hooks.parseConfig != nullptr ? state.hooks.parseConfig(configFile, 1) : 0;
}

void map_setHooks(const MapHooks& hooks) {
  map_state().hooks = hooks;
}

int map_addGroup(const char* name, Group* parent, Group** out) {
  if (name == nullptr || name[0] == '\0') return -3;
  if (parent == nullptr) return add_root(name, out);
  if (Group* existing = map_findChildGroup(name, parent)) {
    for (Option* option = parent->options; option != nullptr; option = option->next) {
      map_setGroupOption(option->name, option->value, existing, 1);
    }
    if (out != nullptr) *out = existing;
    return -1;
  }
  Group* group = new_group(name, parent);
  if (group == nullptr) return -2;
  insert_child(parent, group);
  group->options = copy_options(parent->options);
  map_index().add_group(group);
  if (out != nullptr) *out = group;
  return 0;
}

Group* map_findChildGroup(const char* name, Group* parent) {
  // A removed group's subtree is out of the indexes; nothing is found in it.
  if (name == nullptr || parent == nullptr || parent->removed) return nullptr;
  return map_index().find_child(parent, name);
}

int map_createParam(const char* name, Group* group, Param** out) {
  if (name == nullptr || group == nullptr) return -3;
  // One block holds the record and its path, which never changes; the name is the path's tail.
  size_t name_length = strnlen(name, kMapNameMax);
  size_t group_length = strlen(group->path);
  void* block = malloc(sizeof(Param) + group_length + name_length + 2);
  if (block == nullptr) return -2;
  Param* param = new (block) Param{};
  param->path = reinterpret_cast<char*>(param + 1);
  memcpy(param->path, group->path, group_length);
  param->path[group_length] = '.';
  memcpy(param->path + group_length + 1, name, name_length);
  param->path[group_length + 1 + name_length] = '\0';
  param->name = param->path + group_length + 1;
  param->status = PARAMSTATUS_DEFINED;
  param->dbusAtStart = 1;
  param->value = legacy_drep_createData();
  param->inherited = share_group_options(group);
  param->group = group;
  param->serial = map_state().nextSerial++;
  if (group->lastParam != nullptr) {
    group->lastParam->next = param;
  } else {
    group->params = param;
  }
  group->lastParam = param;
  tree_changed();
  if (is_indexed(param)) map_index().add_param(param);
  if (out != nullptr) *out = param;
  return 0;
}

Param* map_findParamInGroup(const char* name, Group* group) {
  if (name == nullptr || group == nullptr || group->removed) return nullptr;
  if (strlen(name) > kMapNameMax) return nullptr;  // stored names are never longer
  return map_index().find_param(group, name);
}

int map_setParamOption(const char* name, const char* value, Param* param) {
  bool indexed = strcmp(name, "mount") == 0 && is_indexed(param);
  if (indexed) map_index().remove_mount(param);
  if (find_option(param->inherited, name) != nullptr) own_inherited(param);
  int result = set_option(&param->options, name, value);
  if (indexed) map_index().add_mount(param);
  return result;
}

int map_setGroupOption(const char* name, const char* value, Group* group, int keepOwned) {
  if (keepOwned) {
    // An inherited or well-known value is overwritten, a value of the group's own kept.
    Option* existing = find_option(group->options, name);
    if (existing != nullptr && existing->valueSize > 0) return 0;
  }
  group->snapshotValid = 0;
  return set_option(&group->options, name, value);
}

int map_applyGetter(Param* param) {
  if (find_param_option(param, "getter") == nullptr) return 0;
  // A getter whose value is "disabled" is still a getter parameter: the exemption meant for it
  // looked at the option's name and so never applied; its getter simply never runs.
  param->hasGetter = 1;
  param->getterDone = 0;
  if (is_indexed(param)) map_index().remove_mount(param);
  own_inherited(param);
  for (const char* name : kGetterStrippedOptions) remove_options(&param->options, name);
  const Data* value = param->value;
  if (value->type == DATA_SCALAR && value->scalarKind == SCALAR_CUSTOM &&
      strcmp(value->typeName, "string") == 0) {
    return 0;  // declared again: the getter's value is in place already
  }
  return legacy_drep_initializeScalar(param->value, SCALAR_CUSTOM, "string");
}

void map_setParamStatusDefined(Param* param) {
  if (param == nullptr) return;
  param->status = PARAMSTATUS_DEFINED;
  param->synced = 0;
}

int32_t map_getParamStatus(const Param* param) {
  return param != nullptr ? param->status : -1;
}

void map_setParamSynced(Param* param) {
  if (param != nullptr) param->synced = 1;
}

void map_freeParam(Param* param) {
  if (param == nullptr) return;
  tree_changed();
  if (is_indexed(param)) map_index().remove_param(param);
  map_unlistParam(param);
  std::erase(map_state().failedWrites, param);
  std::erase(map_state().storedInRun, param);
  free_options(param->options);
  legacy_drep_freeData(param->value);
  free(param);  // the path with it
}

void map_deleteParam(Param* param) {
  Group* group = param->group;
  Param* previous = nullptr;
  Param** link = &group->params;
  while (*link != param) {
    previous = *link;
    link = &(*link)->next;
  }
  *link = param->next;
  if (group->lastParam == param) group->lastParam = previous;
  map_freeParam(param);
}

// --- Look-up ------------------------------------------------------------------------------------

Group* map_getRootGroup() {
  return map_state().root;
}

Group* map_getGroupByPath(const char* path) {
  if (path == nullptr || map_state().root == nullptr) return nullptr;
  return remembered(&map_state().groupMemo, path,
                    [](const char* p) { return map_index().find_group(p); });
}

Param* map_getParamByPath(const char* path) {
  if (path == nullptr) return nullptr;
  return remembered(&map_state().paramMemo, path, find_param_by_path);
}

Option* map_getGroupOption(const Group* group, const char* name) {
  return group != nullptr && name != nullptr ? find_option(group->options, name) : nullptr;
}

Option* map_getParamOption(const Param* param, const char* name) {
  return param != nullptr && name != nullptr ? find_param_option(param, name) : nullptr;
}

int map_textHasFlag(const char* text, const char* word) {
  if (text == nullptr) return 0;
  size_t n = strlen(word);
  for (const char* at = strstr(text, word); at != nullptr; at = strstr(at + 1, word)) {
    if (at[n] == ':' || at[n] == '\0') return 1;
  }
  return 0;
}

int map_typeHasFlag(const Param* param, const char* word) {
  const Option* type = map_getParamOption(param, "type");
  return type != nullptr && map_textHasFlag(type->value, word);
}

Param* map_findParamByMount(const char* value) {
  return map_findParamByMountInGroup(nullptr, value);
}

Param* map_findParamByMountInGroup(const char* groupPath, const char* value) {
  if (value == nullptr) return nullptr;
  // Most texts a parser asks for (its root and section names) are no parameter's mount.
  const MountKey* key = map_index().find_mount(value);
  if (key == nullptr) return nullptr;
  Group* top = groupPath != nullptr ? map_getGroupByPath(groupPath) : map_state().root;
  if (top == nullptr) return nullptr;
  return map_index().find_by_mount(top, key);
}

Param* map_getParamByIndex(Group* group, int index) {
  if (group == nullptr || index < 0) return nullptr;
  MapState& state = map_state();
  auto& cursor = state.indexCursor;
  // Clients walk a group by increasing index: go on from the last answer when it still holds.
  bool resume = cursor.version == state.treeVersion && cursor.top == group &&
                cursor.param != nullptr && cursor.index <= index;
  Param* param = resume ? cursor.param : first_param_from(group, group);
  for (int i = resume ? cursor.index : 0; i < index && param != nullptr; i++) {
    param = next_param_in_preorder(param, group);
  }
  if (param != nullptr) cursor = {group, index, param, state.treeVersion};
  return param;
}

Group* map_getChildGroupByIndex(Group* group, int index) {
  if (group == nullptr || index < 0) return nullptr;
  Group* child = group->children;
  for (; child != nullptr && index > 0; index--) child = child->next;
  return child;
}

Data* map_getParamData(const Param* param) {
  return param != nullptr ? param->value : nullptr;
}

void map_setParamData(Param* param, Data* data) {
  legacy_drep_freeData(param->value);
  param->value = data;
}

void map_printTree(Group* group) {
  if (group == nullptr) group = map_state().root;
  if (group != nullptr) print_group(group);
  fflush(stdout);
}

// --- Removal ------------------------------------------------------------------------------------

void map_removeGroupByPath(const char* path, int defer, int reason) {
  MapState& state = map_state();
  if (state.root == nullptr) return;
  Group* found = map_getGroupByPath(path);
  if (found == nullptr) {
    log_fatal(kSource, "map_removeGroupByPath, The remove algorithm caught an unexpected event");
  }
  if (found == state.root) {
    state.root = nullptr;
  } else {
    unlink_child(found);
  }
  map_removeGroup(found, defer, reason);
}

void map_removeGroup(Group* group, int defer, int reason) {
  if (group == nullptr) return;
  tree_changed();
  map_state().changesPending = 1;
  // The chain after a group goes before it: the last sibling is removed first.
  std::vector<Group*> chain;
  for (Group* g = group; g != nullptr; g = g->next) chain.push_back(g);
  for (auto it = chain.rbegin(); it != chain.rend(); ++it) remove_one(*it, defer, reason);
}

int map_truncateChildGroups(Group* group, int count, int reason) {
  if (group == nullptr || group->children == nullptr || count <= 0) return 1;
  Group* last_kept = group->children;
  for (int i = 1; i < count; i++) {
    last_kept = last_kept->next;
    if (last_kept == nullptr) return 1;
  }
  Group* rest = last_kept->next;
  last_kept->next = nullptr;
  if (rest != nullptr) map_removeGroup(rest, 0, reason);
  return 0;
}
