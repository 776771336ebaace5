// Runs the tessctl binary against a scripted fake daemon on a socket in a temporary directory, and
// checks explain's judgement of a caller's rights directly.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "tests/support/clienttestutil.h"
#include "tests/support/textfile.h"
#include "tools/tessctl_explain.h"

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
  void TearDown() override { EXPECT_EQ(system(("rm -rf '" + dir_ + "'").c_str()), 0); }
  // `args` split at blanks by the shell.
  Outcome tessctl(const std::string& args) {
    std::string command = TESSCTL_PATH " --socket '" + socket_ + "' " + args + " >" + dir_ +
                          "/out 2>" + dir_ + "/err";
    int status = system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, tessard::test::read_text(dir_ + "/out"),
            tessard::test::read_text(dir_ + "/err")};
  }
  // Runs tessctl against a fake daemon giving `replies`; returns what tessctl sent.
  std::vector<std::string> against(std::vector<std::string> replies, const std::string& args,
                                   Outcome* run) {
    FakeDaemon daemon(socket_, std::move(replies));
    *run = tessctl(args);
    return daemon.finish();
  }

  std::string dir_;
  std::string socket_;
};

struct CommandCase {
  const char* name;
  const char* args;  // split at blanks by the shell
  std::vector<std::string> replies;
  int exit;
  std::string out;
  std::string err;
  std::string sent_tail;  // how the last request ends, when it matters
};

CommandCase cmd(const char* name, const char* args, std::vector<std::string> replies, int exit,
                std::string out, std::string err = "", std::string sent_tail = "") {
  return {name, args, std::move(replies), exit, std::move(out), std::move(err), sent_tail};
}

void PrintTo(const CommandCase& c, std::ostream* os) {
  *os << c.name;
}

class TessctlCommandTest : public TessctlTest, public ::testing::WithParamInterface<CommandCase> {};

const std::string kNoParam = reply(0x10);
const std::string kNoSubgroup = reply(0x11);

std::string member(const std::string& path, const std::string& name, const char* type = nullptr) {
  return reply(0, item(path) + item(name) + (type ? item(type) : ""));
}

// The answers to explain's requests: the options it shows, in the order it asks for them (unset
// ones answer an empty text), then the GET.
std::vector<std::string> explain_replies(
    const std::vector<std::pair<std::string, std::string>>& set, const std::string& get) {
  std::vector<std::string> replies;
  for (const char* name : {"type", "accessControl", "file", "parser", "mount", "getter", "dbus",
                           "setter", "daemon", "signal", "dbustype"}) {
    std::string value;
    for (const auto& [key, text] : set) value = key == name ? text : value;
    replies.push_back(reply(0, item(value + '\0')));
  }
  replies.push_back(get);
  return replies;
}

