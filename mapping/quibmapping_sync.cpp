// Synchronisation: the check pass that reads and writes backing files, the setter pass, and
// map_sync with its modes. The order is always: dynamic group files, then each changed
// parameter's backing file with its constraints, then the setters, then the freeing of groups
// removed with defer.
#include <algorithm>
#include <vector>

#include "base/log.h"
#include "mapping/getters.h"
#include "mapping/quibmapping.h"
#include "mapping/quibmapping_state.h"
#include "mapping/setters.h"
#include "values/legacydatarep.h"

namespace {

constexpr const char* kSource = "quibmapping";

bool is_listed(const Param* param) {
  return param->listed != 0;
}

void note_failed_write(Param* param) {
  std::vector<Param*>& failed = map_state().failedWrites;
  if (std::find(failed.begin(), failed.end(), param) == failed.end()) failed.push_back(param);
}

// The file run failed: the values it reported written are not on the disk. They are changed
// again, to be written by a later synchronisation.
void keep_unwritten(Param* param) {
  MapState& state = map_state();
  if (param->status == PARAMSTATUS_UPDATED) state.storedInRun.push_back(param);
  for (Param* written : state.storedInRun) {
    written->status = PARAMSTATUS_UPDATED;
    written->synced = 0;
    written->setterPending = 0;
    note_failed_write(written);
  }
  state.storedInRun.clear();
}

// Lists the parameters whose write failed as changed again; false when there were any.
bool relist_failed_writes() {
  std::vector<Param*> failed;
  failed.swap(map_state().failedWrites);
  for (Param* param : failed) map_addUpdatedParamList(param);
  return failed.empty();
}

// Reads a parameter that is not yet loaded, or writes one that a client changed; false when the
// backing file could not be handled.
bool sync_with_file(Param* param, const char* groupPath) {
  MapState& state = map_state();
  int readonly = state.changesPending == 0 || !state.writeBack;
  // Writing is what a changed value needs; while only reading it stays pending.
  if (readonly && param->status == PARAMSTATUS_UPDATED) return true;
  state.storedInRun.clear();
  bool stored = state.hooks.syncBackingFile == nullptr ||
                state.hooks.syncBackingFile(param, groupPath, readonly) == 0;
  if (!stored && !readonly) keep_unwritten(param);
  return stored;
}

// The mode of map_sync: 0 full, 1 signal only, 2 write only; -1 for nothing to do.
int sync_mode(int signalOnly) {
  if ((signalOnly >= 3 && signalOnly <= 8) || signalOnly > 12 || signalOnly < 0) {
    log_error(kSource, "%s signalOnly=%d out of range", "map_sync", signalOnly);
    return -1;
  }
  if (signalOnly == 9) return -1;
  return signalOnly > 9 ? signalOnly - 10 : signalOnly;
}

// Removal reason for groups freed at the end of a synchronisation.
int free_reason(int signalOnly) {
  return signalOnly > 8 ? signalOnly : 10;
}

void run_listed_setters(int mode) {
  for (UpdatedGroupEntry* entry = map_state().updatedGroups; entry != nullptr;
       entry = entry->next) {
    Group* group = entry->group;
    for (Param* param = group->params; param != nullptr; param = param->next) {
      update_runSetter(param, mode, 0, group->removed);
    }
  }
}

// End of a synchronisation that ran setters.
int finish_setter_sync(int mode) {
  MapState& state = map_state();
  update_clearSignalledProcesses();
  update_clearRunSetters();
  if (mode != 1) state.changesPending = 0;
  state.signalSyncDone = 1;
  return 0;
}

int finish_write_only_sync() {
  MapState& state = map_state();
  state.changesPending = 0;
  state.signalSyncDone = 1;
  return 0;
}

int first_sync(int signalOnly, int mode, int blockDbus) {
  MapState& state = map_state();
  if (mode == 1) {
    if (state.signalSyncDone) return 0;
  } else {
    state.initialSyncDone = 1;
    map_emptyUpdatedLists(free_reason(signalOnly));
    map_checkTreeValues(state.root, blockDbus);
    if (mode == 2) return finish_write_only_sync();
  }
  map_runSetters(state.root, mode, blockDbus);
  return finish_setter_sync(mode);
}

int later_sync(int signalOnly, int mode, int blockDbus) {
  MapState& state = map_state();
  if (mode == 1) {
    if (state.signalSyncDone) return 0;
    // The lists stay: a later full synchronisation still writes everything.
    run_listed_setters(1);
    return finish_setter_sync(mode);
  }
  for (UpdatedGroupEntry* entry = state.updatedGroups; entry != nullptr; entry = entry->next) {
    if (!entry->group->removed) map_checkGroupValues(entry->group, blockDbus);
  }
  // Only the start-up synchronisation holds D-Bus messages back.
  if (mode == 0) run_listed_setters(0);
  map_emptyUpdatedLists(free_reason(signalOnly));
  if (mode == 2) return finish_write_only_sync();
  return finish_setter_sync(mode);
}

}  // namespace

