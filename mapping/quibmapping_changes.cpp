// Change tracking: the updated-group and updated-parameter lists, newest entry first. Each record
// carries a "listed" flag, so that a second change of the same parameter costs nothing.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "base/handles.h"
#include "base/log.h"
#include "mapping/quibmapping.h"
#include "mapping/quibmapping_state.h"
#include "values/legacydatarep.h"

namespace {

constexpr const char* kSource = "quibmapping";

using UniqueBytes = std::unique_ptr<unsigned char, FreeDeleter>;

// root.Network.IPAddress gives root_Network_IPAddress.
char* dots2underscore(const char* path) {
  char* name = strdup(path);
  if (name == nullptr) log_fatal(kSource, "Out of memory in function %s!", "dots2underscore");
  for (char* c = name; *c != '\0'; c++) {
    if (*c == '.') *c = '_';
  }
  return name;
}

// Removes the first entry whose field equals record; the entry is freed by free_entry.
template <typename Entry, typename Record, typename FreeEntry>
void unlink_entry(Entry** head, Record* Entry::*field, const Record* record, FreeEntry free_entry) {
  for (Entry** link = head; *link != nullptr; link = &(*link)->next) {
    if ((*link)->*field == record) {
      Entry* entry = *link;
      *link = entry->next;
      free_entry(entry);
      return;
    }
  }
}

void free_param_entry(UpdatedParamEntry* entry) {
  free(entry->envName);
  delete entry;
}

void free_group_entry(UpdatedGroupEntry* entry) {
  delete entry;
}

}  // namespace

void map_addUpdatedGroupList_group(Group* group) {
  if (group == nullptr || group->listed) return;
  MapState& state = map_state();
  auto* entry = new (std::nothrow) UpdatedGroupEntry{state.updatedGroups, group};
  if (entry == nullptr) {
    log_fatal(kSource, "Memory allocation failed (in function %s).",
              "map_addUpdatedGroupList_group");
  }
  state.updatedGroups = entry;
  group->listed = 1;
}

void map_addUpdatedParamList(Param* param) {
  param->status = PARAMSTATUS_UPDATED;
  param->synced = 0;
  // A getter parameter has no file; only its D-Bus message can announce a change.
  if (param->hasGetter && map_getParamOption(param, "dbus") == nullptr) return;
  MapState& state = map_state();
  state.changesPending = 1;
  state.signalSyncDone = 0;
  const char* dot = strrchr(param->path, '.');
  if (dot == nullptr) return;
  std::string group_path(param->path, dot - param->path);
  map_addUpdatedGroupList_group(map_getGroupByPath(group_path.c_str()));
  if (param->listed) return;
  auto* entry = new (std::nothrow) UpdatedParamEntry{state.updatedParams, param, nullptr};
  if (entry == nullptr) {
    log_fatal(kSource, "Memory allocation failed (in function %s).", "map_addUpdatedParamList");
  }
  entry->envName = dots2underscore(param->path);
  state.updatedParams = entry;
  param->listed = 1;
}

UpdatedGroupEntry* map_getUpdatedGroupList() {
  return map_state().updatedGroups;
}

UpdatedParamEntry* map_getUpdatedParamList() {
  return map_state().updatedParams;
}

void map_unlistGroup(Group* group) {
  if (!group->listed) return;
  unlink_entry(&map_state().updatedGroups, &UpdatedGroupEntry::group, group, free_group_entry);
  group->listed = 0;
}

void map_unlistParam(Param* param) {
  if (!param->listed) return;
  unlink_entry(&map_state().updatedParams, &UpdatedParamEntry::param, param, free_param_entry);
  param->listed = 0;
}

void map_emptyUpdatedLists(int reason) {
  MapState& state = map_state();
  UpdatedParamEntry* params = state.updatedParams;
  state.updatedParams = nullptr;
  while (params != nullptr) {
    UpdatedParamEntry* next = params->next;
    params->param->listed = 0;
    free_param_entry(params);
    params = next;
  }
  // Parameters first: a removed group frees its parameters, which the entries point at.
  UpdatedGroupEntry* groups = state.updatedGroups;
  state.updatedGroups = nullptr;
  std::vector<Group*> removed;
  while (groups != nullptr) {
    UpdatedGroupEntry* next = groups->next;
    Group* group = groups->group;
    group->listed = 0;
    free_group_entry(groups);
    if (group->removed) removed.push_back(group);
    groups = next;
  }
  // Deepest first: a group's inherited options point at texts its ancestors own, and a
  // descendant's path is longer than its ancestor's.
  std::stable_sort(removed.begin(), removed.end(), [](const Group* a, const Group* b) {
    return strlen(a->path) > strlen(b->path);
  });
  for (Group* group : removed) map_removeGroup(group, 0, reason);
}

void map_notifyParamStored(Param* param) {
  if (param == nullptr) return;
  if (param->status != PARAMSTATUS_UPDATED) {
    log_fatal(kSource, "Parameter status is not PARAMSTATUS_UPDATED in map_notifyParamStored!");
  }
  param->status = PARAMSTATUS_STORED;
  param->synced = 1;
  param->setterPending = 1;
  map_state().storedInRun.push_back(param);
}

void map_replaceParamData(Param* param, Data* data) {
  int present_length = 0;
  int new_length = 0;
  UniqueBytes present(legacy_drep_buildBytesFromData(param->value, &present_length));
  UniqueBytes replacement(present ? legacy_drep_buildBytesFromData(data, &new_length) : nullptr);
  if (!present || !replacement) {
    legacy_drep_freeData(data);
    return;
  }
  if (present_length != new_length ||
      memcmp(present.get(), replacement.get(), present_length) != 0) {
    map_addUpdatedParamList(param);
  }
  legacy_drep_freeData(param->value);
  param->value = data;
}
