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

bool map_paramBefore(const Param* a, const Param* b) {
  if (a->group == b->group) return a->serial < b->serial;
  if (map_isWithin(b->group, a->group)) return true;
  if (map_isWithin(a->group, b->group)) return false;
  return map_groupBefore(a->group, b->group);
}

size_t TreeIndex::FoldHash::operator()(std::string_view text) const {
  uint64_t hash = 14695981039346656037ull;
  for (unsigned char c : text) {
    hash ^= static_cast<unsigned char>(tolower(c));
    hash *= 1099511628211ull;
  }
  return hash;
}

bool TreeIndex::FoldEqual::operator()(std::string_view a, std::string_view b) const {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

size_t TreeIndex::OwnerMountHash::operator()(const OwnerMount& key) const {
  return std::hash<std::string_view>()(key.second) ^ std::hash<const void*>()(key.first);
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
  mounts_.emplace(mount, param);
  owner_mounts_.emplace(OwnerMount(param->group, mount), param);
}

void TreeIndex::remove_mount(Param* param) {
  const char* mount = first_mount(param);
  if (mount == nullptr) return;
  erase_entry(&mounts_, mount, param);
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

Param* TreeIndex::find_by_mount(const Group* top, const char* value) const {
  Param* found = nullptr;
  // The group's own parameters come first in pre-order.
  auto own = owner_mounts_.equal_range(OwnerMount(top, value));
  for (auto it = own.first; it != own.second; ++it) {
    if (found == nullptr || it->second->serial < found->serial) found = it->second;
  }
  if (found != nullptr || top->children == nullptr) return found;
  auto range = mounts_.equal_range(value);
  for (auto it = range.first; it != range.second; ++it) {
    Param* param = it->second;
    if (!map_isWithin(param->group, top)) continue;
    if (found == nullptr || map_paramBefore(param, found)) found = param;
  }
  return found;
}

TreeIndex& map_index() {
  static TreeIndex* index = new TreeIndex();
  return *index;
}
