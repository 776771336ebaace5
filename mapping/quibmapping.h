// The parameter database: the one process-wide tree of groups and parameters, their options,
// change tracking and synchronisation with the backing files.
//
// Ownership: the database owns every Group, Param and Option reachable from the root (and every
// group removed with defer until map_sync frees it). Callers never free records themselves; they
// use map_freeParam, map_removeGroupByPath and map_truncateChildGroups.
//
// Records are plain structs with singly linked lists. The fields after the marked line of each
// record are bookkeeping of the database's look-up indexes: read them if useful, never write them.
// Change options only through map_setParamOption, map_setGroupOption and map_applyGetter (the mount
// index follows those); an option's value text may be overwritten in place by a caller that keeps
// its length, except for the "mount" option.
//
// Results: 0 success; -1 already exists (map_addGroup); -2 out of memory; -3 empty name.
#pragma once

#include <cstdint>

struct Data;  // values/legacydatarep.h

// Param::status
constexpr int32_t PARAMSTATUS_UPDATED = 0;  // changed in memory by a client, not yet written
constexpr int32_t PARAMSTATUS_STORED = 1;   // written to its file
constexpr int32_t PARAMSTATUS_DEFINED = 2;  // declared, not yet loaded from its file
constexpr int32_t PARAMSTATUS_LOADED = 3;   // loaded from its file, constraints applied

// Group and parameter names keep at most this many characters.
constexpr int kMapNameMax = 32;

struct Param;
struct MountKey;        // mapping/quibmapping_index.h
struct OptionSnapshot;  // mapping/quibmapping.cpp

struct Option {
  Option* next;
  char* name;
  char* value;
  int16_t nameSize;    // size of the owned name buffer, 0 when shared or a constant
  int16_t shareCount;  // copies of this option pointing at its texts
  int32_t valueSize;   // size of the owned value buffer, 0 when shared or a constant
};

struct Group {
  Group* next;      // next sibling
  Group* children;  // first child; sorted by name without regard to case
  Param* params;    // in declaration order
  int32_t daemonPending;
  uint8_t removed;  // removed with defer: unreachable, freed by map_sync
  char name[kMapNameMax + 1];
  char* path;
  Option* options;
  // --- bookkeeping
  Group* parent;     // null for the root and for a removed subtree's top group
  Param* lastParam;  // tail of params
  void* paramIndex;  // the index's tables of the group's parameters
  // Copies of the group's options that its parameters share, the newest first; the newest is
  // handed to new parameters while the group's options stay as they were.
  OptionSnapshot* snapshots;
  uint8_t snapshotValid;
  uint8_t listed;  // in the updated-group list
};

struct Param {
  Param* next;
  const char* name;  // the last component of path: at most kMapNameMax characters
  char* path;        // allocated with the record
  Option* options;
  int32_t status;
  // Flags, 0 or 1; bytes, as every parameter carries them.
  uint8_t hasGetter;
  uint8_t getterDone;
  uint8_t synced;
  uint8_t setterPending;
  uint8_t dbusAtStart;
  uint8_t listed;  // in the updated-parameter list
  // Creation order: a group's params are in ascending serial order. 48 bits fill the flags'
  // eight bytes and last for thousands of years of creations.
  uint64_t serial : 48;
  Data* value;
  // --- bookkeeping
  Group* group;  // owning group
  // The group's options at the creation, shared with the group's other parameters and never
  // changed: they come before `options` (read both through map_getParamOption). A parameter
  // that changes or removes one of them gets copies of its own first.
  Option* inherited;
  MountKey* mountKey;  // the value of the first "mount" option while indexed, else null
  Param* mountPrev;    // the other indexed parameters with the same mount value
  Param* mountNext;
};

// Entries of the change lists; new entries are pushed at the head.
struct UpdatedGroupEntry {
  UpdatedGroupEntry* next;
  Group* group;
};

struct UpdatedParamEntry {
  UpdatedParamEntry* next;
  Param* param;
  char* envName;  // the path with "." replaced by "_", exported to setter commands
};

// Process-wide flags set from the command line. caseSensitive chooses exact comparison of group
// and parameter names (requests overwrite it with their own byte); upgradeMode stops parameter
// D-Bus messages, setter commands and getters.
extern int caseSensitive;
extern int upgradeMode;

// --- Hooks --------------------------------------------------------------------------------------

// The work on files the database asks of the layers above it (the configuration reader, the
// backing-file parsers and the dynamic groups), installed by start-up. A hook left null is work
// the database goes without: no configuration file is read, no backing file, no dynamic group.
struct MapHooks {
  // Reads a configuration file into the tree (additive 1 keeps what exists); its result is
  // map_init's.
  int (*parseConfig)(const char* path, int additive) = nullptr;
  // Reads (readonly 1) or rewrites (readonly 0) the backing file of `param`; 0 on success.
  int (*syncBackingFile)(Param* param, const char* groupPath, int readonly) = nullptr;
  // Puts the dynamic group files in place before the tree is synchronised (map_sync's mode).
  int (*syncDynamic)(int mode) = nullptr;
};
void map_setHooks(const MapHooks& hooks);

