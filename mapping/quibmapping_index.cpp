#include "mapping/quibmapping_index.h"

#include <strings.h>

#include <cctype>
#include <cstring>
#include <functional>
#include <string>

namespace {

int depth_of(const Group* group) {
  int depth = 0;
  for (; group->parent != nullptr; group = group->parent) depth++;
  return depth;
}

// Of two siblings, the one met first in their parent's list.
bool sibling_before(const Group* a, const Group* b) {
  const Group* first = a->parent != nullptr ? a->parent->children : nullptr;
  for (const Group* g = first; g != nullptr; g = g->next) {
    if (g == a) return true;
    if (g == b) return false;
  }
  return a < b;  // not reachable for linked siblings
}

const char* first_mount(const Param* param) {
  const Option* option = map_getParamOption(param, "mount");
  return option != nullptr ? option->value : nullptr;
}

template <typename Map, typename Record>
void erase_entry(Map* map, const typename Map::key_type& key, const Record* record) {
  auto range = map->equal_range(key);
  for (auto it = range.first; it != range.second; ++it) {
    if (it->second == record) {
      map->erase(it);
      return;
    }
  }
}

}  // namespace

bool map_namesEqual(const char* a, const char* b) {
  return caseSensitive ? strcmp(a, b) == 0 : strcasecmp(a, b) == 0;
}

bool map_namesEqualN(const char* a, const char* b, size_t n) {
  return caseSensitive ? strncmp(a, b, n) == 0 : strncasecmp(a, b, n) == 0;
}

bool map_isWithin(const Group* group, const Group* top) {
  for (; group != nullptr; group = group->parent) {
    if (group == top) return true;
  }
  return false;
}

Group* map_nextInPreorder(const Group* group, const Group* top) {
  if (group->children != nullptr) return group->children;
  for (; group != top; group = group->parent) {
    if (group->next != nullptr) return group->next;
  }
  return nullptr;
}

bool map_groupBefore(const Group* a, const Group* b) {
  if (a == b) return false;
  int depth_a = depth_of(a);
  int depth_b = depth_of(b);
  const Group* up_a = a;
  const Group* up_b = b;
  for (; depth_a > depth_b; depth_a--) up_a = up_a->parent;
  for (; depth_b > depth_a; depth_b--) up_b = up_b->parent;
  if (up_a == up_b) return up_a == a;  // one is an ancestor of the other
  while (up_a->parent != up_b->parent) {
    up_a = up_a->parent;
    up_b = up_b->parent;
  }
  return sibling_before(up_a, up_b);
}

size_t TreeIndex::FoldHash::operator()(std::string_view text) const {
  // Folds as strcasecmp does in the C locale the daemon runs in.
  uint64_t hash = 14695981039346656037ull;
  for (unsigned char c : text) {
    hash ^= (c >= 'A' && c <= 'Z') ? c + ('a' - 'A') : c;
    hash *= 1099511628211ull;
  }
  return hash;
}

