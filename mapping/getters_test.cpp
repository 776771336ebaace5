#include "mapping/getters.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <string>

#include "dbussend/dbussend.h"
#include "tests/support/setters_testutil.h"

namespace tessard::test {
namespace {

class GetterRunTest : public AnnounceTest {
 protected:
  // A getter parameter as the configuration parser leaves it.
  Param* getter(const std::string& command, const char* type = nullptr) {
    Param* p = param(group("G"), "p", "old", {{"getter", command.c_str()}});
    if (type != nullptr) {
      map_setParamOption("type", type, p);
    }
    EXPECT_EQ(map_applyGetter(p), 0);
    return p;
  }

  // A command that counts its runs in a file and then runs `rest`.
  std::string counted(const std::string& rest) { return "echo run >> " + dir_ + "/runs; " + rest; }

  int runs() const {
    std::string text = read_file("runs");
    return static_cast<int>(std::count(text.begin(), text.end(), '\n'));
  }
};

TEST_F(GetterRunTest, ConstantGetterRunsOnceOtherGettersEveryTime) {
  Param* constant = getter(counted("echo 5"), "const:string");
  map_updateRunGetter(constant, map_getParamOption(constant, "getter")->value);
  map_updateRunGetter(constant, map_getParamOption(constant, "getter")->value);
  EXPECT_EQ(value_of(constant), "5\n");
  EXPECT_EQ(runs(), 1);

  Param* changing = getter(counted("echo 6"));
  map_updateRunGetter(changing, map_getParamOption(changing, "getter")->value);
  map_updateRunGetter(changing, map_getParamOption(changing, "getter")->value);
  EXPECT_EQ(value_of(changing), "6\n");
  EXPECT_EQ(runs(), 3);
}

TEST_F(GetterRunTest, FailingCommandStillProvidesItsOutputAndLogsTheRawStatus) {
  std::string command = "sh -c 'echo 7; exit 1'";
  Param* p = getter(command);
  map_updateRunGetter(p, command.c_str());
  EXPECT_EQ(value_of(p), "7\n");
  EXPECT_EQ(count_logged("Script '" + command + "' for param 'root.G.p' failed. Exit status: 256"),
            1);
}

TEST_F(GetterRunTest, FailingEchoIsTriedThreeTimesThenLeavesAnEmptyValue) {
  std::string command = "echo 7; echo run >> " + dir_ + "/runs; exit 2";
  Param* p = getter(command);
  map_updateRunGetter(p, command.c_str());
  EXPECT_EQ(runs(), 3);
  EXPECT_EQ(p->value->type, DATA_NONE);
  std::string line = "Script '" + command + "' for param 'root.G.p' failed. Exit status: 512";
  EXPECT_EQ(count_logged(line), 4);
  auto log = captured_log();
  ASSERT_FALSE(log.empty());
  EXPECT_EQ(log.back().priority, LOG_WARNING);

  // A later successful run gives the parameter its value again.
  std::string good = "printf 8";
  map_updateRunGetter(p, good.c_str());
  EXPECT_EQ(value_of(p), "8");
}

TEST_F(GetterRunTest, NothingRunsInUpgradeModeOrWhenDisabled) {
  Param* p = getter(counted("echo 1"));
  std::string before = value_of(p);
  map_updateRunGetter(p, ("disabled" + counted("echo 1")).c_str());
  map_updateRunGetter(p, nullptr);
  upgradeMode = 1;
  map_updateRunGetter(p, counted("echo 1").c_str());
  EXPECT_EQ(runs(), 0);
  EXPECT_EQ(value_of(p), before);
}

struct BuildCase {
  const char* min;
  const char* max;
  const char* expected;  // null: no constraint
};

void PrintTo(const BuildCase& c, std::ostream* os) {
  *os << (c.min ? c.min : "null") << " " << (c.max ? c.max : "null");
}

class GetterBuildIntConstraintTest : public testing::TestWithParam<BuildCase> {};

TEST_P(GetterBuildIntConstraintTest, FormsTheConstraintFromTwoIntegers) {
  char* built = map_buildIntConstraint(GetParam().min, GetParam().max);
  if (GetParam().expected == nullptr) {
    EXPECT_EQ(built, nullptr) << built;
  } else {
    EXPECT_STREQ(built, GetParam().expected);
  }
  free(built);
}

INSTANTIATE_TEST_SUITE_P(Replies, GetterBuildIntConstraintTest,
                         testing::Values(BuildCase{"0", "100", "int:maxlength=3,min=0,max=100"},
                                         BuildCase{"-1000", "7", "int:maxlength=5,min=-1000,max=7"},
                                         BuildCase{"0x10", "010", "int:maxlength=2,min=16,max=8"},
                                         BuildCase{" 5\n", "6", "int:maxlength=1,min=5,max=6"},
                                         BuildCase{nullptr, "1", nullptr},
                                         BuildCase{"1", nullptr, nullptr},
                                         BuildCase{"", "1", nullptr},
                                         BuildCase{"one", "1", nullptr},
                                         BuildCase{"1", "99999999999", nullptr}));

struct ConstraintCase {
  const char* type;  // null: no type option
  const char* value;
  const char* expected;
  const char* logged;  // null: nothing logged
};

void PrintTo(const ConstraintCase& c, std::ostream* os) {
  *os << (c.type ? c.type : "no type") << " " << c.value;
}

class GetterConstraintTest : public AnnounceTest,
                             public testing::WithParamInterface<ConstraintCase> {};

TEST_P(GetterConstraintTest, CorrectsLoadedValuesInMemory) {
  const ConstraintCase& c = GetParam();
  Param* p = param(group("G"), "level", c.value);
  if (c.type != nullptr) {
    map_setParamOption("type", c.type, p);
  }
  map_checkParamConstraint(p, 0);
  EXPECT_EQ(value_of(p), c.expected);
  auto log = captured_log();
  ASSERT_EQ(log.size(), c.logged != nullptr ? 1u : 0u);
  if (c.logged != nullptr) {
    EXPECT_EQ(log[0].message, c.logged);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Values, GetterConstraintTest,
    testing::Values(
        ConstraintCase{"int:min=0,max=10", "15", "10",
                       "level received a value out of range when defined."},
        ConstraintCase{"int:min=0,max=10", "-3", "0",
                       "level received a value out of range when defined."},
        ConstraintCase{"int:min=0,max=10", "7", "7", nullptr},
        ConstraintCase{"const:int:range=1,5-7", "3", "5",
                       "level received a value out of range when defined."},
        ConstraintCase{"string", "99", "99", nullptr}, ConstraintCase{nullptr, "99", "99", nullptr},
        ConstraintCase{"int:max=3", "abc", "abc",
                       "level was supposed to be an int, but wasn't. Value check has been "
                       "ignored."},
        ConstraintCase{"int:max=3", "123456789012345678901", "123456789012345678901",
                       "level was supposed to be an int, but wasn't. Value check has been "
                       "ignored."}));

using GetterIntScalarTest = AnnounceTest;

TEST_F(GetterIntScalarTest, ConstraintCorrectsAnIntegerScalarInItsOwnForm) {
  Param* p = nullptr;
  ASSERT_EQ(map_createParam("n", group("G"), &p), 0);
  map_setParamOption("type", "int:min=0,max=10", p);
  legacy_drep_initializeScalar(p->value, SCALAR_INT, nullptr);
  legacy_drep_setInt(p->value, 15);
  map_checkParamConstraint(p, 0);
  EXPECT_EQ(legacy_drep_getInt(p->value), 10);
}

// Bounds fetched over D-Bus from a service answering GetMin and GetMax.
class GetterDbusTypeTest : public AnnounceTest {
 protected:
  void SetUp() override {
    AnnounceTest::SetUp();
    start_bus();
    std::string error;
    ASSERT_TRUE(service_.start(bus_.address(), "org.tessard.Limits",
                               {{"GetMin", "int32:0"}, {"GetMax", "variant:uint16:100"}}, &error))
        << error;
  }

  Param* limited(const char* dbustype) {
    return param(group("G"), "p", "150", {{"dbustype", dbustype}});
  }

  testbus::ServiceChild service_;
};

constexpr char kLimits[] =
    "ignored,MIN:--type=method_call --dest=org.tessard.Limits /l org.t.L.GetMin"
    ",MAX:--type=method_call --dest=org.tessard.Limits /l org.t.L.GetMax";

TEST_F(GetterDbusTypeTest, QueriedBoundsLimitTheLoadedValue) {
  Param* p = limited(kLimits);
  map_checkParamConstraint(p, 0);
  EXPECT_EQ(value_of(p), "100");
}

TEST_F(GetterDbusTypeTest, NoQueryWhenBlockedOrTypedOrIncomplete) {
  Param* blocked = limited(kLimits);
  map_checkParamConstraint(blocked, 1);
  Param* typed = limited(kLimits);
  map_setParamOption("type", "string", typed);
  map_checkParamConstraint(typed, 0);
  Param* no_max = limited("x,MIN:--type=method_call --dest=org.tessard.Limits /l org.t.L.GetMin");
  map_checkParamConstraint(no_max, 0);
  EXPECT_EQ(value_of(blocked) + value_of(typed) + value_of(no_max), "150150150");
}

TEST_F(GetterDbusTypeTest, QueryFailuresAreLoggedAndApplyNoConstraint) {
  EXPECT_EQ(map_queryDbusString("/l bad"), nullptr);
  EXPECT_EQ(count_logged("Dbus message \"/l bad\" not valid : Invalid INTERFACE.MEMBER 'bad'"), 1);
  Param* p = limited(
      "x,MIN:--type=method_call --dest=org.tessard.Limits /l org.t.L.GetMin"
      ",MAX:--type=method_call --dest=org.tessard.Limits /l org.t.L.Missing");
  map_checkParamConstraint(p, 0);
  EXPECT_EQ(value_of(p), "150");
  EXPECT_EQ(count_logged("Could not send dbus message: --type=method_call "
                         "--dest=org.tessard.Limits /l org.t.L.Missing : "),
            1);
}

}  // namespace
}  // namespace tessard::test
