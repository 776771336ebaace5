// What the running daemon tells the rest of the device on a system bus of the sandbox, and which
// setter commands and getters it runs, normally, with -blockdbusonstart and with -upgrade. How
// each message, command and getter is made is the database's unit tests' (mapping/).
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/sandbox.h"

namespace tessard::test {
namespace {

using Messages = std::vector<std::string>;

// Net's parameters announce themselves (T. stands for the signals' path and interface); Up's is
// read by a getter; Level's bounds, 0 and 100, are queried of org.tessard.Limits (L.), which
// shows in its value; deleting a Rules group announces it, and deleting End closes what a test
// looks at.
constexpr char kConfig[] = R"(accessControl = ":f"
group Net { parser = Standardparser file = "/etc/announce.conf"
  param Place { mount = "Standard{Root}{place}" dbus = "T.Place string:'$VALUE'" }
  param Owner { mount = "Standard{Root}{owner}" setter = "echo set >> /tmp/setter.runs"
    dbus = "T.Owner string:'$VALUE' string:'$NAME'" } }
group Limits { param Level { parser = Standardparser file = "/etc/announce.conf"
  mount = "Standard{Root}{level}" dbustype = "int,MIN:L.Min,MAX:L.Max" } }
group Up { param Time { getter = "echo up; echo get >> /tmp/getter.runs" } }
group Rules {
  group R7 { dbusgroupdel = "T.Removed string:'$NAME|$GROUPNUM|$GROUP'" }
  group R8 { dbusgroupdel = "T.Removed string:'$NAME'" } }
group End { dbusgroupdel = "T.End" }
)";

std::string Config() {
  std::string text = kConfig;
  for (auto [from, to] : {std::pair{"T.", "/org/tessard/Test org.tessard.Test."},
                          std::pair{"L.",
                                    "--dest=org.tessard.Limits /org/tessard/Limits "
                                    "org.tessard.Limits."}}) {
    for (size_t at; (at = text.find(from)) != std::string::npos;) text.replace(at, 2, to);
  }
  return text;
}

// A message as "Member(signature) arg|arg".
std::string Summary(const testbus::Recorded& r) {
  std::string text = r.member + "(" + r.signature + ")";
  for (size_t i = 0; i < r.args.size(); ++i) text += (i == 0 ? " " : "|") + r.args[i];
  return text;
}

struct Mode {
  const char* name;
  const char* flag;
  Messages sent;       // by the end, start-up included
  const char* values;  // of Level and Time, as tessctl prints them
  const char* runs;    // of the setter and the getter
};

void PrintTo(const Mode& mode, std::ostream* os) {
  *os << mode.name;
}

const std::string kRemoved = "Removed(s) root.Rules.R7|7|R7";
const Mode kModes[] = {
    {"Normal",
     "-print0",
     {"Place(s) here", "Owner(ss) Smith|root.Net.Owner", "Owner(ss) Jones|root.Net.Owner",
      kRemoved},
     "0|100\n0|up\n\n",
     "set\n|get\n"},
    // Start-up messages wait for the next setter run of their group; no bounds are queried.
    {"BlockDbusOnStart",
     "-blockdbusonstart",
     {"Place(s) here", "Owner(ss) Jones|root.Net.Owner", kRemoved},
     "0|150\n0|up\n\n",
     "set\n|get\n"},
    // Only group messages and bounds queries; the getter's value is the empty one declared.
    {"Upgrade", "-upgrade", {kRemoved}, "0|100\n0|\n", "|"},
};

class AnnounceTest : public SandboxTest, public testing::WithParamInterface<Mode> {};

// R8 is deleted with the silent sync byte 9, R7 with the deferring 0. Level is 150 in the file.
TEST_P(AnnounceTest, SendsMessagesAndRunsCommandsAsTheModeSays) {
  const Mode& mode = GetParam();
  StartSystemBus();
  testbus::ServiceChild limits;
  std::string error;
  ASSERT_TRUE(limits.start(std::string("unix:path=") + kSystemBusSocket, "org.tessard.Limits",
                           {{"Min", "int32:0"}, {"Max", "int32:100"}}, &error))
      << error;
  WriteFile("/etc/announce.conf", "place here\nowner Smith\nlevel 150\n");
  Serve(Config(), {mode.flag});
  ASSERT_EQ(Ctl("set root.Net.Owner Jones", "delete --sync 9 root.Rules.R8",
                "delete --sync 0 root.Rules.R7", "delete root.End"),
            "0|0|0|0|");
  Messages sent;
  for (const testbus::Recorded& r : bus().wait_before("End")) sent.push_back(Summary(r));
  EXPECT_EQ(sent, mode.sent);
  EXPECT_EQ(Ctl("get root.Limits.Level", "get root.Up.Time"), mode.values);
  auto runs = [] { return ReadFile("/tmp/setter.runs") + "|" + ReadFile("/tmp/getter.runs"); };
  for (int i = 0; i < 500 && runs() != mode.runs; ++i) usleep(10000);
  usleep(300000);  // setter commands run detached: time for one too many to show
  EXPECT_EQ(runs(), mode.runs);
}

INSTANTIATE_TEST_SUITE_P(Modes, AnnounceTest, testing::ValuesIn(kModes),
                         [](const testing::TestParamInfo<Mode>& info) { return info.param.name; });

}  // namespace
}  // namespace tessard::test
