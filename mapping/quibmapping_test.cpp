#include "mapping/quibmapping.h"

#include <gtest/gtest.h>
#include <strings.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "mapping/quibmapping_state.h"
#include "tests/support/paramvalue.h"
#include "values/legacydatarep.h"

namespace {

using Names = std::vector<std::string>;
using tessard::test::string_data;

class TreeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    caseSensitive = 0;
    ASSERT_EQ(map_init("/dev/null"), 0);
    root_ = map_getRootGroup();
  }
  void TearDown() override { caseSensitive = 0; }

  Group* group(const char* name, Group* parent = nullptr) {
    Group* out = nullptr;
    int result = map_addGroup(name, parent != nullptr ? parent : root_, &out);
    EXPECT_TRUE(result == 0 || result == -1) << name;
    return out;
  }
  static Param* param(const char* name, Group* owner) {
    Param* out = nullptr;
    EXPECT_EQ(map_createParam(name, owner, &out), 0);
    return out;
  }
  static Names child_names(const Group* parent) {
    Names names;
    for (const Group* g = parent->children; g != nullptr; g = g->next) names.push_back(g->name);
    return names;
  }

  Group* root_ = nullptr;
};

TEST_F(TreeTest, CutsNamesAt32AndFindsTheGroupAgainByThePrefix) {
  std::string long_name(40, 'n');
  Group* first = group(long_name.c_str());
  EXPECT_EQ(std::string(first->path), "root." + long_name.substr(0, 32));
  Group* again = nullptr;
  EXPECT_EQ(map_addGroup((long_name.substr(0, 32) + "xyz").c_str(), root_, &again), -1);
  EXPECT_EQ(again, first);
  std::string p_path = std::string(first->path) + "." + long_name.substr(0, 32);
  EXPECT_EQ(map_getParamByPath(p_path.c_str()), nullptr);  // remembered until the tree changes
  Param* p = param(long_name.c_str(), first);
  EXPECT_EQ(strlen(p->name), 32u);
  EXPECT_EQ(map_getParamByPath(p->path), p);
  EXPECT_EQ(map_findParamInGroup(long_name.c_str(), first), nullptr);  // whole names compare
  EXPECT_EQ(map_addGroup("", root_, &again), -3);
  EXPECT_EQ(map_getGroupByPath("ROOT"), root_);
}

TEST_F(TreeTest, KeepsChildrenSortedWithoutRegardToCaseAndEqualNamesInArrivalOrder) {
  caseSensitive = 1;
  for (const char* name : {"beta", "Alpha", "gamma", "BETA", "ALPHA"}) group(name);
  EXPECT_EQ(child_names(root_), (Names{"Alpha", "ALPHA", "beta", "BETA", "gamma"}));
}

TEST_F(TreeTest, ExistingGroupTakesParentOptionsItLacksAndKeepsItsOwn) {
  Group* child = group("child");
  ASSERT_EQ(map_setGroupOption("type", "int", root_, 0), 0);  // after child: not inherited
  ASSERT_EQ(map_setGroupOption("owned", "mine", child, 0), 0);
  ASSERT_EQ(map_setGroupOption("owned", "parents", root_, 0), 0);
  EXPECT_EQ(map_getGroupOption(child, "type"), nullptr);
  Group* again = nullptr;
  EXPECT_EQ(map_addGroup("CHILD", root_, &again), -1);
  EXPECT_EQ(again, child);
  EXPECT_STREQ(map_getGroupOption(child, "type")->value, "int");
  EXPECT_STREQ(map_getGroupOption(child, "owned")->value, "mine");
}

TEST_F(TreeTest, KeepOwnedOverwritesInheritedAndWellKnownValuesOnly) {
  ASSERT_EQ(map_setGroupOption("inherited", "old", root_, 0), 0);
  Group* g = group("g");
  ASSERT_EQ(map_setGroupOption("known", "string", g, 0), 0);  // a well-known constant value
  ASSERT_EQ(map_setGroupOption("own", "old", g, 0), 0);
  for (const char* name : {"inherited", "known", "own"}) map_setGroupOption(name, "new", g, 1);
  EXPECT_STREQ(map_getGroupOption(g, "inherited")->value, "new");
  EXPECT_STREQ(map_getGroupOption(g, "known")->value, "new");
  EXPECT_STREQ(map_getGroupOption(g, "own")->value, "old");
  EXPECT_STREQ(map_getGroupOption(root_, "inherited")->value, "old");  // shared text untouched
}

TEST_F(TreeTest, DisabledGetterStillStripsTheFileOptions) {
  ASSERT_EQ(map_setGroupOption("file", "/etc/x", root_, 0), 0);
  Param* p = param("p", root_);
  for (const char* name : {"mount", "parser", "setter", "dbus", "type", "getter"}) {
    ASSERT_EQ(map_setParamOption(name, name[0] == 'g' ? "disabled" : "v", p), 0);
  }
  ASSERT_EQ(map_findParamByMountInGroup("root", "v"), p);
  EXPECT_EQ(map_applyGetter(p), 0);
  EXPECT_EQ(p->hasGetter, 1);
  for (const char* gone : {"file", "mount", "parser", "setter"}) {
    EXPECT_EQ(map_getParamOption(p, gone), nullptr) << gone;
  }
  EXPECT_EQ(map_findParamByMountInGroup("root", "v"), nullptr);
  EXPECT_STREQ(legacy_drep_getTypeName(p->value), "string");
  EXPECT_EQ(map_applyGetter(p), 0);  // declared again
}