// The tests run as root, so explain grants root every right the rule allows.
const CommandCase kCommands[] = {
    cmd("GetJson", "--json get a.b", {reply(0, item("15\"00"))}, 0,
        "{\"path\":\"root.a.b\",\"value\":\"15\\\"00\"}\n"),
    cmd("ListJson", "list --json a", {reply(0, std::string("root.a.x=1\x01root.a.y=\x02") + '\0')},
        0, "{\"root.a.x\":\"1\",\"root.a.y\":null}\n"),
    cmd("Info", "info a 1", {member("root.a.p", "p", "int")}, 0, "root.a.p\tp\tint\n"),
    cmd("Groups", "groups a", {member("root.a.g", "g"), member("root.a.h", "h"), kNoSubgroup}, 0,
        "root.a.g\nroot.a.h\n"),
    cmd("TreeShowsParamsThenSubgroups", "tree a",
        {member("root.a.p", "p", "int"), kNoParam, member("root.a.g", "g"),
         member("root.a.g.q", "q", "string"), kNoParam, kNoSubgroup, kNoSubgroup},
        0, "root.a\n  p (int)\n  g\n    q (string)\n"),
    cmd("Option", "option a.b mount", {reply(0, item(std::string("Standard{h}") + '\0'))}, 0,
        "Standard{h}\n"),
    cmd("ExplainReadOnlyGetter", "explain a.b",
        explain_replies({{"type", "readonly:const:int:min=1,max=9"},
                         {"accessControl", ":1"},
                         {"getter", "echo 4"}},
                        reply(0, item("4\n"))),
        0,
        "root.a.b\n"
        "  value          4\\n\n"
        "  type           readonly:const:int:min=1,max=9: a whole number from 1 to 9\n"
        "  flags          readonly, const\n"
        "  read           yes, as root\n"
        "  write          no, the parameter is read-only\n"
        "  accessControl  :1\n"
        "  getter         echo 4\n"
        "  source         the getter's output, not a file\n"),
    cmd("ExplainClosedWithSetter", "explain a.b",
        explain_replies({{"file", "/etc/net.conf"},
                         {"dbus", "/t t.Zone string:'$VALUE'"},
                         {"setter", "/bin/true"}},
                        reply(3)),
        0,
        "root.a.b\n"
        "  value          (not readable by you)\n"
        "  type           a text\n"
        "  flags          none\n"
        "  read           no, no accessControl: closed to every client\n"
        "  write          no, no accessControl: closed to every client\n"
        "  file           /etc/net.conf\n"
        "  dbus           /t t.Zone string:'$VALUE'\n"
        "  setter         /bin/true\n"),
    cmd("ExplainWriteOnlyJson", "--json explain a.b",
        explain_replies({{"type", "writeonly:password:maxlen=8"}, {"accessControl", "admin:2"}},
                        reply(0, item("*****"))),
        0,
        "{\"path\":\"root.a.b\",\"value\":\"*****\",\"masked\":true,\"constraint\":\"a password of "
        "at most 8 characters\",\"flags\":[\"writeonly\"],\"read\":{\"allowed\":true,\"reason\":"
        "\"as root\"},\"write\":{\"allowed\":true,\"reason\":\"as root\"},\"options\":{\"type\":"
        "\"writeonly:password:maxlen=8\",\"accessControl\":\"admin:2\"}}\n"),
    cmd("ExplainMissing", "explain a.b", {reply(1)}, 1, "",
        "tessctl: root.a.b: no such parameter\n"),
    cmd("SyncFailed", "sync", {reply(1)}, 1, "", "tessctl: sync: synchronisation failed\n"),
    cmd("UnknownStatusIsAProtocolError", "get a.b", {reply(7)}, 76, "",
        "tessctl: root.a.b: unknown status 7\n"),
    cmd("ReplyWithoutItemIsAProtocolError", "get a.b", {reply(0)}, 76, "",
        "tessctl: root.a.b: malformed reply from the daemon\n"),
    cmd("ListShowsWhatCameWithAFailure", "list a",
        {reply(1, std::string("root.a.x=1\x01root.a.y=\x02") + '\0')}, 1, "root.a.x=1\nroot.a.y=\n",
        "tessctl: root.a: no such parameter, or values unreadable\n"),
    cmd("GroupsStopsAtAnAnswerThatIsNoChild", "groups root.a",
        {reply(0, item("root.a") + item("a"))}, 0, ""),
    cmd("TreeEndsAtParamWithTheGroupsPath", "tree a",
        {reply(0, item("root.a") + item("a") + item("int")), kNoSubgroup}, 0, "root.a\n"),
    cmd("TreeJson", "--json tree a",
        {reply(0, item("root.a.p") + item("p") + item("in\"t")), kNoParam, member("root.a.g", "g"),
         kNoParam, kNoSubgroup, member("root.a.h", "h"), kNoParam, kNoSubgroup, kNoSubgroup},
        0,
        "{\"path\":\"root.a\",\"params\":[{\"path\":\"root.a.p\",\"name\":\"p\",\"type\":"
        "\"in\\\"t\"}],\"groups\":[{\"path\":\"root.a.g\",\"params\":[],\"groups\":[]},"
        "{\"path\":\"root.a.h\",\"params\":[],\"groups\":[]}]}\n"),
    // The request ends with the number, the template and the sync byte (10 unless given).
    cmd("CreatePrintsName", "create a t --number=2", {reply(0, std::string("I2") + '\0')}, 0,
        "I2\n", "", std::string("\x02\x00", 2) + item("t") + "\x0a"),
    cmd("SetSyncsByDefault", "set a.b -- --v", {reply(0)}, 0, "", "", item("--v") + "\x0a"),
    cmd("DeleteSyncByte", "delete a.I7 --sync 9", {reply(0)}, 0, "", "", "\x09"),
    cmd("ReadFileTakesOnePath", "read-file /usr/etc/param/x.conf", {reply(0)}, 0, "", "", "x.conf"),
    // The quiet byte stands before the path.
    cmd("QuietGet", "get a --quiet", {kNoParam}, 16, "", "", "\x01" + item("a")),
};

