#include "server/authorization.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <string>

#include "server/clientserver.h"

namespace {

struct RuleCase {
  std::string text;
  int bit;
  int status;
};

void PrintTo(const RuleCase& c, std::ostream* os) {
  *os << '"' << c.text << "\" bit " << c.bit;
}

class AccessRuleTest : public ::testing::TestWithParam<RuleCase> {};

// The claimed gid's group is "admin"; group names of other entries are looked up in the user cache,
// where uid 0 has none of them.
TEST_P(AccessRuleTest, DecidesByTheFirstMatchingEntryWithTheBit) {
  ASSERT_EQ(populateUserCache(), 0);
  EXPECT_EQ(evaluateAccessControl(GetParam().text.c_str(), 0, "admin", GetParam().bit),
            GetParam().status);
}

INSTANTIATE_TEST_SUITE_P(
    Rules, AccessRuleTest,
    ::testing::Values(RuleCase{":1", ACCESS_READ, STATUS_OK},
                      RuleCase{":1", ACCESS_WRITE, STATUS_ACCESS_REFUSED},
                      RuleCase{"admin:2", ACCESS_WRITE, STATUS_OK},
                      RuleCase{"admin:2", ACCESS_READ, STATUS_ACCESS_REFUSED},
                      RuleCase{"admin:x", ACCESS_READ, STATUS_ACCESS_REFUSED},
                      RuleCase{":1;admin:x", ACCESS_READ, STATUS_OK},
                      RuleCase{":1;admin:x", ACCESS_WRITE, STATUS_ACCESS_REFUSED},
                      RuleCase{"admin: 3", ACCESS_WRITE, STATUS_OK},
                      RuleCase{"admin:3 ;", ACCESS_WRITE, STATUS_OK},
                      RuleCase{"admin:3\t", ACCESS_WRITE, STATUS_OK},
                      RuleCase{"admin:3,", ACCESS_WRITE, STATUS_ACCESS_REFUSED},
                      RuleCase{"admin:0xC", ACCESS_CREATE, STATUS_OK},
                      RuleCase{"admin:", ACCESS_READ, STATUS_ACCESS_REFUSED},
                      RuleCase{"admin", ACCESS_READ, STATUS_ACCESS_REFUSED},
                      RuleCase{"", ACCESS_READ, STATUS_ACCESS_REFUSED},
                      RuleCase{"Admin:f", ACCESS_READ, STATUS_ACCESS_REFUSED},
                      RuleCase{"operator:f;admin:1", ACCESS_READ, STATUS_OK},
                      RuleCase{"admin:1;admin:2", ACCESS_WRITE, STATUS_OK},
                      RuleCase{"operator:x;:4", ACCESS_DELETE, STATUS_OK},
                      RuleCase{"admin:1;", ACCESS_WRITE, STATUS_ACCESS_REFUSED}));

TEST(UserCache, RootHasItsPrimaryGroup) {
  ASSERT_EQ(populateUserCache(), 0);
  EXPECT_EQ(uid_in_group(0, "root"), 1);
  EXPECT_EQ(uid_in_group(0, "no-such-group"), 0);
  EXPECT_EQ(uid_in_group(4000000000U, "root"), 0) << "unknown uid";
}

// A peer in group 0 that is not root may not claim root's identity (nor anybody else's).
TEST(PeerCredentials, GroupZeroAloneDoesNotMakeARootPeer) {
  ASSERT_EQ(getuid(), 0u) << "the test needs root to make a peer of another uid";
  int listener = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::string name = "tessard-peer-test-" + std::to_string(getpid());
  memcpy(address.sun_path + 1, name.data(), name.size());  // abstract: nothing on disk
  socklen_t length = offsetof(sockaddr_un, sun_path) + 1 + name.size();
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), length), 0);
  ASSERT_EQ(listen(listener, 1), 0);
  pid_t child = fork();
  if (child == 0) {  // uid 65534, gid still 0
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (setuid(65534) != 0 || connect(fd, reinterpret_cast<sockaddr*>(&address), length) != 0)
      _exit(1);
    char byte;
    _exit(read(fd, &byte, 1) == 0 ? 0 : 1);
  }
  int fd = accept(listener, nullptr, nullptr);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(checkAccessControl(0, 0, GET, "root.Missing", 1, fd), STATUS_ACCESS_REFUSED);
  EXPECT_EQ(checkAccessControl(65534, 0, GET, "root.Missing", 1, fd), STATUS_OK);
  close(fd);
  close(listener);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

}  // namespace