TEST_F(TreeTest, DeferredRemovalKeepsTheRecordsListedUntilSync) {
  Group* a = group("a");
  ASSERT_EQ(map_setGroupOption("maxGroups", "4", a, 0), 0);
  Group* a1 = group("a1", a);
  map_setParamOption("mount", "M", param("p", a1));
  map_removeGroupByPath("root.a", 1, 10);
  EXPECT_TRUE(a->removed && a1->removed);
  UpdatedGroupEntry* head = map_getUpdatedGroupList();
  ASSERT_TRUE(head != nullptr && head->next != nullptr);
  EXPECT_EQ(head->group, a);  // the group after its subtree, newest first
  EXPECT_EQ(head->next->group, a1);
  // The subtree reads option names its parent owns: the parent must be freed last.
  map_emptyUpdatedLists(10);
  EXPECT_EQ(map_getUpdatedGroupList(), nullptr);
}

TEST_F(TreeTest, TruncationKeepsTheFirstCountChildren) {
  // children, count, result, children left
  const int cases[][4] = {{5, 2, 0, 2}, {2, 2, 0, 2}, {1, 2, 1, 1}, {0, 1, 1, 0}, {3, 0, 1, 3}};
  for (const auto& [children, count, result, left] : cases) {
    Group* parent = group(("p" + std::to_string(children) + std::to_string(count)).c_str());
    for (int i = 0; i < children; i++) group(("c" + std::to_string(i)).c_str(), parent);
    EXPECT_EQ(map_truncateChildGroups(parent, count, 10), result) << children << " " << count;
    EXPECT_EQ(static_cast<int>(child_names(parent).size()), left) << children << " " << count;
  }
}

TEST_F(TreeTest, ListsAChangedParamOnceNewestFirst) {
  Group* net = group("Network");
  Param* a = param("a", net);
  Param* b = param("b", root_);
  for (Param* p : {a, b, a}) map_addUpdatedParamList(p);
  UpdatedParamEntry* head = map_getUpdatedParamList();
  ASSERT_TRUE(head != nullptr && head->next != nullptr);
  EXPECT_EQ(head->param, b);
  EXPECT_EQ(head->next->next, nullptr);
  EXPECT_EQ(map_getUpdatedGroupList()->group, root_);
  EXPECT_EQ(map_getUpdatedGroupList()->next->group, net);
  EXPECT_EQ(a->status, PARAMSTATUS_UPDATED);
  map_deleteParam(a);  // a freed parameter leaves the list
  EXPECT_EQ(map_getUpdatedParamList()->next, nullptr);
  // A getter without a D-Bus message is marked but not listed.
  Param* g = param("g", root_);
  map_setParamOption("getter", "echo 1", g);
  ASSERT_EQ(map_applyGetter(g), 0);
  map_addUpdatedParamList(g);
  EXPECT_EQ(g->status, PARAMSTATUS_UPDATED);
  EXPECT_EQ(map_getUpdatedParamList()->param, b);
}

TEST_F(TreeTest, ReplacingMarksOnlyRealChangesAndStoringNeedsAChange) {
  Param* p = param("p", root_);
  map_replaceParamData(p, string_data("a"));  // DATA_NONE cannot be compared: nothing changes
  EXPECT_EQ(p->value->type, DATA_NONE);
  map_setParamData(p, string_data("a"));
  map_replaceParamData(p, string_data("a"));
  EXPECT_EQ(p->status, PARAMSTATUS_DEFINED);
  map_replaceParamData(p, string_data("b"));
  EXPECT_EQ(p->status, PARAMSTATUS_UPDATED);
  map_notifyParamStored(p);
  EXPECT_EQ(p->status, PARAMSTATUS_STORED);
  EXPECT_EQ(p->synced + p->setterPending, 2);
}

bool same(const char* a, const char* b) {
  return (caseSensitive ? strcmp(a, b) : strcasecmp(a, b)) == 0;
}
bool same_start(const char* a, const char* b, size_t n) {
  return (caseSensitive ? strncmp(a, b, n) : strncasecmp(a, b, n)) == 0;
}

// Descends into every child whose path is a prefix of the wanted path.
Group* walk(Group* current, const char* wanted) {
  if (same(current->path, wanted)) return current;
  for (Group* child = current->children; child != nullptr; child = child->next) {
    Group* found =
        same_start(child->path, wanted, strlen(child->path)) ? walk(child, wanted) : nullptr;
    if (found != nullptr) return found;
  }
  return nullptr;
}

