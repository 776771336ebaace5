// What the running daemon tells the rest of the device: D-Bus messages on a system bus of the
// sandbox, also with -blockdbusonstart, and what -upgrade holds back. Setter commands, signals and
// getters themselves are the database's unit tests' (mapping/).
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/clientcalls.h"
#include "tests/support/sandbox.h"

namespace tessard::test {
namespace {

using Messages = std::vector<std::string>;

constexpr char kBacking[] = "/etc/announce.conf";
constexpr char kSignalPrefix[] = "/org/tessard/Test org.tessard.Test.";
// Bounds of dbustype parameters come from this service.
constexpr char kLimits[] = "org.tessard.Limits";
constexpr char kLimitQueries[] =
    "int,MIN:--dest=org.tessard.Limits /org/tessard/Limits org.tessard.Limits.Min"
    ",MAX:--dest=org.tessard.Limits /org/tessard/Limits org.tessard.Limits.Max";

// One Standard-parser parameter at key `key` of the backing file, with further options.
std::string Param(const std::string& name, const std::string& key, const std::string& options) {
  return "  param " + name + " { mount = \"Standard{Root}{" + key + "}\" " + options + " }\n";
}

std::string Group(const std::string& name, const std::string& body) {
  return "group " + name + " {\n  parser = Standardparser\n  file = \"" + kBacking + "\"\n" + body +
         "}\n";
}

std::string Option(const std::string& name, const std::string& value) {
  return name + " = \"" + value + "\" ";
}

// A group without parameters whose removal is announced.
std::string RemovableGroup(const std::string& name) {
  return "group " + name + " { " +
         Option("dbusgroupdel",
                std::string(kSignalPrefix) + "Removed string:'$NAME|$GROUPNUM|$GROUP'") +
         "}\n";
}

// A message as "Member(signature) arg|arg", enough to tell every message of these tests apart.
std::string Summary(const testbus::Recorded& r) {
  std::string text = r.member + "(" + r.signature + ")";
  for (size_t i = 0; i < r.args.size(); ++i) text += (i == 0 ? " " : "|") + r.args[i];
  return text;
}

Messages Summaries(const std::vector<testbus::Recorded>& recorded) {
  Messages out;
  for (const testbus::Recorded& r : recorded) out.push_back(Summary(r));
  return out;
}

class AnnounceTest : public SandboxTest {
 protected:
  void TearDown() override {
    limits_.stop();
    SandboxTest::TearDown();
  }

  void Serve(const std::string& config, const std::string& backing,
             std::vector<std::string> extra = {}) {
    WriteFile("/etc/tessard.conf", "accessControl = \":f\"\n" + config);
    WriteFile(kBacking, backing);
    std::vector<std::string> args = {"/etc/tessard.conf", "0"};
    args.insert(args.end(), extra.begin(), extra.end());
    StartServing(args);
  }

  // The system bus with the service that answers the bounds of dbustype parameters.
  void StartBusAndLimits(const std::string& min, const std::string& max) {
    StartSystemBus();
    if (HasFatalFailure()) return;
    std::string error;
    ASSERT_TRUE(limits_.start(std::string("unix:path=") + kSystemBusSocket, kLimits,
                              {{"Min", min}, {"Max", max}}, &error))
        << error;
  }

  // The file once it holds `lines` lines and a little longer, so that a line too many would show
  // too (setter commands run detached).
  static std::string SettledText(const std::string& path, size_t lines) {
    auto count = [&] {
      std::string text = ReadFile(path);
      return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
    };
    for (int tries = 0; tries < 500 && count() < lines; ++tries) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    return ReadFile(path);
  }

  testbus::ServiceChild limits_;
};

// ---- D-Bus messages -------------------------------------------------------------------------

std::string MessagesConfig() {
  std::string place =
      Option("dbus", std::string(kSignalPrefix) + "Place string:'x $NAME $GROUPNUM $GROUP'");
  return Group("I3", Param("Place", "place", place)) +
         Group("Limits", Param("Level", "level", Option("dbustype", kLimitQueries))) +
         Group("Network",
               Param("Place", "place", place) +
                   Param("Owner", "owner",
                         Option("dbus", std::string(kSignalPrefix) +
                                            "Owner string:'$VALUE' string:'$NAME'")) +
                   Param("Secret", "secret",
                         Option("type", "password") +
                             Option("dbus",
                                    "--type=method_call --print-reply --dest=org.tessard.Nobody "
                                    "/org/tessard/Nobody org.tessard.Nobody.Set string:'$VALUE' "
                                    "string:after"))) +
         "group Rules {\n" + RemovableGroup("R7") + RemovableGroup("R8") + "}\n" +
         // Sorted last, so its message closes the start-up messages; set again it closes later
         // ones.
         Group("Zz", Param("Marker", "marker",
                           Option("dbus", std::string(testbus::kMarkerText) + " string:'$VALUE'")));
}
constexpr char kMessagesBacking[] =
    "place here\nlevel 150\nowner Smith\nsecret hunter2\nmarker m\n";

class DbusMessagesTest : public AnnounceTest {
 protected:
  void SetUp() override {
    AnnounceTest::SetUp();
    if (HasFatalFailure()) return;
    StartBusAndLimits("int32:0", "int32:100");
  }

