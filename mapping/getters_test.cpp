#include "mapping/getters.h"

#include <gtest/gtest.h>

#include <string>

#include "dbussend/dbussend.h"
#include "tests/support/setters_testutil.h"

namespace tessard::test {
namespace {

class GetterRunTest : public AnnounceTest {
 protected:
  // A getter parameter as the configuration parser leaves it.
  Param* getter(const std::string& command, const char* type = "string") {
    Param* p = param(group("G"), "p", "old", {{"getter", command.c_str()}, {"type", type}});
    EXPECT_EQ(map_applyGetter(p), 0);
    return p;
  }
  static void run(Param* p, int times = 1) {
    while (times-- > 0) map_updateRunGetter(p, map_getParamOption(p, "getter")->value);
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
  run(constant, 2);
  EXPECT_EQ(value_text(constant), "5\n");
  EXPECT_EQ(runs(), 1);
  Param* changing = getter(counted("echo 6"));
  run(changing, 2);
  EXPECT_EQ(value_text(changing), "6\n");
  EXPECT_EQ(runs(), 3);
}

// An echo is tried three times and then leaves an empty value; any other command's output is used
// although it failed.
TEST_F(GetterRunTest, FailingEchoIsRetriedOtherCommandsProvideTheirOutput) {
  Param* p = getter(counted("echo 7; exit 2"));
  run(p);
  EXPECT_EQ(runs(), 3);
  EXPECT_EQ(p->value->type, DATA_NONE);
  map_updateRunGetter(p, "sh -c 'echo 8; exit 1'");
  EXPECT_EQ(value_text(p), "8\n");
}

TEST_F(GetterRunTest, NothingRunsWhenDisabled) {
  Param* p = getter(counted("echo 1"));
  map_updateRunGetter(p,
                      ("disabled" + std::string(map_getParamOption(p, "getter")->value)).c_str());
  map_updateRunGetter(p, nullptr);
  EXPECT_EQ(runs(), 0);
  EXPECT_EQ(value_text(p), "old");
}

TEST(GetterBuildIntConstraint, FormsTheConstraintFromTwoIntegers) {
  // min, max, constraint
  const char* cases[][3] = {{"-1000", "7", "int:maxlength=5,min=-1000,max=7"},
                            {"0x10", "010", "int:maxlength=2,min=16,max=8"},
                            {nullptr, "1", "<none>"},
                            {"1", nullptr, "<none>"},
                            {"one", "1", "<none>"},
                            {"1", "99999999999", "<none>"}};
  for (auto [min, max, expected] : cases) {
    char* built = map_buildIntConstraint(min, max);
    EXPECT_EQ(std::string(built != nullptr ? built : "<none>"), expected);
    free(built);
  }
}

TEST_F(AnnounceTest, ConstraintCorrectsLoadedValuesInMemory) {
  // type option, value, value after the check
  const char* cases[][3] = {{"int:min=0,max=10", "-3", "0"},
                            {"int:min=0,max=10", "7", "7"},
                            {"const:int:range=1,5-7", "3", "5"},
                            {"string", "99", "99"},
                            {nullptr, "99", "99"},
                            {"int:max=3", "abc", "abc"},
                            {"int:max=3", "123456789012345678901", "123456789012345678901"}};
  int n = 0;
  for (auto [type, value, expected] : cases) {
    Param* p = param(group(("G" + std::to_string(n++)).c_str()), "level", value);
    if (type != nullptr) map_setParamOption("type", type, p);
    map_checkParamConstraint(p, 0);
    EXPECT_EQ(value_text(p), expected) << value;
  }
}

TEST_F(GetterRunTest, ConstraintCorrectsAnIntegerScalarInItsOwnForm) {
  Param* p = nullptr;
  ASSERT_EQ(map_createParam("n", group("G"), &p), 0);
  map_setParamOption("type", "int:min=0,max=10", p);
  legacy_drep_initializeScalar(p->value, SCALAR_INT, nullptr);
  legacy_drep_setInt(p->value, 15);
  map_checkParamConstraint(p, 0);
  EXPECT_EQ(legacy_drep_getInt(p->value), 10);
}

// Bounds fetched over D-Bus from a service answering GetMin and GetMax: only a complete query for
// a parameter without a type limits the value.
TEST_F(AnnounceTest, DbusTypeBoundsLimitTheLoadedValueUnlessTypedIncompleteOrFailing) {
  start_bus();
  testbus::ServiceChild service;
  std::string error;
  ASSERT_TRUE(service.start(bus_.address(), "org.tessard.Limits",
                            {{"GetMin", "int32:0"}, {"GetMax", "variant:uint16:100"}}, &error))
      << error;
  std::string got;
  for (auto [max, type] : {std::pair<const char*, const char*>{"GetMax", nullptr},
                           {"GetMax", "string"},
                           {nullptr, nullptr},
                           {"Missing", nullptr}}) {
    std::string call = "--type=method_call --dest=org.tessard.Limits /l org.t.L.";
    std::string dbustype = "x,MIN:" + call + "GetMin" + (max ? ",MAX:" + call + max : "");
    std::string name = "p" + std::to_string(got.size());
    Param* p = param(group("G"), name.c_str(), "150", {{"dbustype", dbustype.c_str()}});
    if (type != nullptr) map_setParamOption("type", type, p);
    map_checkParamConstraint(p, 0);
    got += value_text(p) + " ";
  }
  EXPECT_EQ(got, "100 150 150 150 ");
  EXPECT_EQ(map_queryDbusString("/l bad"), nullptr);
}

}  // namespace
}  // namespace tessard::test
