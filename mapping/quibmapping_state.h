// Module state of the parameter database, shared by its source files (not a public interface).
#pragma once

#include <string>
#include <vector>

#include "mapping/quibmapping.h"

// The last answer of a look-up by path, valid while the tree and the case flag stay as they were.
template <typename Record>
struct PathMemo {
  std::string path;
  int caseSensitive = -1;
  uint64_t version = 0;
  Record* record = nullptr;
};

struct MapState {
  Group* root = nullptr;
  UpdatedGroupEntry* updatedGroups = nullptr;
  UpdatedParamEntry* updatedParams = nullptr;
  int changesPending = 0;   // something awaits synchronisation
  int initialSyncDone = 0;  // the first full synchronisation has run
  int signalSyncDone = 0;   // a signal-only synchronisation has nothing new to do
  int writeBack = 1;        // off: synchronisation reads backing files but never writes them
  int printIndent = 0;
  MapHooks hooks;
  uint64_t nextSerial = 0;
  // Changes with every group or parameter added, moved or removed.
  uint64_t treeVersion = 0;
  // The last answer of map_getParamByIndex, from which the next index is found in one step.
  struct {
    const Group* top = nullptr;
    int index = 0;
    Param* param = nullptr;
    uint64_t version = 0;
  } indexCursor;
  // A request looks its path up for the access check and again to serve it, and a parser looks
  // the group of its file up for every key: the second look-up costs one comparison.
  PathMemo<Group> groupMemo;
  PathMemo<Param> paramMemo;
  // Parameters the parser framework reported written during the file run in progress.
  std::vector<Param*> storedInRun;
  // Parameters whose file could not be written: the synchronisation fails and they stay pending.
  std::vector<Param*> failedWrites;
};

MapState& map_state();

// Takes group out of the updated-group list (first entry only) when it is listed.
void map_unlistGroup(Group* group);
// Takes param out of the updated-parameter list when it is listed.
void map_unlistParam(Param* param);
// Empties both change lists; groups removed with defer are freed (removal reason given).
void map_emptyUpdatedLists(int reason);
