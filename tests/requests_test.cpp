// Requests to a running daemon as users of the sandbox make them: rights judged by the peer's real
// groups or a root peer's claim, the order of requests on a connection, what reaches the backing
// file and when, group files read on request, and the user cache rebuilt on SIGUSR1. What each
// request answers on its own is server/clientserver_requests_test's.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <syslog.h>
#include <tessard/tessclient.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/clientcalls.h"
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

std::string FileWith(const std::string& from, const std::string& to) {
  std::string text = kFile;
  return text.replace(text.find(from), from.size(), to);
}

class RequestsTest : public SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    if (HasFatalFailure()) return;
    WriteFile("/etc/tessard.conf", kConfig);
    WriteFile(kPath, kFile);
    StartServing({"/etc/tessard.conf", "0"});
  }
};

// A root peer may claim any identity, and the claim is then what the rules see; another peer's
// claim must match its credentials. A quiet refusal is not logged.
TEST_F(RequestsTest, ClaimedIdentityIsJudgedAndMustMatchThePeer) {
  EXPECT_EQ(RunAs(kDave,
                  [] {
                    return WithClient([](TessClient* c) {
                      tessclient_set_identity(c, 0, 0);
                      return tessclient_set(c, "Network.Hostname", "x", 0);
                    });
                  }),
            TESSCLIENT_ACCESS_REFUSED);
  EXPECT_TRUE(log().WaitFor("are different from socket(2004, 2004)", 1000));
  auto get_as = [](uid_t uid, int quiet) {
    return WithClient([&](TessClient* c) {
      tessclient_set_identity(c, uid, uid);
      tessclient_set_quiet(c, quiet);
      char* value = nullptr;
      int status = tessclient_get(c, "root.Network.Secret", &value);
      free(value);
      return status;
    });
  };
  EXPECT_EQ(get_as(kCarol.uid, 0), TESSCLIENT_ACCESS_REFUSED);
  EXPECT_EQ(get_as(kCarol.uid, 1), TESSCLIENT_ACCESS_REFUSED);
  EXPECT_EQ(get_as(kAlice.uid, 0), TESSCLIENT_OK);
  LogLine line;
  ASSERT_TRUE(log().WaitFor("Authorization failure", 1000, &line));
  EXPECT_EQ(line.priority, LOG_WARNING);
  EXPECT_EQ(line.message,
            "Authorization failure: client UID=2003, GID=2003request type GET "
            "data=[root.Network.Secret], param accessControl=\"admin:3\"\n");
  usleep(200 * 1000);
  EXPECT_EQ(log().Count("Authorization failure"), 1) << "the quiet request logs nothing";
}

TEST_F(RequestsTest, NameValueListShowsOnlyReadableParameters) {
  auto list_as = [](uid_t uid) {
    std::string seen;
    WithClient([&](TessClient* c) {
      tessclient_set_identity(c, uid, uid);
      TessClientNameValueList* list = nullptr;
      int status = tessclient_get_name_value_list(c, "root.Network", 0, &list);
      for (size_t i = 0; list != nullptr && i < list->count; i++) {
        seen += std::string(list->items[i].path + 13) + "=" +
                (list->items[i].has_value ? list->items[i].value : "<empty>") + ";";
      }
      tessclient_free_name_value_list(list);
      return status;
    });
    return seen;
  };
  EXPECT_EQ(list_as(kCarol.uid), "Hostname=camera1;Domain=example.com;Missing=<empty>;");
  EXPECT_EQ(list_as(kAlice.uid),
            "Hostname=camera1;Domain=example.com;Secret=*****;Missing=<empty>;");
}