TEST_P(TessctlCommandTest, PrintsResultAndExitStatus) {
  const CommandCase& c = GetParam();
  Outcome run;
  std::vector<std::string> requests = against(c.replies, c.args, &run);
  EXPECT_EQ(std::tie(run.exit, run.out, run.err), std::tie(c.exit, c.out, c.err));
  ASSERT_EQ(requests.size(), c.replies.size()) << "one request per scripted reply";
  EXPECT_TRUE(requests.back().ends_with(c.sent_tail)) << testing::PrintToString(requests.back());
}

INSTANTIATE_TEST_SUITE_P(Commands, TessctlCommandTest, ::testing::ValuesIn(kCommands),
                         [](const auto& info) { return std::string(info.param.name); });

// Each reply status has its own exit status: the status byte itself.
class TessctlExitTest : public TessctlTest, public ::testing::WithParamInterface<int> {};

TEST_P(TessctlExitTest, ExitsWithTheReplyStatus) {
  Outcome run;
  against(GetParam() == 69 ? std::vector<std::string>{} : std::vector{reply(GetParam())},
          "delete a.b", &run);
  EXPECT_EQ(run.exit, GetParam());
  EXPECT_TRUE(run.out.empty());
  EXPECT_EQ(run.err.rfind("tessctl: root.a.b: ", 0), 0u) << run.err;
}

// The upper ends of both ranges of reply statuses (the lower ones are in the commands). A lost
// connection (no reply: 69) gives a reset or a broken pipe, depending on whether the close overtook
// the request.
INSTANTIATE_TEST_SUITE_P(Statuses, TessctlExitTest, ::testing::Values(6, 0x12, 69));

TEST_F(TessctlTest, UsageErrorsExit64WithoutConnecting) {
  for (const char* args :
       {"", "get", "frobnicate", "get a b", "set a b --number 1", "set a b --sync 256", "info a x",
        "sync -1", "sync 1 2", "get a --sync", "get a --json=1", "--bogus get a"}) {
    Outcome run;
    EXPECT_TRUE(against({reply(0)}, args, &run).empty());
    EXPECT_EQ(run.exit, 64) << args;
    EXPECT_TRUE(run.out.empty());
    EXPECT_EQ(run.err.rfind("tessctl: ", 0), 0u) << run.err;
  }
}

TEST_F(TessctlTest, HelpAndMissingDaemon) {
  Outcome one = tessctl("get --help");
  EXPECT_EQ(one.exit, 0);
  EXPECT_TRUE(
      one.out.starts_with("Usage: tessctl [OPTIONS] get PATH\n  print the value of a parameter\n"));
  EXPECT_EQ(one.out.find("read-file"), std::string::npos) << "only the command asked about";
  EXPECT_NE(one.out.find("  64  usage error"), std::string::npos);
  Outcome absent = tessctl("get a.b");
  EXPECT_EQ(absent.exit, 69);
  EXPECT_EQ(absent.err, "tessctl: cannot connect to " + socket_ + ": No such file or directory\n");
}

struct AccessCase {
  const char* name;
  const char* rule;
  int bit;
  unsigned uid;
  const char* primary;
  const char* other;  // a further group of the caller, or null
  bool allowed;
  const char* reason;
};

void PrintTo(const AccessCase& c, std::ostream* os) {
  *os << c.name;
}

class TessctlAccessTest : public ::testing::TestWithParam<AccessCase> {};

TEST_P(TessctlAccessTest, DecidesByTheRuleAndSaysWhy) {
  const AccessCase& c = GetParam();
  std::vector<std::string> others;
  if (c.other != nullptr) others.push_back(c.other);
  std::string reason;
  EXPECT_EQ(tessctl_access_allowed(c.rule, c.bit, c.uid, c.primary, others, &reason), c.allowed);
  EXPECT_EQ(reason, c.reason);
}

const AccessCase kAccess[] = {
    {"GrantedToAll", ":1;admin:3", 1, 5, "users", nullptr, true, "granted by \":1\""},
    {"PrimaryGroup", "staff:1;admin:2", 2, 5, "admin", nullptr, true, "granted by \"admin:2\""},
    {"OtherGroup", "staff:1;admin:2", 2, 5, "users", "admin", true, "granted by \"admin:2\""},
    {"Malformed", "admin:x", 1, 5, "admin", nullptr, false, "the entry \"admin:x\" is malformed"},
};

INSTANTIATE_TEST_SUITE_P(Rules, TessctlAccessTest, ::testing::ValuesIn(kAccess),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
