#include "mapping/setters.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/setters_testutil.h"

namespace tessard::test {
namespace {

using Lines = std::vector<std::string>;

TEST(SetterReplaceAll, ReplacesEachOccurrenceOnceLeftToRight) {
  for (auto [pattern, expected] : {std::pair{"aa", "ba"}, std::pair{"", "aaa"}}) {
    char* result = map_replaceAll("aaa", pattern, "b");
    EXPECT_STREQ(result, expected) << pattern;
    free(result);
  }
}

class SetterDbusMessageTest : public AnnounceTest {
 protected:
  void SetUp() override {
    AnnounceTest::SetUp();
    start_bus();
  }
  // The arguments of the one message sent since the last call.
  Lines sent() {
    auto got = messages();
    EXPECT_EQ(got.size(), 1u);
    return got.empty() ? Lines{} : got[0].args;
  }
};

// In a numbered group $NAME stays in the message, as message templates rely on it.
TEST_F(SetterDbusMessageTest, FillsValueNameGroupNumberAndGroup) {
  // group, value, the second argument
  const char* cases[][3] = {
      {"I3", "O'Brien", "$NAME|3|I3"}, {"I", "''", "root.I.p||I"}, {"I0a", "x", "root.I0a.p||I0a"}};
  for (auto [group_name, value, place] : cases) {
    map_sendParamDbusMessage(
        "/org/t org.t.If.Changed string:'$VALUE' string:'$NAME|$GROUPNUM|$GROUP'",
        param(group(group_name), "p", value));
    EXPECT_EQ(sent(), (Lines{value, place})) << group_name;
  }
}

TEST_F(SetterDbusMessageTest, FailedSendIsLoggedWithPasswordMasked) {
  const std::string call =
      "--type=method_call --print-reply --dest=org.tessard.Nobody /p org.t.If.Set ";
  const std::string plain = "string:'it'\\''s' string:tail";
  // type option, the message as logged
  const std::pair<const char*, std::string> cases[] = {
      {"string", plain}, {"string:password", "string:'*****'"}, {"passwords", plain}};
  for (const auto& [type, logged] : cases) {
    clear_captured_log();
    map_sendParamDbusMessage((call + "string:'$VALUE' string:tail").c_str(),
                             param(group("G"), type, "it's", {{"type", type}}));
    EXPECT_EQ(count_logged("Could not send dbus message: " + call + logged +
                           " : Method call failed: org.freedesktop.DBus.Error.ServiceUnknown"),
              1)
        << type;
  }
}

// Setter commands run detached; the test collects them as their subreaper.
class SetterCommandTest : public AnnounceTest {
 protected:
  void SetUp() override {
    AnnounceTest::SetUp();
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  }
  // The lines the setters wrote, sorted: detached commands finish in any order.
  Lines lines() {
    while (waitpid(-1, nullptr, 0) > 0) {
    }
    Lines lines;
    std::stringstream out(read_file("out"));
    for (std::string line; std::getline(out, line);) lines.push_back(line);
    std::sort(lines.begin(), lines.end());
    return lines;
  }
  // A parameter of G whose setter writes `tag` and the values of a and b; changed by a client
  // unless `changed` is false.
  Param* with_setter(const char* name, const char* value, const std::string& tag,
                     bool changed = true) {
    std::string setter = (tag == "disabled" ? "disabled echo " : "echo ") + tag +
                         ":$root_G_a:$root_G_b >> " + dir_ + "/out";
    Param* p = param(group("G"), name, value, {{"setter", setter.c_str()}});
    if (changed) map_addUpdatedParamList(p);
    p->setterPending = changed;
    if (!changed) p->status = PARAMSTATUS_LOADED;
    return p;
  }
};

// A disabled setter and one not due run nothing.
TEST_F(SetterCommandTest, EachTextRunsOncePerListWithTheChangedParametersInItsEnvironment) {
  Param* a = with_setter("a", "1", "first");
  Param* b = with_setter("b", "2", "second");
  for (Param* p : {a, b, a}) {
    p->setterPending = 1;
    update_runSetter(p, 0, 0, 0);
  }
  update_runSetter(with_setter("c", "3", "disabled"), 0, 0, 0);
  update_runSetter(with_setter("d", "4", "quiet", false), 0, 0, 0);
  update_clearRunSetters();
  a->setterPending = 1;
  update_runSetter(a, 0, 0, 0);
  EXPECT_EQ(lines(), (Lines{"first:1:2", "first:1:2", "second:1:2"}));
  EXPECT_EQ(getenv("root_G_a"), nullptr);
  EXPECT_EQ(a->setterPending + b->setterPending, 0);
}

// A signal-only run comes before the values are written: the parameters a client changed run their
// setters, the others stay quiet.
TEST_F(SetterCommandTest, SignalOnlyRunRunsTheSettersOfChangedParametersOnly) {
  Param* a = with_setter("a", "1", "changed");
  update_runSetter(with_setter("b", "2", "untouched", false), 1, 0, 0);
  update_runSetter(a, 1, 0, 0);
  EXPECT_EQ(lines(), Lines{"changed:1:"});  // b is not in the environment
}

// Processes to signal: the signal_target program started under names of this test's own, which
// include its pid so that test runs side by side never signal each other's targets.
class SetterSignalTest : public AnnounceTest {
 protected:
  void TearDown() override {
    for (pid_t pid : pids_) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
    AnnounceTest::TearDown();
  }