// --- Tree building ------------------------------------------------------------------------------

// Resets the change flags, creates the root group "root" and loads the configuration file
// (additive) through the parseConfig hook. Returns its result (0 without the hook).
int map_init(const char* configFile);
// Creates the child `name` of parent (the root when parent is null and no root exists yet).
// 0 new group, -1 it exists (parent options it lacks are merged into it), -2, -3. *out gets the
// new or existing group.
int map_addGroup(const char* name, Group* parent, Group** out);
Group* map_findChildGroup(const char* name, Group* parent);
// Appends a new parameter with a copy of the group's options; no duplicate check. 0 or -2.
int map_createParam(const char* name, Group* group, Param** out);
Param* map_findParamInGroup(const char* name, Group* group);
// Replaces the value of the first option of that name or appends one; 0 or -2.
int map_setParamOption(const char* name, const char* value, Param* param);
// As map_setParamOption; with keepOwned, an existing option owning its value is left unchanged.
int map_setGroupOption(const char* name, const char* value, Group* group, int keepOwned);
// Turns a parameter with a "getter" option into a getter parameter; 0 when it has none.
int map_applyGetter(Param* param);
void map_setParamStatusDefined(Param* param);
int32_t map_getParamStatus(const Param* param);
void map_setParamSynced(Param* param);
// Frees a parameter that is no longer linked in its group (see map_deleteParam).
void map_freeParam(Param* param);
// Unlinks param from its group and frees it.
void map_deleteParam(Param* param);

// --- Look-up ------------------------------------------------------------------------------------
// Groups removed with defer are out of reach: nothing is found in them or below them.

Group* map_getRootGroup();
Group* map_getGroupByPath(const char* path);
Param* map_getParamByPath(const char* path);
Option* map_getGroupOption(const Group* group, const char* name);
Option* map_getParamOption(const Param* param, const char* name);
// 1 when `text` (a `type` or `dbustype` value) holds the flag `word` ("readonly", "writeonly",
// "nosync", ...) followed by ':' or by the end of the text.
int map_textHasFlag(const char* text, const char* word);
// map_textHasFlag on the parameter's `type` option.
int map_typeHasFlag(const Param* param, const char* word);
// First parameter in pre-order whose first "mount" option equals value exactly.
Param* map_findParamByMount(const char* value);
// The same below the group at groupPath (from the root when groupPath is null); null when the
// path names no group.
Param* map_findParamByMountInGroup(const char* groupPath, const char* value);
// The index-th parameter of the group's subtree in pre-order.
Param* map_getParamByIndex(Group* group, int index);
Group* map_getChildGroupByIndex(Group* group, int index);
Data* map_getParamData(const Param* param);
// Installs data, freeing the old value.
void map_setParamData(Param* param, Data* data);
// Prints the subtree (the whole tree for null) to standard output.
void map_printTree(Group* group);

// --- Removal ------------------------------------------------------------------------------------

// Removes the group at path and its subtree. With defer the records stay, flagged removed, until
// map_sync frees them; reason 9 or 12 suppresses the "dbusgroupdel" message. The path must exist.
void map_removeGroupByPath(const char* path, int defer, int reason);
// Removes group, everything chained after it through next and all their subtrees.
void map_removeGroup(Group* group, int defer, int reason);
// Keeps the first count children and frees the others; 1 when there are not more than count.
int map_truncateChildGroups(Group* group, int count, int reason);

// --- Change tracking and synchronisation --------------------------------------------------------

// Marks param changed by a client and lists it (and its group) for the next synchronisation.
void map_addUpdatedParamList(Param* param);
void map_addUpdatedGroupList_group(Group* group);
UpdatedGroupEntry* map_getUpdatedGroupList();
UpdatedParamEntry* map_getUpdatedParamList();
// Called after the value of an updated parameter was written to its file.
void map_notifyParamStored(Param* param);
// Installs data as param's value (taking ownership); a value whose bytes differ from the present
// one marks the parameter updated.
void map_replaceParamData(Param* param, Data* data);
// Synchronises the tree: signalOnly 0 full, 1 signal only, 2 write only, 9 nothing, 10-12 as
// 0-2; other values are logged and ignored. Always 0.
int map_sync(int signalOnly, int blockDbus);
// Reads (and writes) one subtree and runs its setters; the change lists stay as they are.
int map_syncGroup(Group* group, int mode);
// The check pass of one parameter: reads it from (or writes it to) its backing file when needed and
// applies the constraints to a value just loaded. The caller clears the value's cursor first.
void map_checkParamValue(Param* param, const char* groupPath, int blockDbus);
int map_checkGroupValues(Group* group, int blockDbus);
int map_checkTreeValues(Group* group, int blockDbus);
int map_checkGroupTreeValues(Group* group);
void map_runSetters(Group* group, int mode, int blockDbus);
// While write-back is off, synchronisation only reads backing files. Returns the previous state.
int map_setWriteBack(int on);
