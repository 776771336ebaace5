#include <tessard/tessclient.h>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/support/clienttestutil.h"

namespace {

using namespace std::string_literals;
using tessard::test::item;
using tessard::test::reply;

// A client on one end of a socket pair; the test plays the daemon on the other.
class ClientTest : public ::testing::Test {
 protected:
  void SetUp() override { reconnect(); }
  void TearDown() override {
    tessclient_close(client_);
    if (server_ >= 0) close(server_);
  }
  void reconnect() {
    TearDown();
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    server_ = fds[1];
    ASSERT_EQ(tessclient_attach_fd(fds[0], &client_), 0);
    tessclient_set_identity(client_, 0x0102, 0x0304);
  }
  void send_reply(const std::string& reply) {
    ASSERT_EQ(write(server_, reply.data(), reply.size()), static_cast<ssize_t>(reply.size()));
  }
  // Everything the client has sent and the test has not yet taken.
  std::string take_request() {
    std::string buffer(0x20000, '\0');
    ssize_t n = recv(server_, buffer.data(), buffer.size(), MSG_DONTWAIT);
    buffer.resize(n < 0 ? 0 : n);
    return buffer;
  }

  TessClient* client_ = nullptr;
  int server_ = -1;
};

const std::string kEmptyList = "\x08\0\4\0LIST"s;

// The other requests are made against the real daemon by the whole-daemon tests.
TEST_F(ClientTest, SendsExactRequestsAndParsesReplies) {
  send_reply(reply(0, item(kEmptyList)));
  unsigned char* value = nullptr;
  size_t length = 0;
  EXPECT_EQ(tessclient_get_bytes(client_, "a.b", &value, &length), 0);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(value), length), kEmptyList);
  free(value);
  EXPECT_EQ(take_request(), "\x10\0\0\3\0\0\2\1\4\3\0"s + item("a.b"));
  send_reply(reply(0));
  EXPECT_EQ(tessclient_set_bytes(client_, "a.b",
                                 reinterpret_cast<const unsigned char*>(kEmptyList.data()), 8, 0),
            0);
  EXPECT_EQ(take_request(), "\x1b\0\1\3\0\2\1\4\3\0\0"s + item("a.b") + item(kEmptyList) + '\0');
  send_reply(reply(0x10));
  char* name = nullptr;
  EXPECT_EQ(tessclient_create_group_unlimited(client_, "a.b", "t", 3, 0, &name), 0x10);
  EXPECT_EQ(name, nullptr);
  EXPECT_EQ(take_request(), "\x14\0\x0a\2\1\4\3\0\0"s + item("a.b") + "\3\0"s + item("t") + '\0');
  // A reply longer than 16 bits can count.
  std::string many;
  for (int i = 0; i < 70; ++i) many += std::string(1000, 'p') + "=v\1";
  send_reply(reply(0, many + "a.b.x=1=2\1a.b.y=\2"s + '\0'));
  TessClientNameValueList* list = nullptr;
  ASSERT_EQ(tessclient_get_name_value_list(client_, "a.b", 1, &list), 0);
  ASSERT_EQ(list->count, 72u);
  EXPECT_EQ(std::string(list->items[0].value) + list->items[70].value + list->items[71].value,
            "v1=2");
  EXPECT_FALSE(list->items[71].has_value);
  tessclient_free_name_value_list(list);
}

// A frame shorter than its header, or cut by the peer's close, loses the connection.
TEST_F(ClientTest, BrokenFrameLosesTheConnection) {
  for (auto [frame, result] : {std::pair{"\3\0\0\0\4\0\0\0"s, -EPROTO},
                               std::pair{"\x64\0\0\0\x14\0short"s, -ECONNRESET}}) {
    reconnect();
    send_reply(frame);
    shutdown(server_, SHUT_WR);
    EXPECT_EQ(tessclient_sync(client_, 0), result);
    EXPECT_EQ(tessclient_sync(client_, 0), -ENOTCONN);
  }
}

TEST_F(ClientTest, RefusesWhatTheProtocolCannotCarry) {
  std::string long_path(0x10000, 'p');
  std::string near_limit(0xFFF0, 'p');
  EXPECT_EQ(tessclient_set(client_, long_path.c_str(), "v", 0), -EMSGSIZE);
  EXPECT_EQ(tessclient_set(client_, near_limit.c_str(), "0123456789", 0), -EMSGSIZE);
  EXPECT_EQ(tessclient_sync(client_, 256), -EINVAL);
  EXPECT_EQ(tessclient_get_group_info(client_, "a", 0x10000, nullptr, nullptr), -EINVAL);
  EXPECT_EQ(tessclient_create_group(client_, "a", "t", 0xFFFF, 0, nullptr), -EINVAL);
  EXPECT_EQ(take_request(), "") << "nothing may be sent";
}

// The environment names the socket unless an argument does; a new handle claims its own uid and
// gid.
TEST(ClientConnectTest, ArgumentWinsOverEnvironment) {
  std::string dir = ::testing::TempDir() + "tessclientXXXXXX";
  ASSERT_NE(mkdtemp(dir.data()), nullptr);
  tessard::test::FakeDaemon daemon(dir + "/env", {reply(0)});
  ASSERT_EQ(setenv(TESSCLIENT_SOCKET_ENV, (dir + "/env").c_str(), 1), 0);
  TessClient* client = nullptr;
  EXPECT_EQ(tessclient_connect((dir + "/none").c_str(), &client), -ENOENT);
  ASSERT_EQ(tessclient_connect(nullptr, &client), 0);
  EXPECT_EQ(tessclient_read_file(client, ""), 0);
  tessclient_close(client);
  unsetenv(TESSCLIENT_SOCKET_ENV);
  auto int16 = [](unsigned v) { return std::string{char(v & 0xFF), char(v >> 8 & 0xFF)}; };
  EXPECT_EQ(daemon.finish(),
            std::vector{"\x0a\0\x08"s + int16(getuid()) + int16(getgid()) + '\0' + item("")});
  rmdir(dir.c_str());
}

}  // namespace