// By the real peer's groups: bob (operator), carol (viewer only), sysop (system), alice (staff).
TEST_F(RequestsTest, WritesOnlyWithTheWriteBitOfTheCallersGroups) {
  struct {
    const TestUser* user;
    const char* path;
    int status;
  } const cases[] = {{&kBob, "Network.Hostname", TESSCLIENT_OK},
                     {&kCarol, "Network.Hostname", TESSCLIENT_ACCESS_REFUSED},
                     {&kSysop, "Network.Hostname", TESSCLIENT_OK},
                     {&kAlice, "Network.Staff", TESSCLIENT_OK}};
  for (const auto& c : cases) {
    EXPECT_EQ(RunAs(*c.user, [&] { return Set(c.path, "changed", 0); }), c.status)
        << c.user->name << " " << c.path;
  }
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

// Sync byte 0 keeps the change in memory until a full SNC; sync byte 10 writes at once, by
// renaming a new file over the old one (the old stays readable through a descriptor opened
// before; inode numbers do not tell on the sandbox's overlay).
TEST_F(RequestsTest, ChangesReachTheFileAtTheSyncAsAWholeNewFile) {
  EXPECT_EQ(Set("Network.Hostname", "lobby", 0), TESSCLIENT_OK);
  EXPECT_EQ(Get("Network.Hostname"), "lobby");
  EXPECT_EQ(Sync(1), TESSCLIENT_OK);
  EXPECT_EQ(ReadFile(kPath), kFile) << "a signal-only SNC writes nothing";
  EXPECT_EQ(Sync(0), TESSCLIENT_OK);
  std::string synced = FileWith("hostname camera1", "hostname lobby");
  EXPECT_EQ(ReadFile(kPath), synced);
  int before = open(kPath, O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(Set("Network.Domain", "front door", 10), TESSCLIENT_OK);
  std::string old(synced.size() + 1, '\0');
  old.resize(std::max<ssize_t>(pread(before, old.data(), old.size(), 0), 0));
  close(before);
  EXPECT_EQ(old, synced) << "replaced by rename, not rewritten in place";
  std::string changed = synced;
  EXPECT_EQ(ReadFile(kPath),
            changed.replace(changed.find("\"example.com\""), 13, "\"front door\""));
  EXPECT_FALSE(Exists(std::string(kPath) + ".temp"));
}

// The file re-declares the group with one more parameter: the group's backing file is read again
// without writing it, while Hostname waits for a sync.
TEST_F(RequestsTest, ReadingAGroupFileAgainKeepsAPendingChange) {
  const char* declared = "/etc/dynamic/param/network.conf";
  WriteFile(declared, "group Network { param Added { mount = \"Standard{Root}{added}\" } }\n");
  WriteFile(kPath, std::string(kFile) + "added 7\n");
  EXPECT_EQ(Set("Network.Hostname", "lobby", 0), TESSCLIENT_OK);
  EXPECT_EQ(WithClient([&](TessClient* c) { return tessclient_read_file(c, declared); }),
            TESSCLIENT_OK);
  ASSERT_EQ(waitpid(daemon_pid(), nullptr, WNOHANG), 0) << "the daemon has ended";
  EXPECT_EQ(Get("Network.Added"), "7");
  EXPECT_EQ(Get("Network.Hostname"), "lobby");
  EXPECT_EQ(Sync(0), TESSCLIENT_OK);
  EXPECT_EQ(ReadFile(kPath), FileWith("hostname camera1", "hostname lobby") + "added 7\n");
}

// A user added after start-up is unknown to the rules until SIGUSR1, which is handled between
// requests: at the latest before the next one is served.
TEST_F(RequestsTest, Sigusr1RebuildsTheUserCacheBetweenRequests) {
  WriteFile("/etc/passwd", ReadFile("/etc/passwd") + "frank:x:2007:2007::/tmp:/bin/sh\n");
  std::string group = ReadFile("/etc/group") + "frank:x:2007:\n";
  WriteFile("/etc/group", group.replace(group.find("alice,bob\n"), 10, "alice,bob,frank\n"));
  auto set_as_frank = [] {
    return WithClient([](TessClient* c) {
      tessclient_set_identity(c, 2007, 2007);
      return tessclient_set(c, "Network.Staff", "f", 0);
    });
  };
  EXPECT_EQ(set_as_frank(), TESSCLIENT_ACCESS_REFUSED);
  EXPECT_TRUE(log().WaitFor("Uid: 2007 wasn't found in user list.", 1000));
  kill(daemon_pid(), SIGUSR1);
  EXPECT_EQ(set_as_frank(), TESSCLIENT_OK);
  EXPECT_TRUE(log().WaitFor("Got SIGUSR1, reinitializing authorization data.", 3000));
}

}  // namespace
}  // namespace tessard::test
