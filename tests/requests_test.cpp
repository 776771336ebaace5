// Requests to a running daemon as users of the sandbox make them: rights judged by the peer's real
// groups or a root peer's claim, the order of requests on a connection, what reaches the backing
// file and when, group files read on request, and the user cache rebuilt on SIGUSR1. What each
// request answers on its own is server/clientserver_requests_test's.
#include <signal.h>
#include <syslog.h>
#include <tessard/tessclient.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/sandbox.h"

namespace tessard::test {
namespace {

constexpr char kConfig[] = R"(group Network {
  accessControl = ":1;operator:3;admin:f"
  parser = Standardparser
  file = "/etc/network.conf"
  param Hostname { mount = "Standard{Root}{hostname}" }
  param Domain { mount = "Standard{Root}{domain}" }
  param Secret { mount = "Standard{Root}{secret}" type = "writeonly:string" accessControl = "admin:3" }
  param Missing { mount = "Standard{Root}{missing}" }
  param Staff { mount = "Standard{Root}{staff}" accessControl = "staff:2" }
}
)";
constexpr char kFile[] =
    "# network\nhostname camera1\ndomain \"example.com\"\nsecret s\n\nstaff s1\n";
constexpr char kPath[] = "/etc/network.conf";
const std::string kLobby = std::string(kFile).replace(10, 16, "hostname lobby");

class RequestsTest : public SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    if (HasFatalFailure()) return;
    WriteFile(kPath, kFile);
    Serve(kConfig);
  }
};

// A root peer's claimed identity is what the rules see; a quiet refusal is not logged.
TEST_F(RequestsTest, RootPeersClaimIsJudgedAndAQuietRefusalIsNotLogged) {
  auto get_as = [](uid_t uid, int quiet) {
    TessClient* c = nullptr;
    char* value = nullptr;
    if (tessclient_connect(nullptr, &c) != 0) return -1;
    tessclient_set_identity(c, uid, uid);
    tessclient_set_quiet(c, quiet);
    int status = tessclient_get(c, "root.Network.Secret", &value);
    free(value);
    tessclient_close(c);
    return status;
  };
  EXPECT_EQ(get_as(2003, 0), TESSCLIENT_ACCESS_REFUSED);
  EXPECT_EQ(get_as(2003, 1), TESSCLIENT_ACCESS_REFUSED);
  EXPECT_EQ(get_as(2001, 0), TESSCLIENT_OK);
  LogLine line;
  ASSERT_TRUE(log().WaitFor("Authorization failure", 1000, &line));
  EXPECT_EQ(line.priority, LOG_WARNING);
  EXPECT_EQ(line.message,
            "Authorization failure: client UID=2003, GID=2003request type GET "
            "data=[root.Network.Secret], param accessControl=\"admin:3\"\n");
  usleep(200 * 1000);
  EXPECT_EQ(log().Count("Authorization failure"), 1) << "the quiet request logs nothing";
}

// By the real peer's groups: bob (operator), carol (viewer only), sysop (system), alice (staff);
// a list shows only what the caller may read.
TEST_F(RequestsTest, RightsComeFromTheCallersGroups) {
  const std::pair<const char*, std::string> cases[] = {
      {kBob, "set Network.Hostname x"},   {kCarol, "set Network.Hostname x"},
      {kSysop, "set Network.Hostname y"}, {kAlice, "set Network.Staff z"},
      {kCarol, "list Network"},           {kAlice, "list Network"}};
  std::string seen;
  for (const auto& [user, args] : cases) seen += CtlAs(user, {args});
  EXPECT_EQ(seen,
            "0|3|tessctl: root.Network.Hostname: access refused\n0|0|"
            "0|root.Network.Hostname=y\nroot.Network.Domain=example.com\nroot.Network.Missing=\n"
            "0|root.Network.Hostname=y\nroot.Network.Domain=example.com\n"
            "root.Network.Secret=*****\nroot.Network.Missing=\n");
}

TEST_F(RequestsTest, UnknownTypeGetsNoReplyAndBackToBackRequestsAreAnsweredInOrder) {
  int fd = Connect();
  ASSERT_GE(fd, 0);
  ASSERT_TRUE(Send(fd, Frame(11, {0x00})));
  std::vector<unsigned char> reply;
  EXPECT_EQ(ReadReply(fd, &reply, 300), -1);
  ASSERT_TRUE(Send(fd, GetFrame("Network.Hostname")) && Send(fd, GetFrame("Network.Domain")));
  for (const char* expected : {"camera1", "example.com"}) {
    ASSERT_EQ(ReadReply(fd, &reply), 0);
    EXPECT_EQ(std::string(reply.begin() + 6, reply.end()), expected);
  }
  close(fd);
}

// Sync byte 0 keeps the change in memory until a full SNC; a signal-only SNC writes nothing.
TEST_F(RequestsTest, ChangesReachTheFileAtAFullSync) {
  EXPECT_EQ(Ctl("set --sync 0 Network.Hostname lobby", "sync 1"), "0|0|");
  EXPECT_EQ(ReadFile(kPath), kFile);
  EXPECT_EQ(Ctl("sync 0"), "0|");
  EXPECT_EQ(ReadFile(kPath), kLobby);
}

// The file re-declares the group with one more parameter: the group's backing file is read again
// without writing it, while Hostname waits for a sync.
TEST_F(RequestsTest, ReadingAGroupFileAgainKeepsAPendingChange) {
  const char* declared = "/etc/dynamic/param/network.conf";
  WriteFile(declared, "group Network { param Added { mount = \"Standard{Root}{added}\" } }\n");
  WriteFile(kPath, std::string(kFile) + "added 7\n");
  EXPECT_EQ(Ctl("set --sync 0 Network.Hostname lobby", "read-file " + std::string(declared)),
            "0|0|");
  EXPECT_EQ(Ctl("get Network.Added", "get Network.Hostname"), "0|7\n0|lobby\n");
  EXPECT_EQ(Ctl("sync 0"), "0|");
  EXPECT_EQ(ReadFile(kPath), kLobby + "added 7\n");
}

// A user added after start-up is unknown to the rules until SIGUSR1, which is handled between
// requests: at the latest before the next one is served.
TEST_F(RequestsTest, Sigusr1RebuildsTheUserCacheBetweenRequests) {
  WriteFile("/etc/passwd", ReadFile("/etc/passwd") + "frank:x:2007:2007::/tmp:/bin/sh\n");
  std::string group = ReadFile("/etc/group") + "frank:x:2007:\n";
  WriteFile("/etc/group", group.replace(group.find("alice,bob\n"), 10, "alice,bob,frank\n"));
  EXPECT_EQ(CtlAs("frank", {"set Network.Staff f"}),
            "3|tessctl: root.Network.Staff: access refused\n");
  EXPECT_TRUE(log().WaitFor("Uid: 2007 wasn't found in user list.", 1000));
  kill(daemon_pid(), SIGUSR1);
  EXPECT_EQ(CtlAs("frank", {"set Network.Staff f"}), "0|");
  EXPECT_TRUE(log().WaitFor("Got SIGUSR1, reinitializing authorization data.", 3000));
}

}  // namespace
}  // namespace tessard::test
