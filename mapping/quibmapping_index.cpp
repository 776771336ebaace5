#include "mapping/quibmapping_index.h"

#include <strings.h>

#include <algorithm>
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

size_t fold_hash(std::string_view text) {
  // Folds as strcasecmp does in the C locale the daemon runs in.
  uint64_t hash = 14695981039346656037ull;
  for (unsigned char c : text) {
    hash ^= (c >= 'A' && c <= 'Z') ? c + ('a' - 'A') : c;
    hash *= 1099511628211ull;
  }
  return hash;
}

// Spreads the bits of a hash or an address over the low bits a table index takes.
size_t spread(uint64_t h) {
  h ^= h >> 33;
  h *= 0xff51afd7ed558ccdull;
  h ^= h >> 33;
  return h;
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

template <typename Record, size_t (*Hash)(const Record*)>
void RecordTable<Record, Hash>::place(Record* record) {
  size_t mask = slots_.size() - 1;
  size_t i = Hash(record) & mask;
  while (slots_[i] != nullptr) i = (i + 1) & mask;
  slots_[i] = record;
}

template <typename Record, size_t (*Hash)(const Record*)>
void RecordTable<Record, Hash>::insert(Record* record) {
  if ((count_ + 1) * 2 > slots_.size()) {
    std::vector<Record*> old(std::max<size_t>(16, slots_.size() * 2), nullptr);
    old.swap(slots_);
    for (Record* moved : old) {
      if (moved != nullptr) place(moved);
    }
  }
  place(record);
  count_++;
}

template <typename Record, size_t (*Hash)(const Record*)>
void RecordTable<Record, Hash>::erase(const Record* record) {
  if (slots_.empty()) return;
  size_t mask = slots_.size() - 1;
  size_t hole = Hash(record) & mask;
  for (; slots_[hole] != record; hole = (hole + 1) & mask) {
    if (slots_[hole] == nullptr) return;
  }
  // Later records of the run move into the hole unless their home lies after it (cyclically
  // within (hole, j]), so that every record stays reachable from its home.
  for (size_t j = (hole + 1) & mask; slots_[j] != nullptr; j = (j + 1) & mask) {
    size_t home = Hash(slots_[j]) & mask;
    bool stays = hole <= j ? (hole < home && home <= j) : (hole < home || home <= j);
    if (!stays) {
      slots_[hole] = slots_[j];
      hole = j;
    }
  }
  slots_[hole] = nullptr;
  count_--;
}

size_t TreeIndex::FoldHash::operator()(std::string_view text) const {
  return fold_hash(text);
}

size_t TreeIndex::name_hash(const Param* param) {
  return spread(fold_hash(param->name));
}

size_t TreeIndex::mount_hash(const Param* param) {
  return spread(reinterpret_cast<uintptr_t>(param->mountKey));
}

TreeIndex::GroupParams* TreeIndex::params_of(const Group* group) {
  return static_cast<GroupParams*>(group->paramIndex);
}

bool TreeIndex::FoldEqual::operator()(std::string_view a, std::string_view b) const {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
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
  group->paramIndex = new GroupParams();
}

// The group's parameters are taken out of the index right after it; their tables go now.
void TreeIndex::remove_group(Group* group) {
  erase_entry(&groups_, group->path, group);
  delete params_of(group);
  group->paramIndex = nullptr;
}

void TreeIndex::add_param(Param* param) {
  params_of(param->group)->by_name.insert(param);
  add_mount(param);
}

void TreeIndex::remove_param(Param* param) {
  remove_mount(param);
  if (GroupParams* tables = params_of(param->group)) tables->by_name.erase(param);
}

void TreeIndex::add_mount(Param* param) {
  const char* mount = first_mount(param);
  if (mount == nullptr) return;
  auto it = mounts_.find(std::string_view(mount));
  if (it == mounts_.end()) it = mounts_.emplace(mount, MountKey{mount, nullptr}).first;
  MountKey* key = &it->second;
  param->mountKey = key;
  param->mountPrev = nullptr;
  param->mountNext = key->params;
  if (key->params != nullptr) key->params->mountPrev = param;
  key->params = param;
  params_of(param->group)->by_mount.insert(param);
}

void TreeIndex::remove_mount(Param* param) {
  MountKey* key = param->mountKey;
  if (key == nullptr) return;
  if (GroupParams* tables = params_of(param->group)) tables->by_mount.erase(param);
  if (param->mountPrev != nullptr) {
    param->mountPrev->mountNext = param->mountNext;
  } else {
    key->params = param->mountNext;
  }
  if (param->mountNext != nullptr) param->mountNext->mountPrev = param->mountPrev;
  param->mountKey = nullptr;
  param->mountPrev = param->mountNext = nullptr;
  if (key->params == nullptr) mounts_.erase(key->text);
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

Param* TreeIndex::find_param(const Group* group, const char* name) const {
  Param* found = nullptr;
  const GroupParams* tables = params_of(group);
  if (tables == nullptr) return nullptr;
  tables->by_name.visit(spread(fold_hash(name)), [&](Param* param) {
    if (!map_namesEqual(param->name, name)) return;
    if (found == nullptr || param->serial < found->serial) found = param;
  });
  return found;
}

const MountKey* TreeIndex::find_mount(std::string_view value) const {
  auto it = mounts_.find(value);
  return it != mounts_.end() ? &it->second : nullptr;
}

Param* TreeIndex::first_of_owner(const Group* owner, const MountKey* key) const {
  Param* found = nullptr;
  const GroupParams* tables = params_of(owner);
  if (tables == nullptr) return nullptr;
  tables->by_mount.visit(spread(reinterpret_cast<uintptr_t>(key)), [&](Param* param) {
    if (param->mountKey != key) return;
    if (found == nullptr || param->serial < found->serial) found = param;
  });
  return found;
}

Param* TreeIndex::find_by_mount(const Group* top, const MountKey* key) const {
  // The group's own parameters come first in pre-order.
  Param* found = first_of_owner(top, key);
  if (found != nullptr || top->children == nullptr) return found;
  int matches = 0;
  for (Param* param = key->params; param != nullptr; param = param->mountNext) {
    if (!map_isWithin(param->group, top)) continue;
    found = param;
    if (++matches > 1) break;
  }
  if (matches <= 1) return found;
  // Several below top: the first group in pre-order holding one has the answer.
  for (const Group* g = top->children; g != nullptr; g = map_nextInPreorder(g, top)) {
    if (Param* first = first_of_owner(g, key)) return first;
  }
  return nullptr;
}

TreeIndex& map_index() {
  static TreeIndex* index = new TreeIndex();
  return *index;
}
