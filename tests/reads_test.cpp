// Read requests of a running daemon as users of the sandbox make them: name-value lists and
// identities judged by the users' groups, the order of requests on a connection, group files read
// on request, and the user cache rebuilt on SIGUSR1. What each request answers on its own is
// server/clientserver_requests_test's.
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <tessard/tessclient.h>
#include "tests/support/sandbox.h"

namespace tessard::test {
namespace {

constexpr const char* kConfig = R"(group Network {
  accessControl = ":1;admin:f"
  parser = Standardparser
  file = "/etc/network.conf"
  param Hostname { mount = "Standard{Root}{hostname}" }
  param Domain { mount = "Standard{Root}{domain}" }
  param Secret { mount = "Standard{Root}{secret}" type = "writeonly:string" accessControl = "admin:3" }
  param Missing { mount = "Standard{Root}{missing}" }
}
group Closed {
  parser = Standardparser
  file = "/etc/network.conf"
  param Staff { mount = "Standard{Root}{staff}" accessControl = "staff:1" }
}
)";

constexpr const char* kBackingFile = R"(# network settings
hostname camera1
domain "example.com"
secret hunter2
staff s1
)";

class ReadsTest : public SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    if (HasFatalFailure()) return;
    WriteFile("/etc/tessard.conf", kConfig);
    WriteFile("/etc/network.conf", kBackingFile);
  }

  void Serve() { StartServing({"/etc/tessard.conf", "0"}); }
};

TEST_F(ReadsTest, NameValueListShowsOnlyReadableParameters) {
  Serve();
  auto list_as = [this](const TestUser& user) {
    return RunAs(user, [] {
      TessClient* client = nullptr;
      TessClientNameValueList* list = nullptr;
      if (tessclient_connect(nullptr, &client) != 0) return 100;
      int status = tessclient_get_name_value_list(client, "root.Network", 0, &list);
      std::string seen;
      for (size_t i = 0; list != nullptr && i < list->count; i++) {
        seen += std::string(list->items[i].path) + "=" +
                (list->items[i].has_value ? list->items[i].value : "<empty>") + ";";
      }
      tessclient_free_name_value_list(list);
      tessclient_close(client);
      std::string expected = "root.Network.Hostname=camera1;root.Network.Domain=example.com;";
      expected += std::string(getuid() == kAlice.uid ? "root.Network.Secret=*****;" : "") +
                  "root.Network.Missing=<empty>;";
      if (status != TESSCLIENT_OK) return 101;
      return seen == expected ? 0 : 102;
    });
  };
  EXPECT_EQ(list_as(kCarol), 0);
  EXPECT_EQ(list_as(kAlice), 0);
}

TEST_F(ReadsTest, ClaimedIdentityMustMatchThePeer) {
  Serve();
  int refused = RunAs(kDave, [] {
    TessClient* client = nullptr;
    if (tessclient_connect(nullptr, &client) != 0) return 100;
    tessclient_set_identity(client, 0, 0);
    char* value = nullptr;
    int status = tessclient_get(client, "root.Network.Hostname", &value);
    free(value);
    tessclient_close(client);
    return status;
  });
  EXPECT_EQ(refused, TESSCLIENT_ACCESS_REFUSED);
  EXPECT_TRUE(log().WaitFor("are different from socket(2004, 2004)", 1000));
  // A root peer may claim any identity; the claim is then what the rules see.
  TessClient* client = nullptr;
  ASSERT_EQ(tessclient_connect(nullptr, &client), 0);
  tessclient_set_identity(client, kCarol.uid, kCarol.gid);
  char* value = nullptr;
  EXPECT_EQ(tessclient_get(client, "root.Network.Secret", &value), TESSCLIENT_ACCESS_REFUSED);
  tessclient_set_identity(client, kAlice.uid, kAlice.gid);
  EXPECT_EQ(tessclient_get(client, "root.Network.Secret", &value), TESSCLIENT_OK);
  free(value);
  tessclient_close(client);
  LogLine line;
  ASSERT_TRUE(log().WaitFor("Authorization failure", 1000, &line));
  EXPECT_EQ(line.priority, LOG_WARNING);
  EXPECT_EQ(line.message,
            "Authorization failure: client UID=2003, GID=2003request type GET "
            "data=[root.Network.Secret], param accessControl=\"admin:3\"\n");
}

