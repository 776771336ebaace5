#include "mapping/setters.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/setters_testutil.h"
#include "tests/support/signal_targets_testutil.h"

namespace tessard::test {
namespace {

using Args = std::vector<std::string>;

struct ReplaceCase {
  const char* text;
  const char* pattern;
  const char* replacement;
  const char* expected;
};

void PrintTo(const ReplaceCase& c, std::ostream* os) {
  *os << c.text << " " << c.pattern;
}

class SetterReplaceAllTest : public testing::TestWithParam<ReplaceCase> {};

TEST_P(SetterReplaceAllTest, ReplacesEveryOccurrenceLeftToRight) {
  const ReplaceCase& c = GetParam();
  char* result = map_replaceAll(c.text, c.pattern, c.replacement);
  EXPECT_STREQ(result, c.expected);
  free(result);
}

INSTANTIATE_TEST_SUITE_P(Texts, SetterReplaceAllTest,
                         testing::Values(ReplaceCase{"a'b'", "'", "'\\''", "a'\\''b'\\''"},
                                         ReplaceCase{"aaa", "aa", "b", "ba"},
                                         ReplaceCase{"$GROUPNUM $GROUP", "$GROUP", "G", "GNUM G"},
                                         ReplaceCase{"none", "x", "y", "none"},
                                         ReplaceCase{"keep", "", "y", "keep"}));

class SetterDbusMessageTest : public AnnounceTest {
 protected:
  void SetUp() override {
    AnnounceTest::SetUp();
    start_bus();
  }
};

constexpr char kTemplate[] =
    "/org/t org.t.If.Changed string:'$VALUE' string:'$NAME|$GROUPNUM|$GROUP'";

struct TemplateCase {
  const char* group;
  const char* value;
  const char* value_arg;
  const char* place_arg;
};

void PrintTo(const TemplateCase& c, std::ostream* os) {
  *os << c.group << " " << c.value;
}

class SetterTemplateTest : public SetterDbusMessageTest,
                           public testing::WithParamInterface<TemplateCase> {};

TEST_P(SetterTemplateTest, FillsValueNameGroupNumberAndGroup) {
  const TemplateCase& c = GetParam();
  Param* p = param(group(c.group), "p", c.value);
  map_sendParamDbusMessage(kTemplate, p);
  auto got = messages();
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].member, "Changed");
  EXPECT_EQ(got[0].args, (Args{c.value_arg, c.place_arg}));
}

// In a numbered group, $NAME stays in the message: message templates rely on it.
INSTANTIATE_TEST_SUITE_P(Groups, SetterTemplateTest,
                         testing::Values(TemplateCase{"I3", "O'Brien", "O'Brien", "$NAME|3|I3"},
                                         TemplateCase{"Network", "a b", "a b",
                                                      "root.Network.p||Network"},
                                         TemplateCase{"I", "''", "''", "root.I.p||I"},
                                         TemplateCase{"I0a", "x", "x", "root.I0a.p||I0a"}));

TEST_F(SetterDbusMessageTest, GroupMessageFillsPathNumberAndNameAlsoInUpgradeMode) {
  upgradeMode = 1;
  map_sendGroupDbusMessage("/g org.t.If.Added string:$NAME string:x$GROUPNUM string:$GROUP",
                           group("S12", group("Sub")));
  auto got = messages();
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].args, (Args{"root.Sub.S12", "x12", "S12"}));
}

TEST_F(SetterDbusMessageTest, DeferredRemovalSendsTheGroupMessageUnlessTheReasonIsSilent) {
  for (const char* name : {"I1", "I2", "I3"}) {
    map_setGroupOption("dbusgroupdel", "/g org.t.If.Removed string:$GROUPNUM", group(name), 0);
  }
  map_removeGroupByPath("root.I1", 1, 0);
  map_removeGroupByPath("root.I2", 1, 9);
  map_removeGroupByPath("root.I3", 1, 12);
  auto got = messages();
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].args, Args{"1"});
}

TEST_F(SetterDbusMessageTest, UpgradeModeSendsNoParameterMessage) {
  upgradeMode = 1;
  map_sendParamDbusMessage(kTemplate, param(group("G"), "p", "v"));
  EXPECT_TRUE(messages().empty());
}

TEST_F(SetterDbusMessageTest, InvalidMessageIsLoggedWithTheTextBeforeGroupSubstitution) {
  map_sendParamDbusMessage("/t bad $NAME $GROUP", param(group("Net"), "p", "v"));
  EXPECT_EQ(count_logged("Dbus message \"/t bad root.Net.p $GROUP\" not valid : "
                         "Invalid INTERFACE.MEMBER 'bad' : Could not set root.Net.p in Net"),
            1);
  map_sendGroupDbusMessage("/t bad $NAME", group("G2"));
  EXPECT_EQ(count_logged("Dbus message \"/t bad root.G2\" not valid : Invalid INTERFACE.MEMBER "
                         "'bad' : Could not set G2 in root.G2"),
            1);
}

