// Runs the tessctl binary against a scripted fake daemon on a socket in a temporary directory.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/clienttestutil.h"
#include "tests/support/textfile.h"

namespace {

using tessard::test::FakeDaemon;
using tessard::test::item;
using tessard::test::reply;

struct Outcome {
  int exit = -1;
  std::string out;
  std::string err;
};

class TessctlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = ::testing::TempDir() + "tessctlXXXXXX";
    ASSERT_NE(mkdtemp(dir_.data()), nullptr);
    socket_ = dir_ + "/socket";
  }
  void TearDown() override {
    for (const char* name : {"/socket", "/out", "/err"}) unlink((dir_ + name).c_str());
    rmdir(dir_.c_str());
  }
  Outcome tessctl(const std::vector<std::string>& args) {
    std::string command = TESSCTL_PATH " --socket '" + socket_ + "'";
    for (const std::string& arg : args) command += " '" + arg + "'";
    command += " >" + dir_ + "/out 2>" + dir_ + "/err";
    int status = system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, tessard::test::read_text(dir_ + "/out"),
            tessard::test::read_text(dir_ + "/err")};
  }
  // Runs tessctl against a fake daemon giving `replies`; returns what tessctl sent.
  std::vector<std::string> against(std::vector<std::string> replies,
                                   const std::vector<std::string>& args, Outcome* run) {
    FakeDaemon daemon(socket_, std::move(replies));
    *run = tessctl(args);
    return daemon.finish();
  }

  std::string dir_;
  std::string socket_;
};

struct CommandCase {
  const char* name;
  std::vector<std::string> args;
  std::vector<std::string> replies;
  Outcome expected;
};

class TessctlCommandTest : public TessctlTest, public ::testing::WithParamInterface<CommandCase> {};

const std::string kNoParam = reply(0x10);
const std::string kNoSubgroup = reply(0x11);

const CommandCase kCommands[] = {
    {"SyncFailed", {"sync"}, {reply(1)}, {1, "", "tessctl: sync: synchronisation failed\n"}},
    {"UnknownStatusIsAProtocolError",
     {"get", "a.b"},
     {reply(7)},
     {76, "", "tessctl: root.a.b: unknown status 7\n"}},
    {"ReplyWithoutItemIsAProtocolError",
     {"get", "a.b"},
     {reply(0)},
     {76, "", "tessctl: root.a.b: malformed reply from the daemon\n"}},
    {"ListShowsWhatCameWithAFailure",
     {"list", "a"},
     {reply(1, std::string("root.a.x=1") + '\0')},
     {1, "root.a.x=1\n", "tessctl: root.a: no such parameter, or values unreadable\n"}},
    {"ListShowsEmptyValue",
     {"list", "a"},
     {reply(0, std::string("root.a.x=1\x01root.a.y=\x02") + '\0')},
     {0, "root.a.x=1\nroot.a.y=\n", ""}},
    {"GroupsStopsAtAnAnswerThatIsNoChild",
     {"groups", "root.a"},
     {reply(0, item("root.a") + item("a"))},
     {0, "", ""}},
    {"TreeEndsAtParamWithTheGroupsPath",
     {"tree", "a"},
     {reply(0, item("root.a") + item("a") + item("int")), kNoSubgroup},
     {0, "root.a\n", ""}},
    {"TreeJson",
     {"--json", "tree", "a"},
     {reply(0, item("root.a.p") + item("p") + item("in\"t")), kNoParam, kNoSubgroup},
     {0,
      "{\"path\":\"root.a\",\"params\":[{\"path\":\"root.a.p\",\"name\":\"p\",\"type\":\"in\\\"t\"}"
      "],"
      "\"groups\":[]}\n",
      ""}},
    {"CreatePrintsName",
     {"create", "a", "t", "--number", "2"},
     {reply(0, std::string("I2") + '\0')},
     {0, "I2\n", ""}},
};

TEST_P(TessctlCommandTest, PrintsResultAndExitStatus) {
  Outcome run;
  std::vector<std::string> requests = against(GetParam().replies, GetParam().args, &run);
  EXPECT_EQ(std::tie(run.exit, run.out, run.err),
            std::tie(GetParam().expected.exit, GetParam().expected.out, GetParam().expected.err));
  EXPECT_EQ(requests.size(), GetParam().replies.size()) << "one request per scripted reply";
}

