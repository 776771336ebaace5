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

class AccessRuleTest : public ::testing::TestWithParam<std::tuple<const char*, int, bool>> {};

// The claimed gid's group is "admin"; group names of other entries are looked up in the user cache,
// where uid 0 has none of them.
TEST_P(AccessRuleTest, DecidesByTheFirstMatchingEntryWithTheBit) {
  auto [rule, bit, allowed] = GetParam();
  ASSERT_EQ(populateUserCache(), 0);
  EXPECT_EQ(evaluateAccessControl(rule, 0, "admin", bit),
            allowed ? STATUS_OK : STATUS_ACCESS_REFUSED);
}

constexpr int R = ACCESS_READ, W = ACCESS_WRITE;

// rule, access asked, whether it is granted
INSTANTIATE_TEST_SUITE_P(
    Rules, AccessRuleTest,
    ::testing::Values(std::tuple{":1", W, false}, std::tuple{"admin:2", R, false},
                      std::tuple{"admin:x", R, false}, std::tuple{":1;admin:x", R, true},
                      std::tuple{":1;admin:x", W, false}, std::tuple{"admin: 3", W, true},
                      std::tuple{"admin:3 ;", W, true}, std::tuple{"admin:3,", W, false},
                      std::tuple{"admin:0xC", ACCESS_CREATE, true}, std::tuple{"admin", R, false},
                      std::tuple{"", R, false}, std::tuple{"Admin:f", R, false},
                      std::tuple{"admin:1;admin:2", W, true},
                      std::tuple{"operator:x;:4", ACCESS_DELETE, true},
                      std::tuple{"admin:1;", W, false}));

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