  // Returns the target's program name once it listens.
  std::string start(const std::string& name) {
    std::string unique = "tsig" + std::to_string(getpid()) + name;
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    pid_t pid = fork();
    if (pid == 0) {
      dup2(fds[1], 1);
      execl(SIGNAL_TARGET_PROGRAM, ("/some/dir/" + unique).c_str(), (dir_ + "/" + unique).c_str(),
            nullptr);
      _exit(127);
    }
    close(fds[1]);
    char ready[6] = {};
    EXPECT_EQ(read(fds[0], ready, 5), 5) << "the signal target did not start";
    close(fds[0]);
    pids_.push_back(pid);
    return unique;
  }

  // The record of each target (the numbers of the signals it received, one a line), once they
  // read as expected or two seconds have passed, and then a moment longer so that any more arrive.
  Lines received(const Lines& names, const Lines& expected) {
    auto records = [&] {
      Lines got;
      for (const std::string& name : names) got.push_back(read_file(name));
      return got;
    };
    for (int tries = 0; tries < 200 && records() != expected; ++tries) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    return records();
  }

  std::vector<pid_t> pids_;
};

TEST_F(SetterSignalTest, OneSignalWordServesEveryNameAndEachProcessGetsItOnce) {
  Lines names = {start("a"), start("b")};
  std::string list = names[0] + ", " + names[1];
  update_sendSignal(list.c_str(), "USR1");
  update_sendSignal(list.c_str(), " USR1");
  Lines once = {"10\n", "10\n"}, twice = {"10\n10\n", "10\n10\n"};
  EXPECT_EQ(received(names, once), once);
  update_clearSignalledProcesses();
  update_sendSignal(list.c_str(), "10");
  EXPECT_EQ(received(names, twice), twice);
}

TEST_F(SetterSignalTest, SendsTheSignalEachWordNames) {
  // signal words, what the first and the second process receive
  const Lines cases[] = {{"40", "1\n", "1\n"},       {"-3", "1\n", "1\n"},
                         {"HUP, IO", "1\n", "29\n"}, {"USR2,USR1", "12\n", "10\n"},
                         {"KILL", "", ""},           {"USR1,TERM", "10\n", ""}};
  for (const Lines& words : cases) {
    std::string n = std::to_string(&words - cases);
    Lines names = {start("a" + n), start("b" + n)};
    update_sendSignal((names[0] + "," + names[1]).c_str(), words[0].c_str());
    EXPECT_EQ(received(names, {words[1], words[2]}), (Lines{words[1], words[2]})) << words[0];
  }
}

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

// A parameter's daemon gets hang-up by default; a group's daemon, when due, gets the group's own
// signal, once, and only outside write-only runs.
TEST_F(SetterSignalTest, SetterRunsSignalTheParameterAndTheGroupDaemon) {
  std::string daemon = start("d");
  std::string group_daemon = start("g");
  Param* p = param(group("P"), "p", "v", {{"daemon", daemon.c_str()}});
  p->setterPending = 1;
  update_runSetter(p, 0, 0, 0);
  Group* g = group("G");
  map_setGroupOption("daemon", group_daemon.c_str(), g, 0);
  map_setGroupOption("signal", "USR2", g, 0);
  g->daemonPending = 1;
  map_runSetters(g, 2, 0);
  EXPECT_EQ(g->daemonPending, 1);
  map_runSetters(g, 0, 0);
  EXPECT_EQ(received({daemon, group_daemon}, {"1\n", "12\n"}), (Lines{"1\n", "12\n"}));
  EXPECT_EQ(g->daemonPending, 0);
}

}  // namespace
}  // namespace tessard::test