INSTANTIATE_TEST_SUITE_P(Commands, TessctlCommandTest, ::testing::ValuesIn(kCommands),
                         [](const auto& info) { return std::string(info.param.name); });

// Each reply status has its own exit status: the status byte itself.
class TessctlExitTest : public TessctlTest, public ::testing::WithParamInterface<int> {};

TEST_P(TessctlExitTest, ExitsWithTheReplyStatus) {
  Outcome run;
  against(GetParam() == 69 ? std::vector<std::string>{} : std::vector{reply(GetParam())},
          {"delete", "a.b"}, &run);
  EXPECT_EQ(run.exit, GetParam());
  EXPECT_TRUE(run.out.empty());
  EXPECT_EQ(run.err.rfind("tessctl: root.a.b: ", 0), 0u) << run.err;
}

// A lost connection (no reply: 69) gives a reset or a broken pipe, depending on whether the
// close overtook the request.
INSTANTIATE_TEST_SUITE_P(Statuses, TessctlExitTest,
                         ::testing::Values(1, 2, 3, 4, 5, 6, 0x10, 0x11, 0x12, 69));

TEST_F(TessctlTest, QuietFlagReachesTheDaemon) {
  Outcome run;
  auto get = against({kNoParam}, {"get", "a", "--quiet"}, &run);
  ASSERT_EQ(get.size(), 1u);
  // Length, type, form, sub-form, case byte, uid, gid, then the quiet byte.
  EXPECT_EQ(get[0][10], 1);
  EXPECT_EQ(run.exit, 16);
  EXPECT_EQ(run.err, "");
}

TEST_F(TessctlTest, SyncBytesDefaultToTen) {
  Outcome run;
  auto set = against({reply(0)}, {"set", "a.b", "--", "--v"}, &run);
  ASSERT_EQ(set.size(), 1u);
  EXPECT_EQ(set[0].substr(set[0].size() - 6), std::string("\x03\x00--v\x0a", 6));
  auto create =
      against({reply(0, std::string("I7") + '\0')}, {"create", "a", "t", "--number=7"}, &run);
  ASSERT_EQ(create.size(), 1u);
  EXPECT_EQ(create[0].substr(create[0].size() - 6), std::string("\x07\x00\x01\x00t\x0a", 6));
  auto remove = against({reply(0)}, {"delete", "a.I7", "--sync", "9"}, &run);
  ASSERT_EQ(remove.size(), 1u);
  EXPECT_EQ(remove[0].back(), 9);
}

TEST_F(TessctlTest, UsageErrorsExit64WithoutConnecting) {
  const std::vector<std::vector<std::string>> misuses = {{},
                                                         {"get"},
                                                         {"frobnicate"},
                                                         {"get", "a", "b"},
                                                         {"set", "a", "b", "--number", "1"},
                                                         {"set", "a", "b", "--sync", "256"},
                                                         {"info", "a", "x"},
                                                         {"sync", "-1"},
                                                         {"get", "a", "--sync"},
                                                         {"get", "a", "--json=1"},
                                                         {"--bogus", "get", "a"}};
  for (const auto& args : misuses) {
    Outcome run;
    EXPECT_TRUE(against({reply(0)}, args, &run).empty());
    EXPECT_EQ(run.exit, 64) << testing::PrintToString(args);
    EXPECT_TRUE(run.out.empty());
    EXPECT_EQ(run.err.rfind("tessctl: ", 0), 0u) << run.err;
  }
}

TEST_F(TessctlTest, HelpAndMissingDaemon) {
  Outcome one = tessctl({"get", "--help"});
  EXPECT_EQ(one.exit, 0);
  EXPECT_EQ(
      one.out.rfind("Usage: tessctl [OPTIONS] get PATH\n  print the value of a parameter\n", 0),
      0u);
  EXPECT_EQ(one.out.find("read-file"), std::string::npos) << "only the command asked about";
  EXPECT_NE(one.out.find("  64  usage error"), std::string::npos);
  Outcome absent = tessctl({"get", "a.b"});
  EXPECT_EQ(absent.exit, 69);
  EXPECT_EQ(absent.err, "tessctl: cannot connect to " + socket_ + ": No such file or directory\n");
}

}  // namespace
