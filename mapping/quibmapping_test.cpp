#include "mapping/quibmapping.h"

#include <gtest/gtest.h>
#include <strings.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "mapping/quibmapping_state.h"
#include "values/legacydatarep.h"

namespace {

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
  Param* param(const char* name, Group* owner) {
    Param* out = nullptr;
    EXPECT_EQ(map_createParam(name, owner, &out), 0);
    return out;
  }
  static std::vector<std::string> child_names(const Group* parent) {
    std::vector<std::string> names;
    for (const Group* g = parent->children; g != nullptr; g = g->next) names.push_back(g->name);
    return names;
  }

  Group* root_ = nullptr;
};

TEST_F(TreeTest, CutsNamesAt32AndFindsTheGroupAgainByThePrefix) {
  std::string long_name(40, 'n');
  Group* first = group(long_name.c_str());
  EXPECT_EQ(std::string(first->name), long_name.substr(0, 32));
  EXPECT_EQ(std::string(first->path), "root." + long_name.substr(0, 32));
  Group* again = nullptr;
  EXPECT_EQ(map_addGroup((long_name.substr(0, 32) + "xyz").c_str(), root_, &again), -1);
  EXPECT_EQ(again, first);
  Param* p = param(long_name.c_str(), first);
  EXPECT_EQ(strlen(p->name), 32u);
  EXPECT_EQ(map_getParamByPath(p->path), p);
  EXPECT_EQ(map_findParamInGroup(long_name.c_str(), first), nullptr);  // whole names compare
  EXPECT_EQ(map_addGroup("", root_, &again), -3);
}

TEST_F(TreeTest, KeepsChildrenSortedWithoutRegardToCaseAndEqualNamesInArrivalOrder) {
  group("beta");
  group("Alpha");
  group("gamma");
  EXPECT_EQ(child_names(root_), (std::vector<std::string>{"Alpha", "beta", "gamma"}));
  caseSensitive = 1;
  group("BETA");
  group("ALPHA");
  EXPECT_EQ(child_names(root_),
            (std::vector<std::string>{"Alpha", "ALPHA", "beta", "BETA", "gamma"}));
}

struct LookupCase {
  int case_sensitive;
  const char* path;
  bool group_found;
  bool param_found;
};

class LookupTest : public TreeTest, public ::testing::WithParamInterface<LookupCase> {};

TEST_P(LookupTest, FollowsTheCaseFlag) {
  Group* network = group("Network");
  Param* x = param("x", network);
  param("p", root_);
  caseSensitive = GetParam().case_sensitive;
  std::string path = GetParam().path;
  EXPECT_EQ(map_getGroupByPath(path.c_str()) != nullptr, GetParam().group_found) << path;
  EXPECT_EQ(map_getParamByPath((path + ".x").c_str()) == x, GetParam().param_found) << path;
}

INSTANTIATE_TEST_SUITE_P(Paths, LookupTest,
                         ::testing::Values(LookupCase{0, "root.Network", true, true},
                                           LookupCase{0, "root.NETWORK", true, true},
                                           LookupCase{0, "ROOT.network", true, true},
                                           LookupCase{1, "root.Network", true, true},
                                           LookupCase{1, "root.NETWORK", false, false},
                                           LookupCase{0, "root.Net", false, false},
                                           LookupCase{0, "root.Networks", false, false}));

TEST_F(TreeTest, ParamByPathNeedsADotAndMatchesTheLastComponent) {
  Param* p = param("p", root_);
  EXPECT_EQ(map_getParamByPath("root"), nullptr);
  EXPECT_EQ(map_getParamByPath("root.p"), p);
  EXPECT_EQ(map_getParamByPath("root.P"), p);
  EXPECT_EQ(map_getParamByPath("root.q"), nullptr);
  EXPECT_EQ(map_getParamByPath("root."), nullptr);
  EXPECT_EQ(map_getGroupByPath("root"), root_);
}

TEST_F(TreeTest, WalkBacktracksFromAPrefixThatIsNotAnAncestor) {
  Group* ab = group("ab");
  Group* abc = group("abc");
  Group* x = group("x", abc);
  param("y", ab);
  Param* y = param("y", x);
  EXPECT_EQ(map_getGroupByPath("root.abc.x"), x);
  EXPECT_EQ(map_getParamByPath("root.abc.x.y"), y);
  EXPECT_EQ(map_getGroupByPath("root.ab.x"), nullptr);
}