bool TreeIndex::FoldEqual::operator()(std::string_view a, std::string_view b) const {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

size_t TreeIndex::OwnerMountHash::operator()(const OwnerMount& key) const {
  uint64_t owner = reinterpret_cast<uintptr_t>(key.first) * 0x9e3779b97f4a7c15ull;
  return std::hash<std::string_view>()(key.second) ^ (owner >> 17) ^ owner;
}

bool TreeIndex::NameLess::operator()(const char* a, const char* b) const {
  return strcasecmp(a, b) < 0;
}

void TreeIndex::add_child(Group* parent, Group* child) {
  children_[parent].emplace(child->name, child);  // behind the equal names
}

void TreeIndex::remove_child(Group* parent, Group* child) {
  auto order = children_.find(parent);
  if (order == children_.end()) return;
  auto range = order->second.equal_range(child->name);
  for (auto it = range.first; it != range.second; ++it) {
    if (it->second == child) {
      order->second.erase(it);
      return;
    }
  }
}

void TreeIndex::forget_children(const Group* parent) {
  children_.erase(parent);
}

Group** TreeIndex::child_link(Group* parent, const char* name) const {
  auto order = children_.find(parent);
  if (order == children_.end()) return &parent->children;
  auto next = order->second.upper_bound(name);
  if (next == order->second.begin()) return &parent->children;
  return &std::prev(next)->second->next;
}

void TreeIndex::add_group(Group* group) {
  groups_.emplace(group->path, group);
}

void TreeIndex::remove_group(Group* group) {
  erase_entry(&groups_, group->path, group);
}

void TreeIndex::add_param(Param* param) {
  params_.emplace(param->path, param);
  add_mount(param);
}

void TreeIndex::remove_param(Param* param) {
  remove_mount(param);
  erase_entry(&params_, param->path, param);
}

void TreeIndex::add_mount(Param* param) {
  const char* mount = first_mount(param);
  if (mount == nullptr) return;
  auto it = mounts_.find(std::string_view(mount));
  if (it == mounts_.end()) it = mounts_.emplace(mount, ParamSet()).first;
  it->second.insert(param);
  owner_mounts_.emplace(OwnerMount(param->group, mount), param);
}

void TreeIndex::remove_mount(Param* param) {
  const char* mount = first_mount(param);
  if (mount == nullptr) return;
  auto it = mounts_.find(std::string_view(mount));
  if (it != mounts_.end()) {
    it->second.erase(param);
    if (it->second.empty()) mounts_.erase(it);
  }
  erase_entry(&owner_mounts_, OwnerMount(param->group, mount), param);
}

Group* TreeIndex::find_group(std::string_view path) const {
  // The walk descends only into groups whose path is a prefix of the wanted one, and every
  // ancestor's path is a prefix of its descendants' paths; so it finds the first group in
  // pre-order whose path equals the wanted path.
  // Entries of a bucket equal the key without regard to case and have its length.
  Group* found = nullptr;
  auto range = groups_.equal_range(path);
  for (auto it = range.first; it != range.second; ++it) {
    Group* group = it->second;
    if (caseSensitive && memcmp(group->path, path.data(), path.size()) != 0) continue;
    if (found == nullptr || map_groupBefore(group, found)) found = group;
  }
  return found;
}

Group* TreeIndex::find_child(const Group* parent, const char* name) const {
  std::string key = std::string(parent->path) + "." + std::string(name, strnlen(name, kMapNameMax));
  Group* found = nullptr;
  auto range = groups_.equal_range(key);
  for (auto it = range.first; it != range.second; ++it) {
    Group* group = it->second;
    if (group->parent != parent || !map_namesEqualN(group->name, name, kMapNameMax)) continue;
    if (found == nullptr || sibling_before(group, found)) found = group;
  }
  return found;
}

Param* TreeIndex::find_param(const Group* group, std::string_view key, const char* name) const {
  Param* found = nullptr;
  auto range = params_.equal_range(key);
  for (auto it = range.first; it != range.second; ++it) {
    Param* param = it->second;
    if (param->group != group || !map_namesEqual(param->name, name)) continue;
    if (found == nullptr || param->serial < found->serial) found = param;
  }
  return found;
}

Param* TreeIndex::first_of_owner(const Group* owner, std::string_view value) const {
  Param* found = nullptr;
  auto range = owner_mounts_.equal_range(OwnerMount(owner, value));
  for (auto it = range.first; it != range.second; ++it) {
    if (found == nullptr || it->second->serial < found->serial) found = it->second;
  }
  return found;
}

Param* TreeIndex::find_by_mount(const Group* top, const char* value) const {
  // The group's own parameters come first in pre-order.
  Param* found = first_of_owner(top, value);
  if (found != nullptr || top->children == nullptr) return found;
  auto it = mounts_.find(std::string_view(value));
  if (it == mounts_.end()) return nullptr;
  int matches = 0;
  for (Param* param : it->second) {
    if (!map_isWithin(param->group, top)) continue;
    found = param;
    if (++matches > 1) break;
  }
  if (matches <= 1) return found;
  // Several below top: the first group in pre-order holding one has the answer.
  for (const Group* g = top->children; g != nullptr; g = map_nextInPreorder(g, top)) {
    if (Param* first = first_of_owner(g, value)) return first;
  }
  return nullptr;
}

TreeIndex& map_index() {
  static TreeIndex* index = new TreeIndex();
  return *index;
}