TEST_F(ReadsTest, UnknownTypeGetsNoReplyAndBackToBackRequestsAreAnsweredInOrder) {
  Serve();
  int fd = Connect();
  ASSERT_GE(fd, 0);
  ASSERT_TRUE(Send(fd, Frame(11, {0x00})));
  std::vector<unsigned char> reply;
  EXPECT_EQ(ReadReply(fd, &reply, 300), -1);
  ASSERT_TRUE(Send(fd, GetFrame("Network.Hostname")));
  ASSERT_TRUE(Send(fd, GetFrame("Network.Domain")));
  ASSERT_EQ(ReadReply(fd, &reply), 0);
  EXPECT_EQ(std::string(reply.begin() + 6, reply.end()), "camera1");
  ASSERT_EQ(ReadReply(fd, &reply), 0);
  EXPECT_EQ(std::string(reply.begin() + 6, reply.end()), "example.com");
  close(fd);
}

TEST_F(ReadsTest, ReadFileIsLimitedToGroupFileDirectories) {
  Serve();
  WriteFile("/tmp/x.conf", "group Extra { }\n");
  ASSERT_EQ(mkdir("/etc/dynamic", 0755) == 0 || errno == EEXIST, true);
  mkdir("/etc/dynamic/param", 0755);
  WriteFile("/etc/dynamic/param/x.conf", "group Extra { accessControl = \":1\" }\n");
  int status = RunAs(kDave, [] {
    TessClient* client = nullptr;
    if (tessclient_connect(nullptr, &client) != 0) return 100;
    int served = tessclient_read_file(client, "/etc/dynamic/param/x.conf");
    int refused = tessclient_read_file(client, "/tmp/x.conf");
    tessclient_close(client);
    return served == TESSCLIENT_OK && refused == TESSCLIENT_MALFORMED ? 0 : 1;
  });
  EXPECT_EQ(status, 0);
  TessClient* client = nullptr;
  ASSERT_EQ(tessclient_connect(nullptr, &client), 0);
  char* path = nullptr;
  char* name = nullptr;
  EXPECT_EQ(tessclient_get_group_info(client, "root", 1, &path, &name), TESSCLIENT_OK);
  EXPECT_STREQ(name, "Extra");
  free(path), free(name);
  tessclient_close(client);
}

TEST_F(ReadsTest, Sigusr1RebuildsTheUserCacheBetweenRequests) {
  Serve();
  // A user added after start-up is unknown to the rules until SIGUSR1.
  WriteFile("/etc/passwd", ReadFile("/etc/passwd") + "frank:x:2007:2007::/tmp:/bin/sh\n");
  WriteFile("/etc/group", ReadFile("/etc/group") + "frank:x:2007:\n");
  std::string group = ReadFile("/etc/group");
  group.replace(group.find("staff:x:3005:alice,bob"), 22, "staff:x:3005:alice,bob,frank");
  WriteFile("/etc/group", group);
  auto read_as_frank = [] {
    TessClient* client = nullptr;
    if (tessclient_connect(nullptr, &client) != 0) return -1;
    tessclient_set_identity(client, 2007, 2007);
    char* value = nullptr;
    int status = tessclient_get(client, "root.Closed.Staff", &value);
    free(value);
    tessclient_close(client);
    return status;
  };
  EXPECT_EQ(read_as_frank(), TESSCLIENT_ACCESS_REFUSED);
  EXPECT_TRUE(log().WaitFor("Uid: 2007 wasn't found in user list.", 1000));
  // The rebuild happens between requests: at the latest before the next one is served.
  kill(daemon_pid(), SIGUSR1);
  EXPECT_EQ(read_as_frank(), TESSCLIENT_OK);
  EXPECT_TRUE(log().WaitFor("Got SIGUSR1, reinitializing authorization data.", 3000));
}

}  // namespace
}  // namespace tessard::test