void map_checkParamValue(Param* param, const char* groupPath, int blockDbus) {
  if (param->hasGetter) {
    if (map_getParamOption(param, "dbus") != nullptr && is_listed(param)) param->setterPending = 1;
    return;  // no file
  }
  if (param->status == PARAMSTATUS_STORED || param->status == PARAMSTATUS_LOADED) return;
  if (!param->synced && !sync_with_file(param, groupPath)) return;
  if (param->status != PARAMSTATUS_DEFINED || !param->synced) return;
  map_checkParamConstraint(param, blockDbus);
}

int map_setWriteBack(int on) {
  MapState& state = map_state();
  int previous = state.writeBack;
  state.writeBack = on;
  return previous;
}

int map_checkGroupValues(Group* group, int blockDbus) {
  if (group == nullptr || group->removed) return 0;
  for (Param* param = group->params; param != nullptr; param = param->next) {
    if (param->value != nullptr) param->value->mark = nullptr;
    map_checkParamValue(param, group->path, blockDbus);
    if (param->synced) {
      param->status = PARAMSTATUS_LOADED;
      param->synced = 0;
    }
  }
  return 0;
}

int map_checkTreeValues(Group* group, int blockDbus) {
  if (group == nullptr || group->removed) return 0;
  map_checkGroupValues(group, blockDbus);
  for (Group* child = group->children; child != nullptr; child = child->next) {
    map_checkTreeValues(child, blockDbus);
  }
  return 0;
}

int map_checkGroupTreeValues(Group* group) {
  return map_checkTreeValues(group, 0);
}

void map_runSetters(Group* group, int mode, int blockDbus) {
  if (group == nullptr) return;
  if (mode != 2 && group->daemonPending) {
    if (Option* daemon = map_getGroupOption(group, "daemon")) {
      Option* signal = map_getGroupOption(group, "signal");
      update_sendSignal(daemon->value, signal != nullptr ? signal->value : "1");
    }
    group->daemonPending = 0;
  }
  for (Param* param = group->params; param != nullptr; param = param->next) {
    update_runSetter(param, mode, blockDbus, group->removed);
  }
  for (Group* child = group->children; child != nullptr; child = child->next) {
    map_runSetters(child, mode, blockDbus);
  }
}

int map_sync(int signalOnly, int blockDbus) {
  int mode = sync_mode(signalOnly);
  if (mode < 0) return 0;
  MapState& state = map_state();
  if (state.hooks.syncDynamic != nullptr) state.hooks.syncDynamic(mode);
  if (!state.initialSyncDone) {
    first_sync(signalOnly, mode, blockDbus);
  } else if (state.changesPending) {
    later_sync(signalOnly, mode, blockDbus);
  } else if (mode != 2) {
    update_clearSignalledProcesses();
  }
  return relist_failed_writes() ? 0 : -1;
}

int map_syncGroup(Group* group, int mode) {
  if (group == nullptr) return -1;
  if (mode != 1) {
    map_checkTreeValues(group, 0);
    if (mode == 2) return 0;
  }
  map_runSetters(group, mode, 0);
  return 0;
}
