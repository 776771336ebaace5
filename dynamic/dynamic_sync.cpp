// Dynamic groups at synchronisation: the pending files of every rewritten parent are moved into
// place and the parent's subtree synchronised.
#include <string>

#include "base/log.h"
#include "dynamic/dynamic.h"
#include "dynamic/dynamic_internal.h"
#include "mapping/quibmapping.h"
#include "movefile/movefile.h"

namespace {

// Moves an entry's pending files over the final ones.
bool install_entry(const TmpListEntry& entry) {
  for (bool paramFile : {true, false}) {
    const std::string& pending = paramFile ? entry.tmpParamFile : entry.tmpGroupFile;
    const std::string& final = paramFile ? entry.paramFile : entry.groupFile;
    if (!is_own_file(pending)) {
      log_error(kDynSource, "'%s' is not a file of the daemon's own, not installed.",
                pending.c_str());
      return false;
    }
    if (move_file(pending.c_str(), final.c_str()) != 0) {
      log_error(kDynSource, "Couldn't rename temporary file '%s' to '%s': %m", pending.c_str(),
                final.c_str());
      return false;
    }
  }
  return true;
}

}  // namespace

int dyn_sync(int mode) {
  static constexpr const char* kFn = "dyn_sync";
  int result = 0;
  TmpListEntry* next = nullptr;
  for (TmpListEntry* entry = dyn_tmplistHead(); entry != nullptr; entry = next) {
    next = entry->next;
    Group* group = map_getGroupByPath(entry->name.c_str());
    if (group == nullptr) {
      remove_tmplist(entry);
      continue;
    }
    if (mode != 1 && !install_entry(*entry)) {
      result = -1;
      continue;
    }
    if (map_syncGroup(group, mode) != 0) {
      log_error(kDynSource, "%s, error syncing group '%s'.", kFn, entry->name.c_str());
    } else if (mode != 1) {
      remove_tmplist(entry);
    }
  }
  return result;
}