// The groups and parameters below `top` in pre-order, a group's own parameters first.
void collect(Group* top, std::vector<Group*>* groups, std::vector<Param*>* params) {
  groups->push_back(top);
  for (Param* p = top->params; p != nullptr; p = p->next) params->push_back(p);
  for (Group* child = top->children; child != nullptr; child = child->next) {
    collect(child, groups, params);
  }
}

Param* walk_mount(Group* top, const char* value) {
  std::vector<Group*> groups;
  std::vector<Param*> params;
  if (top != nullptr) collect(top, &groups, &params);
  for (Param* p : params) {
    Option* mount = map_getParamOption(p, "mount");
    if (mount != nullptr && strcmp(mount->value, value) == 0) return p;
  }
  return nullptr;
}

Param* first_named(const Group* group, const char* name) {
  for (Param* p = group != nullptr ? group->params : nullptr; p != nullptr; p = p->next) {
    if (same(p->name, name)) return p;
  }
  return nullptr;
}

// The indexes, the remembered look-ups and the shared option lists against plain walks and
// copies: groups and parameters come and go, mounts and options change, the case flag flips.
TEST_F(TreeTest, IndexedLookupsAgreeWithTheWalksOnRandomTrees) {
  std::mt19937 random(7);
  const char* names[] = {"a", "A", "ab", "aB", "b", "a.b", "B.x", "p1", "P2", "p3", "p4", "p5"};
  const char* mounts[] = {"M1", "M2", "M3"};
  const char* options[] = {"type", "dbus", "mount", "x"};
  auto pick = [&](auto& table) { return table[random() % std::size(table)]; };
  std::map<Param*, std::map<std::string, std::string>> copies;  // each parameter's options
  for (int step = 0; step < 4000; step++) {
    caseSensitive = random() % 2;
    std::vector<Group*> groups;
    std::vector<Param*> params;
    collect(root_, &groups, &params);
    std::erase_if(copies, [&](auto& entry) {
      return std::find(params.begin(), params.end(), entry.first) == params.end();
    });
    Group* g = groups[random() % groups.size()];
    Param* some = params.empty() ? nullptr : params[random() % params.size()];
    switch (random() % 10) {
      case 0:
      case 1:
        group(pick(names), g);
        break;
      case 2: {
        auto& copy = copies[param(pick(names), g)];
        copy.clear();
        for (const Option* o = g->options; o != nullptr; o = o->next)
          copy.emplace(o->name, o->value);
        break;
      }
      case 3:
        if (some != nullptr) {
          const char* name = random() % 2 ? "mount" : pick(options);
          const char* value = pick(mounts);
          map_setParamOption(name, value, some);
          copies[some][name] = value;
        }
        break;
      case 4:
        if (g != root_ && random() % 4 == 0) map_removeGroupByPath(g->path, random() % 2, 10);
        break;
      case 5:
        map_setGroupOption(pick(options), pick(mounts), g, random() % 2);
        break;
      case 6:
        if (some != nullptr && random() % 3 == 0) map_deleteParam(some);
        break;
      default: {
        const char* name = pick(names);
        std::string path = std::string(g->path) + "." + name;
        ASSERT_EQ(map_getGroupByPath(path.c_str()), walk(root_, path.c_str())) << path;
        ASSERT_EQ(map_getGroupByPath(g->path), walk(root_, g->path)) << g->path;
        const char* mount = pick(mounts);
        for (const std::string& top : {std::string(g->path), path}) {
          ASSERT_EQ(map_findParamByMountInGroup(top.c_str(), mount),
                    walk_mount(walk(root_, top.c_str()), mount));
        }
        ASSERT_EQ(map_findParamInGroup(name, g), first_named(g, name));
        if (strchr(name, '.') == nullptr) {  // else the path names another group
          ASSERT_EQ(map_getParamByPath(path.c_str()), first_named(walk(root_, g->path), name));
        }
        for (const char* option : options) {
          if (some == nullptr) break;
          const Option* got = map_getParamOption(some, option);
          auto& copy = copies[some];
          ASSERT_EQ(got != nullptr ? got->value : "<none>",
                    copy.count(option) != 0 ? copy[option] : "<none>")
              << some->path << " " << option;
        }
        std::vector<Group*> below;
        std::vector<Param*> order;
        collect(g, &below, &order);
        size_t index = random() % (order.size() + 1);
        for (size_t i = index; i <= index + 1; i++) {
          ASSERT_EQ(map_getParamByIndex(g, i), i < order.size() ? order[i] : nullptr) << i;
        }
        ASSERT_EQ(map_getParamByIndex(g, -1), nullptr);
        Names children = child_names(g);
        int child = static_cast<int>(random() % (children.size() + 2)) - 1;
        const Group* got = map_getChildGroupByIndex(g, child);
        ASSERT_EQ(std::string(got != nullptr ? got->name : "-"),
                  child >= 0 && child < static_cast<int>(children.size()) ? children[child] : "-");
      }
    }
  }
}

}  // namespace