TEST_F(TreeTest, ExistingGroupTakesParentOptionsItLacksAndKeepsItsOwn) {
  Group* child = group("child");
  ASSERT_EQ(map_setGroupOption("type", "int", root_, 0), 0);  // after child: not inherited
  ASSERT_EQ(map_setGroupOption("owned", "mine", child, 0), 0);
  ASSERT_EQ(map_setGroupOption("owned", "parents", root_, 0), 0);
  ASSERT_EQ(map_setGroupOption("file", "/etc/a", root_, 0), 0);
  EXPECT_EQ(map_getGroupOption(child, "type"), nullptr);
  Group* again = nullptr;
  EXPECT_EQ(map_addGroup("CHILD", root_, &again), -1);
  EXPECT_EQ(again, child);
  EXPECT_STREQ(map_getGroupOption(child, "type")->value, "int");
  EXPECT_STREQ(map_getGroupOption(child, "file")->value, "/etc/a");
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

TEST_F(TreeTest, ParameterKeepsTheOptionsOfItsCreation) {
  ASSERT_EQ(map_setGroupOption("accessControl", "r:all", root_, 0), 0);
  Param* p = param("p", root_);
  Option* source = map_getGroupOption(root_, "accessControl");
  Option* copy = map_getParamOption(p, "accessControl");
  ASSERT_EQ(map_setGroupOption("accessControl", "w:all", root_, 0), 0);
  ASSERT_EQ(map_setGroupOption("late", "x", root_, 0), 0);
  EXPECT_STREQ(copy->value, "r:all");  // a parameter keeps the options of its creation
  EXPECT_STREQ(source->value, "w:all");
  EXPECT_EQ(map_getParamOption(p, "late"), nullptr);
  ASSERT_EQ(map_setParamOption("accessControl", "x:y", p), 0);
  EXPECT_STREQ(map_getParamOption(p, "accessControl")->value, "x:y");
}

TEST_F(TreeTest, DisabledGetterStillStripsTheFileOptions) {
  ASSERT_EQ(map_setGroupOption("file", "/etc/x", root_, 0), 0);
  Param* p = param("p", root_);
  for (const char* name : {"mount", "parser", "setter", "dbus", "type", "getter"}) {
    ASSERT_EQ(map_setParamOption(name, name[0] == 'g' ? "disabled" : "v", p), 0);
  }
  ASSERT_EQ(map_findParamByMount("v"), p);
  EXPECT_EQ(map_applyGetter(p), 0);
  EXPECT_EQ(p->hasGetter, 1);
  for (const char* gone : {"file", "mount", "parser", "setter"}) {
    EXPECT_EQ(map_getParamOption(p, gone), nullptr) << gone;
  }
  for (const char* kept : {"dbus", "type", "getter"}) {
    EXPECT_NE(map_getParamOption(p, kept), nullptr) << kept;
  }
  EXPECT_EQ(map_findParamByMount("v"), nullptr);
  EXPECT_STREQ(legacy_drep_getTypeName(p->value), "string");
  EXPECT_EQ(map_applyGetter(p), 0);  // declared again
}

TEST_F(TreeTest, MountLookupTakesTheFirstMountOptionInPreOrder) {
  Group* a = group("a");
  Group* b = group("b");
  Group* b1 = group("b1", b);
  Param* in_b1 = param("p", b1);
  Param* in_b = param("q", b);
  Param* second = param("r", b);
  Param* other = param("s", a);
  map_setParamOption("mount", "M", in_b1);
  map_setParamOption("mount", "M", in_b);
  map_setParamOption("mount", "M", second);
  map_setParamOption("mount", "first", other);
  EXPECT_EQ(map_findParamByMount("M"), in_b);  // a group's own params before its children
  EXPECT_EQ(map_findParamByMountInGroup("root.b.b1", "M"), in_b1);
  EXPECT_EQ(map_findParamByMountInGroup("root.a", "M"), nullptr);
  EXPECT_EQ(map_findParamByMountInGroup("root.nothere", "M"), nullptr);
  EXPECT_EQ(map_findParamByMount("first"), other);
  map_setParamOption("mount", "moved", in_b);
  EXPECT_EQ(map_findParamByMount("M"), second);
  EXPECT_EQ(map_findParamByMount("moved"), in_b);
  map_setGroupOption("mount", "inherited", b1, 0);
  Param* inherits = param("t", b1);
  EXPECT_EQ(map_findParamByMount("inherited"), inherits);
}

TEST_F(TreeTest, IndexesCountInPreOrderAndRefuseNegatives) {
  Group* a = group("a");
  Group* b = group("b");
  Param* b0 = param("b0", b);
  param("a0", a);
  EXPECT_EQ(map_getParamByIndex(root_, 1), b0);  // a's subtree before b's
  EXPECT_EQ(map_getParamByIndex(root_, 2), nullptr);
  EXPECT_EQ(map_getParamByIndex(root_, -1), nullptr);
  EXPECT_EQ(map_getChildGroupByIndex(root_, 1), b);
  EXPECT_EQ(map_getChildGroupByIndex(root_, 2), nullptr);
  EXPECT_EQ(map_getChildGroupByIndex(root_, -1), nullptr);
}

TEST_F(TreeTest, RemovalUnlinksTheRightSiblingAndForgetsTheSubtree) {
  for (const char* name : {"a", "b", "c"}) group(name);
  Group* b1 = group("b1", map_getGroupByPath("root.b"));
  param("p", b1);
  map_setParamOption("mount", "M", b1->params);
  map_removeGroupByPath("root.b", 0, 10);
  EXPECT_EQ(child_names(root_), (std::vector<std::string>{"a", "c"}));
  EXPECT_EQ(map_getGroupByPath("root.b.b1"), nullptr);
  EXPECT_EQ(map_findParamByMount("M"), nullptr);
  map_removeGroupByPath("root.a", 0, 10);
  EXPECT_EQ(child_names(root_), (std::vector<std::string>{"c"}));
  Group* again = group("b");
  EXPECT_EQ(map_getGroupByPath("root.b"), again);
}

TEST_F(TreeTest, DeferredRemovalKeepsTheRecordsListedUntilSync) {
  Group* a = group("a");
  Group* a1 = group("a1", a);
  map_removeGroupByPath("root.a", 1, 10);
  EXPECT_EQ(map_getGroupByPath("root.a"), nullptr);
  EXPECT_EQ(root_->children, nullptr);
  EXPECT_TRUE(a->removed && a1->removed);
  UpdatedGroupEntry* head = map_getUpdatedGroupList();
  ASSERT_NE(head, nullptr);
  EXPECT_EQ(head->group, a);  // the group after its subtree, newest first
  ASSERT_NE(head->next, nullptr);
  EXPECT_EQ(head->next->group, a1);
}

// A subtree's groups read option names their ancestors own until they are freed: the parent
// goes last.
TEST_F(TreeTest, DeferredRemovalFreesTheSubtreeBeforeTheParentWhoseOptionsItShares) {
  Group* a = group("a");
  ASSERT_EQ(map_setGroupOption("maxGroups", "4", a, 0), 0);
  Group* a1 = group("a1", a);
  map_setParamOption("mount", "M", param("p", a1));
  map_removeGroupByPath("root.a", 1, 10);
  map_emptyUpdatedLists(10);
  EXPECT_EQ(map_getUpdatedGroupList(), nullptr);
  EXPECT_EQ(map_findParamByMount("M"), nullptr);
}

TEST_F(TreeTest, RemovingAMissingPathIsFatal) {
  EXPECT_EXIT(map_removeGroupByPath("root.none", 0, 10), ::testing::ExitedWithCode(1), "");
}

struct TruncateCase {
  int children;
  int count;
  int result;
  int left;
};

class TruncateTest : public TreeTest, public ::testing::WithParamInterface<TruncateCase> {};

TEST_P(TruncateTest, KeepsTheFirstCountChildren) {
  Group* parent = group("parent");
  for (int i = 0; i < GetParam().children; i++) group(("c" + std::to_string(i)).c_str(), parent);
  EXPECT_EQ(map_truncateChildGroups(parent, GetParam().count, 10), GetParam().result);
  EXPECT_EQ(static_cast<int>(child_names(parent).size()), GetParam().left);
}

INSTANTIATE_TEST_SUITE_P(Counts, TruncateTest,
                         ::testing::Values(TruncateCase{5, 2, 0, 2}, TruncateCase{2, 2, 0, 2},
                                           TruncateCase{1, 2, 1, 1}, TruncateCase{0, 1, 1, 0},
                                           TruncateCase{3, 0, 1, 3}));

TEST_F(TreeTest, PrintsGroupsByNameWithParamOptions) {
  Group* net = group("Network");
  Param* ip = param("IP", net);
  map_setParamOption("type", "ip", ip);
  map_setParamOption("file", "/etc/net", ip);
  param("Empty", root_);
  group("Sub", net);
  testing::internal::CaptureStdout();
  map_printTree(nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "[root]\n"
            "  Empty: \n"
            "  [Network]\n"
            "    IP: type=ip file=/etc/net \n"
            "    [Sub]\n");
}

TEST_F(TreeTest, ListsAChangedParamOnceNewestFirst) {
  Group* net = group("Network");
  Param* a = param("a", net);
  Param* b = param("b", root_);
  map_addUpdatedParamList(a);
  map_addUpdatedParamList(b);
  map_addUpdatedParamList(a);
  UpdatedParamEntry* head = map_getUpdatedParamList();
  ASSERT_NE(head, nullptr);
  EXPECT_EQ(head->param, b);
  EXPECT_STREQ(head->envName, "root_b");
  ASSERT_NE(head->next, nullptr);
  EXPECT_STREQ(head->next->envName, "root_Network_a");
  EXPECT_EQ(head->next->next, nullptr);
  EXPECT_EQ(map_getUpdatedGroupList()->group, root_);
  EXPECT_EQ(map_getUpdatedGroupList()->next->group, net);
  EXPECT_EQ(a->status, PARAMSTATUS_UPDATED);
  map_deleteParam(a);  // a freed parameter leaves the list
  EXPECT_EQ(map_getUpdatedParamList()->next, nullptr);
}

TEST_F(TreeTest, GetterWithoutDbusIsMarkedButNotListed) {
  Param* p = param("p", root_);
  map_setParamOption("getter", "echo 1", p);
  ASSERT_EQ(map_applyGetter(p), 0);
  map_addUpdatedParamList(p);
  EXPECT_EQ(p->status, PARAMSTATUS_UPDATED);
  EXPECT_EQ(map_getUpdatedParamList(), nullptr);
}

Data* string_value(const char* text) {
  Data* data = legacy_drep_createData();
  EXPECT_EQ(legacy_drep_initializeScalar(data, SCALAR_CUSTOM, "string"), 0);
  EXPECT_EQ(legacy_drep_setCustomFromString(data, text, nullptr), 0);
  return data;
}

TEST_F(TreeTest, ReplacingMarksOnlyRealChanges) {
  Param* p = param("p", root_);
  map_replaceParamData(p, string_value("a"));  // DATA_NONE cannot be compared: nothing changes
  EXPECT_EQ(p->value->type, DATA_NONE);
  map_setParamData(p, string_value("a"));
  map_replaceParamData(p, string_value("a"));
  EXPECT_EQ(p->status, PARAMSTATUS_DEFINED);
  map_replaceParamData(p, string_value("b"));
  EXPECT_EQ(p->status, PARAMSTATUS_UPDATED);
}

TEST_F(TreeTest, StoringAParamThatWasNotUpdatedIsFatal) {
  Param* p = param("p", root_);
  EXPECT_EXIT(map_notifyParamStored(p), ::testing::ExitedWithCode(1), "");
  map_addUpdatedParamList(p);
  map_notifyParamStored(p);
  EXPECT_EQ(p->status, PARAMSTATUS_STORED);
  EXPECT_EQ(p->synced, 1);
  EXPECT_EQ(p->setterPending, 1);
}

// --- The indexes against the walks they replace --------------------------------------------------

// The group walk: descend into every child whose path is a prefix of the wanted path.
Group* walk(Group* current, const char* wanted) {
  auto equal = [](const char* a, const char* b) {
    return caseSensitive ? strcmp(a, b) == 0 : strcasecmp(a, b) == 0;
  };
  if (equal(current->path, wanted)) return current;
  for (Group* child = current->children; child != nullptr; child = child->next) {
    size_t n = strlen(child->path);
    bool prefix = caseSensitive ? strncmp(child->path, wanted, n) == 0
                                : strncasecmp(child->path, wanted, n) == 0;
    if (prefix) {
      if (Group* found = walk(child, wanted)) return found;
    }
  }
  return nullptr;
}

Param* walk_mount(Group* group, const char* value) {
  for (Param* p = group->params; p != nullptr; p = p->next) {
    Option* mount = map_getParamOption(p, "mount");
    if (mount != nullptr && strcmp(mount->value, value) == 0) return p;
  }
  for (Group* child = group->children; child != nullptr; child = child->next) {
    if (Param* found = walk_mount(child, value)) return found;
  }
  return nullptr;
}

void collect_params(Group* group, std::vector<Param*>* params) {
  for (Param* p = group->params; p != nullptr; p = p->next) params->push_back(p);
  for (Group* child = group->children; child != nullptr; child = child->next) {
    collect_params(child, params);
  }
}

void collect(Group* group, std::vector<Group*>* groups) {
  groups->push_back(group);
  for (Group* child = group->children; child != nullptr; child = child->next) {
    collect(child, groups);
  }
}

Param* first_named(const Group* group, const char* name) {
  for (Param* p = group != nullptr ? group->params : nullptr; p != nullptr; p = p->next) {
    if (caseSensitive ? strcmp(p->name, name) == 0 : strcasecmp(p->name, name) == 0) return p;
  }
  return nullptr;
}

using OptionList = std::vector<std::pair<std::string, std::string>>;

// Sets the first option named name or appends one, as a plain copied list would.
void model_set(OptionList* list, const char* name, const char* value) {
  for (auto& [n, v] : *list) {
    if (n == name) {
      v = value;
      return;
    }
  }
  list->emplace_back(name, value);
}

// The indexes, the remembered look-ups and the shared option lists against plain walks and
// copies: groups and parameters come and go, mounts and options change, the case flag flips.
TEST_F(TreeTest, IndexedLookupsAgreeWithTheWalksOnRandomTrees) {
  std::mt19937 random(7);
  const char* names[] = {"a", "A", "ab", "aB", "b", "a.b", "B.x", "p1", "P2", "p3", "p4", "p5"};
  const char* mounts[] = {"M1", "M2", "M3"};
  const char* options[] = {"type", "dbus", "mount", "x"};
  auto pick = [&](auto& table) { return table[random() % std::size(table)]; };
  std::map<Param*, OptionList> copies;
  for (int step = 0; step < 4000; step++) {
    caseSensitive = random() % 2;
    std::vector<Group*> groups;
    collect(root_, &groups);
    std::vector<Param*> params;
    collect_params(root_, &params);
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
        Param* p = param(pick(names), g);
        OptionList& copy = copies[p];
        copy.clear();
        for (const Option* o = g->options; o != nullptr; o = o->next)
          copy.emplace_back(o->name, o->value);
        break;
      }
      case 3:
        if (some != nullptr) {
          const char* name = random() % 2 ? "mount" : pick(options);
          const char* value = pick(mounts);
          map_setParamOption(name, value, some);
          model_set(&copies[some], name, value);
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
        std::string path = std::string(g->path) + "." + pick(names);
        ASSERT_EQ(map_getGroupByPath(path.c_str()), walk(root_, path.c_str())) << path;
        ASSERT_EQ(map_getGroupByPath(g->path), walk(root_, g->path)) << g->path;
        const char* mount = pick(mounts);
        ASSERT_EQ(map_findParamByMountInGroup(g->path, mount),
                  walk_mount(walk(root_, g->path), mount));
        const char* name = pick(names);
        ASSERT_EQ(map_findParamInGroup(name, g), first_named(g, name));
        path = std::string(g->path) + "." + name;
        if (strchr(name, '.') == nullptr) {  // else the path names another group
          ASSERT_EQ(map_getParamByPath(path.c_str()), first_named(walk(root_, g->path), name));
        }
        if (some != nullptr) {
          for (const char* option : options) {
            const Option* got = map_getParamOption(some, option);
            auto want = std::find_if(copies[some].begin(), copies[some].end(),
                                     [&](auto& entry) { return entry.first == option; });
            ASSERT_EQ(got == nullptr, want == copies[some].end()) << some->path << " " << option;
            if (got != nullptr) {
              ASSERT_EQ(got->value, want->second) << some->path;
            }
          }
        }
        std::vector<Param*> order;
        collect_params(g, &order);
        size_t index = random() % (order.size() + 1);
        for (size_t i = index; i <= index + 1; i++) {
          ASSERT_EQ(map_getParamByIndex(g, i), i < order.size() ? order[i] : nullptr) << i;
        }
      }
    }
  }
}

}  // namespace
