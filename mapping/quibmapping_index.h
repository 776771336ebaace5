// Side indexes of the parameter database, so that look-ups by path, by name and by mount cost the
// same whatever the size of the tree. They never change a result: every look-up answers exactly
// what the tree walk of quibmapping would, first-match and ordering rules included.
//
// Only groups and parameters reachable from the root are indexed. Keys are views of texts owned
// by the records (paths, and the value of a parameter's first "mount" option), so a record must be
// taken out of the index before such a text changes or is freed.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

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

  // Children of a parent in name order without regard to case (equal names in arrival order);
  // while the children were not reordered this is their list order.
  void add_child(Group* parent, Group* child);
  void remove_child(Group* parent, Group* child);
  void forget_children(const Group* parent);
  // The link where a new child named name goes: after every child whose name is not greater.
  Group** child_link(Group* parent, const char* name) const;

  // The group the tree walk finds for path.
  Group* find_group(std::string_view path) const;
  // The first child of parent whose name equals name over kMapNameMax characters.
  Group* find_child(const Group* parent, const char* name) const;
  // The first parameter of group named name; key is the path the parameter would have.
  Param* find_param(const Group* group, std::string_view key, const char* name) const;
  // The first parameter in pre-order below top whose first "mount" option is value.
  Param* find_by_mount(const Group* top, const char* value) const;

 private:
  struct FoldHash {
    size_t operator()(std::string_view text) const;
  };
  struct FoldEqual {
    bool operator()(std::string_view a, std::string_view b) const;
  };
  using OwnerMount = std::pair<const Group*, std::string_view>;
  struct OwnerMountHash {
    size_t operator()(const OwnerMount& key) const;
  };
  struct TextHash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
  };
  using ParamSet = std::unordered_set<Param*>;
  struct NameLess {
    bool operator()(const char* a, const char* b) const;
  };
  using ChildOrder = std::multimap<const char*, Group*, NameLess>;

  Param* first_of_owner(const Group* owner, std::string_view value) const;

  std::unordered_multimap<std::string_view, Group*, FoldHash, FoldEqual> groups_;
  std::unordered_multimap<std::string_view, Param*, FoldHash, FoldEqual> params_;
  // Mount values are shared by many parameters (one per group using the same file layout), so
  // their sets must allow constant-time removal; keys are owned, the values outlive any one param.
  std::unordered_map<std::string, ParamSet, TextHash, std::equal_to<>> mounts_;
  std::unordered_map<const Group*, ChildOrder> children_;
  // Keys are views of each entry's own parameter's mount text.
  std::unordered_multimap<OwnerMount, Param*, OwnerMountHash> owner_mounts_;
};

TreeIndex& map_index();
