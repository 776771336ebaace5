// Side indexes of the parameter database, so that look-ups by path, by name and by mount cost the
// same whatever the size of the tree. They never change a result: every look-up answers exactly
// what the tree walk of quibmapping would, first-match and ordering rules included.
//
// Only groups and parameters reachable from the root are indexed. Group keys are views of the
// groups' paths; parameters are kept in tables of their group, by name and by the interned value of
// their first "mount" option. A record must be taken out of the index before its path or that
// option changes or the record is freed.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "mapping/quibmapping.h"

// Names and paths compare exactly when caseSensitive is set, otherwise without regard to case.
bool map_namesEqual(const char* a, const char* b);
bool map_namesEqualN(const char* a, const char* b, size_t n);

// True when a comes before b in pre-order (a group before its subtree, children in list order).
bool map_groupBefore(const Group* a, const Group* b);
// True when group is top or lies below it.
bool map_isWithin(const Group* group, const Group* top);
// The group after group in the pre-order of top's subtree, or null after the last.
Group* map_nextInPreorder(const Group* group, const Group* top);

// The interned value of a "mount" option, with the indexed parameters whose first "mount" option
// has that value (linked through Param::mountPrev/mountNext, in no particular order).
struct MountKey {
  std::string text;
  Param* params = nullptr;
};

// An open-addressing set of records (linear probing, at most half full): one pointer per slot,
// the key computed from the record by Hash. Equal keys may repeat; a look-up visits every record
// of the run its hash starts, and the caller picks the ones it wants.
template <typename Record, size_t (*Hash)(const Record*)>
class RecordTable {
 public:
  void insert(Record* record);
  void erase(const Record* record);
  template <typename Visit>
  void visit(size_t hash, Visit&& visit) const {
    if (slots_.empty()) return;
    size_t mask = slots_.size() - 1;
    for (size_t i = hash & mask; slots_[i] != nullptr; i = (i + 1) & mask) visit(slots_[i]);
  }

 private:
  void place(Record* record);

  std::vector<Record*> slots_;
  size_t count_ = 0;
};

class TreeIndex {
 public:
  void add_group(Group* group);
  void remove_group(Group* group);
  // Path and mount of a parameter.
  void add_param(Param* param);
  void remove_param(Param* param);
  // Call remove_mount before the first "mount" option of param changes, add_mount afterwards.
  void add_mount(Param* param);
  void remove_mount(Param* param);

  // Children of a parent in name order without regard to case (equal names in arrival order),
  // which is their list order.
  void add_child(Group* parent, Group* child);
  void remove_child(Group* parent, Group* child);
  void forget_children(const Group* parent);
  // The link where a new child named name goes: after every child whose name is not greater.
  Group** child_link(Group* parent, const char* name) const;

  // The group the tree walk finds for path.
  Group* find_group(std::string_view path) const;
  // The first child of parent whose name equals name over kMapNameMax characters.
  Group* find_child(const Group* parent, const char* name) const;
  // The first parameter of group named name.
  Param* find_param(const Group* group, const char* name) const;
  // The interned mount value equal to value, or null when no indexed parameter has it.
  const MountKey* find_mount(std::string_view value) const;
  // The first parameter in pre-order below top whose first "mount" option is key's value.
  Param* find_by_mount(const Group* top, const MountKey* key) const;

 private:
  struct FoldHash {
    size_t operator()(std::string_view text) const;
  };
  struct FoldEqual {
    bool operator()(std::string_view a, std::string_view b) const;
  };
  struct TextHash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
  };
  struct NameLess {
    bool operator()(const char* a, const char* b) const;
  };
  using ChildOrder = std::multimap<const char*, Group*, NameLess>;
  static size_t name_hash(const Param* param);
  static size_t mount_hash(const Param* param);
  // A group's parameters by name without regard to case and by mount key. Kept per group, so
  // that the look-ups of one file's parse stay within a few cache lines.
  struct GroupParams {
    RecordTable<Param, name_hash> by_name;
    RecordTable<Param, mount_hash> by_mount;
  };
  static GroupParams* params_of(const Group* group);

  Param* first_of_owner(const Group* owner, const MountKey* key) const;

  std::unordered_multimap<std::string_view, Group*, FoldHash, FoldEqual> groups_;
  // Mount values in use; a key lives as long as some indexed parameter has it. Within a group a
  // mount is then found by the key's address: the text is hashed once per look-up.
  std::unordered_map<std::string, MountKey, TextHash, std::equal_to<>> mounts_;
  std::unordered_map<const Group*, ChildOrder> children_;
};

TreeIndex& map_index();