  // Everything the daemon sent before the marker that a SET of Marker makes it send now.
  Messages SentSoFar(const std::string& marker_value) {
    EXPECT_EQ(Set("root.Zz.Marker", marker_value, 10), TESSCLIENT_OK);
    return Summaries(bus().wait_for_marker());
  }
};

TEST_F(DbusMessagesTest, StartUpSendsEachParameterMessageWithItsGroupPlaceholders) {
  Serve(MessagesConfig(), kMessagesBacking);
  std::vector<testbus::Recorded> sent = bus().wait_for_marker();
  EXPECT_EQ(
      Summaries(sent),
      (Messages{"Min()", "Max()", "Place(s) x $NAME 3 I3", "Place(s) x root.Network.Place  Network",
                "Owner(ss) Smith|root.Network.Owner", "Set(ss) hunter2|after"}));
  ASSERT_GE(sent.size(), 3u);
  EXPECT_EQ(sent[0].destination, kLimits);
  EXPECT_EQ(sent[0].path, "/org/tessard/Limits");
  EXPECT_TRUE(sent[2].signal);
  EXPECT_EQ(sent[2].path, "/org/tessard/Test");
  EXPECT_EQ(sent[2].interface, "org.tessard.Test");
  EXPECT_EQ(Get("root.Limits.Level"), "100") << "150 from the file, bounded by 0 and 100";
}

TEST_F(DbusMessagesTest, BlockDbusOnStartPostponesStartUpMessagesToTheNextSetterRun) {
  Serve(MessagesConfig(), kMessagesBacking, {"-blockdbusonstart"});
  ASSERT_EQ(Set("root.Network.Owner", "Jones", 10), TESSCLIENT_OK);
  // Nothing at start-up, no bounds queried; the setter run of Network sends its parameters'
  // postponed messages with the changed one; I3 stays postponed.
  EXPECT_EQ(SentSoFar("m2"),
            (Messages{"Place(s) x root.Network.Place  Network",
                      "Owner(ss) Jones|root.Network.Owner", "Set(ss) hunter2|after"}));
  EXPECT_EQ(Get("root.Limits.Level"), "150");
}

// The sync byte of the request decides: 9 removes silently, none announces.
TEST_F(DbusMessagesTest, DeletedGroupIsAnnouncedUnlessItsModeIsSilent) {
  Serve(MessagesConfig(), kMessagesBacking);
  bus().wait_for_marker();
  ASSERT_EQ(Delete("root.Rules.R8", 9), TESSCLIENT_OK);
  ASSERT_EQ(Delete("root.Rules.R7"), TESSCLIENT_OK);
  EXPECT_EQ(SentSoFar("m2"), Messages{"Removed(s) root.Rules.R7|7|R7"});
}

constexpr char kSetterScript[] =
    "#!/bin/sh\n"
    "printf '%s:%s\\n' \"$1\" \"$(env | grep '^root_' | sort | tr '\\n' ' ')\" >> "
    "/tmp/setter.runs\n";

// ---- Upgrade --------------------------------------------------------------------------------

// The same daemon with and without -upgrade: a parameter with a message and a setter command,
// a getter, a group whose removal is announced, and a dbustype parameter without a value, whose
// bounds a SET queries in either mode (its first query closes what the daemon sent before).
class UpgradeTest : public AnnounceTest, public testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    AnnounceTest::SetUp();
    if (HasFatalFailure()) return;
    WriteFile("/tmp/setter.sh", kSetterScript, 0755);
    StartBusAndLimits("int32:0", "int32:9");
    if (HasFatalFailure()) return;
    std::vector<std::string> extra;
    if (GetParam()) extra.push_back("-upgrade");
    Serve(Group("Net", Param("Owner", "owner",
                             Option("dbus", std::string(kSignalPrefix) + "Owner string:'$VALUE'") +
                                 Option("setter", "/tmp/setter.sh upgrade")) +
                           Param("Fence", "fence", Option("dbustype", kLimitQueries))) +
              Group("Up",
                    Param("Time", "t", Option("getter", "echo up; echo run >> /tmp/getter.runs"))) +
              RemovableGroup("Gone"),
          "owner Smith\n", extra);
  }
};

TEST_P(UpgradeTest, UpgradeRunsNoSetterCommandNoGetterAndSendsOnlyGroupMessages) {
  bool upgrade = GetParam();
  ASSERT_EQ(Set("root.Net.Owner", "Jones", 10), TESSCLIENT_OK);
  EXPECT_EQ(Get("root.Up.Time"), upgrade ? "" : "up\n") << "the empty value it is declared with";
  ASSERT_EQ(Delete("root.Gone", 10), TESSCLIENT_OK);
  ASSERT_EQ(Set("root.Net.Fence", "1", 0), TESSCLIENT_OK);
  Messages removed = {"Removed(s) root.Gone||Gone"};
  EXPECT_EQ(Summaries(bus().wait_before("Min")),
            upgrade ? removed : (Messages{"Owner(s) Smith", "Owner(s) Jones", removed[0]}));
  EXPECT_EQ(SettledText("/tmp/setter.runs", upgrade ? 0 : 1),
            upgrade ? "" : "upgrade:root_Net_Owner=Jones \n");
  EXPECT_EQ(ReadFile("/tmp/getter.runs"), upgrade ? "" : "run\n");
}

INSTANTIATE_TEST_SUITE_P(Modes, UpgradeTest, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& info) {
                           return info.param ? "Upgrade" : "Normal";
                         });

}  // namespace
}  // namespace tessard::test