constexpr char kUnanswered[] =
    "--type=method_call --print-reply --dest=org.tessard.Nobody /p org.t.If.Set "
    "string:'$VALUE' string:tail";

struct MaskCase {
  const char* type;
  const char* value;
  const char* logged;
};

void PrintTo(const MaskCase& c, std::ostream* os) {
  *os << c.type;
}

class SetterPasswordMaskTest : public SetterDbusMessageTest,
                               public testing::WithParamInterface<MaskCase> {};

TEST_P(SetterPasswordMaskTest, FailedSendIsLoggedWithPasswordMasked) {
  const MaskCase& c = GetParam();
  map_sendParamDbusMessage(kUnanswered, param(group("G"), "p", c.value, {{"type", c.type}}));
  auto log = captured_log();
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log[0].message.rfind(c.logged, 0), 0u) << log[0].message;
  EXPECT_NE(log[0].message.find("org.freedesktop.DBus.Error.ServiceUnknown"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(
    Types, SetterPasswordMaskTest,
    testing::Values(
        MaskCase{"string", "secret",
                 "Could not send dbus message: --type=method_call --print-reply "
                 "--dest=org.tessard.Nobody /p org.t.If.Set string:'secret' string:tail : "},
        MaskCase{"string:password", "it's",
                 "Could not send dbus message: --type=method_call --print-reply "
                 "--dest=org.tessard.Nobody /p org.t.If.Set string:'*****' : "},
        MaskCase{"passwords", "x",
                 "Could not send dbus message: --type=method_call --print-reply "
                 "--dest=org.tessard.Nobody /p org.t.If.Set string:'x' string:tail : "}));

TEST_F(SetterDbusMessageTest, StartupMessageIsPostponedNotDroppedWhenBlocked) {
  Param* p = param(group("G"), "p", "v", {{"dbus", "/s org.t.If.Startup string:$VALUE"}});
  Param* q = param(group("G"), "q", "w", {{"dbus", "/s org.t.If.Startup string:$VALUE"}});
  p->status = q->status = PARAMSTATUS_LOADED;
  update_runSetter(p, 0, 1, 0);
  update_runSetter(q, 0, 0, 0);
  update_runSetter(q, 0, 0, 0);
  auto got = messages();
  ASSERT_EQ(got.size(), 1u);  // q's start-up message, once
  EXPECT_EQ(got[0].args, Args{"w"});
  EXPECT_EQ(p->dbusAtStart, 1);

  p->setterPending = 1;  // p was written: its first later setter run sends the message
  update_runSetter(p, 0, 0, 0);
  got = messages();
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].args, Args{"v"});
  EXPECT_EQ(p->dbusAtStart + p->setterPending, 0);
}

// Setter commands run detached; the test collects them as their subreaper.
class SetterCommandTest : public AnnounceTest {
 protected:
  void SetUp() override {
    AnnounceTest::SetUp();
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    g_ = group("G");
  }

  void wait_for_setters() {
    while (waitpid(-1, nullptr, 0) > 0) {
    }
  }

  Param* changed(const char* name, const char* value, const std::string& setter) {
    Param* p = param(g_, name, value, {{"setter", setter.c_str()}});
    map_addUpdatedParamList(p);
    p->setterPending = 1;
    return p;
  }

  std::string record(const char* tag) {
    return std::string("echo ") + tag + ":$root_G_a:$root_G_b >> " + dir_ + "/out";
  }

  Group* g_ = nullptr;
};

TEST_F(SetterCommandTest, SameTextRunsOnceWithEveryChangedParameterInItsEnvironment) {
  std::string setter = record("same");
  Param* a = changed("a", "1", setter);
  Param* b = changed("b", "2", setter);
  update_runSetter(a, 0, 0, 0);
  update_runSetter(b, 0, 0, 0);
  wait_for_setters();
  EXPECT_EQ(read_file("out"), "same:1:2\n");
  EXPECT_EQ(getenv("root_G_a"), nullptr);
  EXPECT_EQ(a->setterPending + b->setterPending, 0);
}

TEST_F(SetterCommandTest, DifferentTextsBothRunAndAgainAfterTheListIsCleared) {
  Param* a = changed("a", "1", record("first"));
  Param* b = changed("b", "2", record("second"));
  update_runSetter(a, 0, 0, 0);
  update_runSetter(b, 0, 0, 0);
  wait_for_setters();
  update_clearRunSetters();
  a->setterPending = 1;
  update_runSetter(a, 0, 0, 0);
  wait_for_setters();
  std::vector<std::string> lines;
  std::stringstream out(read_file("out"));
  for (std::string line; std::getline(out, line);) {
    lines.push_back(line);
  }
  std::sort(lines.begin(), lines.end());  // detached commands finish in any order
  EXPECT_EQ(lines, (std::vector<std::string>{"first:1:2", "first:1:2", "second:1:2"}));
}

TEST_F(SetterCommandTest, NoCommandInUpgradeModeOrWhenDisabledOrNotDue) {
  Param* a = changed("a", "1", "disabled " + record("x"));
  update_runSetter(a, 0, 0, 0);
  upgradeMode = 1;
  Param* b = changed("b", "2", record("y"));
  update_runSetter(b, 0, 0, 0);
  upgradeMode = 0;
  Param* c = param(g_, "c", "3", {{"setter", record("z").c_str()}});
  c->status = PARAMSTATUS_LOADED;  // nothing changed: the quiet case
  update_runSetter(c, 0, 0, 0);
  wait_for_setters();
  EXPECT_EQ(read_file("out"), "");
  EXPECT_EQ(b->setterPending, 0);
}

// A signal-only run comes before the values are written: the parameters a client changed run their
// setters, the others stay quiet.
TEST_F(SetterCommandTest, SignalOnlyRunRunsTheSettersOfChangedParametersOnly) {
  std::string changed = "echo changed >> " + dir_ + "/out";
  std::string untouched = "echo untouched >> " + dir_ + "/out";
  Param* a = param(g_, "a", "1", {{"setter", changed.c_str()}});
  map_addUpdatedParamList(a);
  Param* b = param(g_, "b", "2", {{"setter", untouched.c_str()}});
  b->status = PARAMSTATUS_LOADED;
  update_runSetter(b, 1, 0, 0);
  update_runSetter(a, 1, 0, 0);
  wait_for_setters();
  EXPECT_EQ(read_file("out"), "changed\n");
}

// Processes to signal: the small test program, started under names of this test's own.
class SetterSignalTest : public AnnounceTest {
 protected:
  void SetUp() override {
    AnnounceTest::SetUp();
    targets_ = std::make_unique<SignalTargets>(SIGNAL_TARGET_PROGRAM, dir_);
  }
  void TearDown() override {
    targets_.reset();
    AnnounceTest::TearDown();
  }

  std::string start(const char* name) { return targets_->start(name); }
  std::vector<std::string> received() { return targets_->received(); }

  std::unique_ptr<SignalTargets> targets_;
};

TEST_F(SetterSignalTest, OneSignalWordServesEveryNameAndEachProcessGetsItOnce) {
  std::string a = start("a");
  std::string list = a + ", " + start("b");
  update_sendSignal(list.c_str(), "USR1");
  update_sendSignal(list.c_str(), " USR1");
  EXPECT_EQ(received(), (std::vector<std::string>{"10\n", "10\n"}));
  update_clearSignalledProcesses();
  update_sendSignal(list.c_str(), "10");
  EXPECT_EQ(received(), (std::vector<std::string>{"10\n", "10\n"}));
}

struct SignalCase {
  const char* signals;
  const char* first;
  const char* second;
};

void PrintTo(const SignalCase& c, std::ostream* os) {
  *os << c.signals;
}

class SetterSignalWordTest : public SetterSignalTest,
                             public testing::WithParamInterface<SignalCase> {};

TEST_P(SetterSignalWordTest, SendsTheSignalEachWordNames) {
  std::string a = start("a");
  std::string list = a + "," + start("b");
  update_sendSignal(list.c_str(), GetParam().signals);
  EXPECT_EQ(received(), (std::vector<std::string>{GetParam().first, GetParam().second}));
}

INSTANTIATE_TEST_SUITE_P(
    Words, SetterSignalWordTest,
    testing::Values(SignalCase{"40", "1\n", "1\n"}, SignalCase{"-3", "1\n", "1\n"},
                    SignalCase{"HUP, IO", "1\n", "29\n"}, SignalCase{"USR2,USR1", "12\n", "10\n"},
                    SignalCase{"KILL", "", ""}, SignalCase{"USR1,TERM", "10\n", ""}));

// Out of descriptors (a local user can hold many connections open), /proc cannot be read: the
// signal is not sent and the daemon goes on.
TEST_F(SetterSignalTest, UnreadableProcIsLoggedNotFatal) {
  rlimit saved{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  rlimit none = saved;
  none.rlim_cur = 0;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  update_sendSignal("anything", "HUP");
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
  EXPECT_EQ(count_logged("Couldn't open /proc!"), 1);
}

TEST_F(SetterSignalTest, SetterRunSignalsTheDaemonWithDefaultHangup) {
  std::string name = start("d");
  Param* p = param(group("G"), "p", "v", {{"daemon", name.c_str()}});
  p->setterPending = 1;
  update_runSetter(p, 0, 0, 0);
  EXPECT_EQ(received(), std::vector<std::string>{"1\n"});
}

}  // namespace
}  // namespace tessard::test
