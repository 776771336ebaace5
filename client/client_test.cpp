#include "client/tessclient.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

namespace {

// Wire bytes written as a mix of single bytes and texts.
struct Piece {
  Piece(int byte) : text(1, static_cast<char>(byte)) {}
  Piece(const char* t) : text(t) {}
  std::string text;
};

std::string bytes(std::initializer_list<Piece> pieces) {
  std::string out;
  for (const Piece& piece : pieces) out += piece.text;
  return out;
}

// The result and the outputs of a call as one text; the outputs are freed.
std::string render(int rc, std::initializer_list<char*> outputs) {
  std::string out = std::to_string(rc);
  for (char* text : outputs) {
    out += text ? " [" + std::string(text) + "]" : " null";
    free(text);
  }
  return out;
}

class ClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    server_ = fds[1];
    ASSERT_EQ(tessclient_attach_fd(fds[0], &client_), 0);
    tessclient_set_identity(client_, 0x0102, 0x0304);
  }
  void TearDown() override {
    tessclient_close(client_);
    if (server_ >= 0) close(server_);
  }
  void send_reply(const std::string& reply) {
    ASSERT_EQ(write(server_, reply.data(), reply.size()), static_cast<ssize_t>(reply.size()));
  }
  // Everything the client has sent and the fake server has not yet taken.
  std::string take_request() {
    std::string buffer(0x20000, '\0');
    ssize_t n = recv(server_, buffer.data(), buffer.size(), MSG_DONTWAIT);
    buffer.resize(n < 0 ? 0 : n);
    return buffer;
  }

  TessClient* client_ = nullptr;
  int server_ = -1;
};

struct ExchangeCase {
  const char* name;
  std::function<std::string(TessClient*)> call;
  std::string request;
  std::string reply;
  std::string result;
};

void PrintTo(const ExchangeCase& c, std::ostream* os) {
  *os << c.name;
}

class ExchangeTest : public ClientTest, public ::testing::WithParamInterface<ExchangeCase> {};

std::string call_get(TessClient* c) {
  char* value;
  int rc = tessclient_get(c, "a.b", &value);
  return render(rc, {value});
}

std::string call_param_info(TessClient* c) {
  char *path, *name, *type;
  int rc = tessclient_get_param_info(c, "a.b", 0x105, &path, &name, &type);
  return render(rc, {path, name, type});
}

std::string call_option(TessClient* c) {
  char* value;
  int rc = tessclient_get_param_option(c, "a.b", "type", &value);
  return render(rc, {value});
}

std::string call_group_info(TessClient* c) {
  char *path, *name;
  int rc = tessclient_get_group_info(c, "a.b", 2, &path, &name);
  return render(rc, {path, name});
}

std::string call_create(TessClient* c) {
  char* name;
  int rc = tessclient_create_group(c, "a.b", "t", TESSCLIENT_ANY_NUMBER, 10, &name);
  return render(rc, {name});
}

std::string call_create_unlimited(TessClient* c) {
  char* name;
  int rc = tessclient_create_group_unlimited(c, "a.b", "t", 3, 0, &name);
  return render(rc, {name});
}

std::string call_get_bytes(TessClient* c) {
  unsigned char* value = nullptr;
  size_t length = 0;
  int rc = tessclient_get_bytes(c, "a.b", &value, &length);
  std::string out = std::to_string(rc) + " " + std::to_string(length);
  free(value);
  return out;
}

std::string call_name_values(TessClient* c) {
  TessClientNameValueList* list = nullptr;
  int rc = tessclient_get_name_value_list(c, "a.b", 1, &list);
  std::string out = std::to_string(rc);
  for (size_t i = 0; list && i < list->count; ++i) {
    const TessClientNameValue& item = list->items[i];
    out += " " + std::string(item.path) + (item.has_value ? "=" : "~") + item.value;
  }
  tessclient_free_name_value_list(list);
  return out;
}

const unsigned char kEmptyList[] = {8, 0, 4, 0, 'L', 'I', 'S', 'T'};

const ExchangeCase kExchanges[] = {
    {"GetText", call_get, bytes({16, 0, 0, 0, 2, 0, 2, 1, 4, 3, 0, 3, 0, "a.b"}),
     bytes({9, 0, 0, 0, 3, 0, "xyz"}), "0 [xyz]"},
    {"GetMissing", call_get, bytes({16, 0, 0, 0, 2, 0, 2, 1, 4, 3, 0, 3, 0, "a.b"}),
     bytes({4, 0, 0, 0x10}), "16 null"},
    {"GetBytes", call_get_bytes, bytes({16, 0, 0, 3, 0, 0, 2, 1, 4, 3, 0, 3, 0, "a.b"}),
     bytes({14, 0, 0, 0, 8, 0, 8, 0, 4, 0, "LIST"}), "0 8"},
    {"SetText", [](TessClient* c) { return render(tessclient_set(c, "a.b", "v1", 10), {}); },
     bytes({21, 0, 1, 0, 2, 2, 1, 4, 3, 0, 0, 3, 0, "a.b", 2, 0, "v1", 10}), bytes({4, 0, 0, 5}),
     "5"},
    {"SetBytes",
     [](TessClient* c) { return render(tessclient_set_bytes(c, "a.b", kEmptyList, 8, 0), {}); },
     bytes({27, 0, 1, 3, 0, 2, 1, 4, 3, 0, 0, 3, 0, "a.b", 8, 0, 8, 0, 4, 0, "LIST", 0}),
     bytes({4, 0, 0, 0}), "0"},
    {"Sync", [](TessClient* c) { return render(tessclient_sync(c, 1), {}); }, bytes({4, 0, 2, 1}),
     bytes({4, 0, 0, 1}), "1"},
    {"ParamInfo", call_param_info, bytes({11, 0, 3, 0, 3, 0, "a.b", 5, 1}),
     bytes({16, 0, 0, 0, 2, 0, "p1", 1, 0, "c", 3, 0, "int"}), "0 [p1] [c] [int]"},
    {"Option", call_option, bytes({16, 0, 4, 0, 3, 0, "a.b", 0, 4, 0, "type"}),
     bytes({10, 0, 0, 0, 4, 0, "int", 0}), "0 [int]"},
    {"GroupInfo", call_group_info, bytes({11, 0, 5, 0, 3, 0, "a.b", 2, 0}),
     bytes({12, 0, 0, 0, 3, 0, "a.g", 1, 0, "g"}), "0 [a.g] [g]"},
    {"CreateAnyNumber", call_create,
     bytes({20, 0, 6, 2, 1, 4, 3, 0, 0, 3, 0, "a.b", 0xFF, 0xFF, 1, 0, "t", 10}),
     bytes({7, 0, 0, 0, "I0", 0}), "0 [I0]"},
    {"CreateUnlimitedExists", call_create_unlimited,
     bytes({20, 0, 10, 2, 1, 4, 3, 0, 0, 3, 0, "a.b", 3, 0, 1, 0, "t", 0}), bytes({4, 0, 0, 0x10}),
     "16 null"},
    {"Delete", [](TessClient* c) { return render(tessclient_delete_group(c, "a.b", 10), {}); },
     bytes({15, 0, 7, 2, 1, 4, 3, 0, 0, 3, 0, "a.b", 10}), bytes({4, 0, 0, 0}), "0"},
    {"DeleteWithoutSyncByte",
     [](TessClient*
            c) { return render(tessclient_delete_group(c, "a.b", TESSCLIENT_NO_SYNC_BYTE), {}); },
     bytes({14, 0, 7, 2, 1, 4, 3, 0, 0, 3, 0, "a.b"}), bytes({4, 0, 0, 3}), "3"},
    {"ReadFile", [](TessClient* c) { return render(tessclient_read_file(c, "/f.conf"), {}); },
     bytes({17, 0, 8, 2, 1, 4, 3, 0, 7, 0, "/f.conf"}), bytes({4, 0, 0, 1}), "1"},
    {"NameValues", call_name_values, bytes({15, 0, 9, 2, 1, 4, 3, 0, 0, 1, 3, 0, "a.b"}),
     bytes({22, 0, 0, 0, "a.b.x=1=2", 1, "a.b.y=", 2, 0}), "0 a.b.x=1=2 a.b.y~"},
    {"NameValuesPartialWithStatus", call_name_values,
     bytes({15, 0, 9, 2, 1, 4, 3, 0, 0, 1, 3, 0, "a.b"}), bytes({11, 0, 0, 1, "a.b.x=", 0}),
     "1 a.b.x="},
    {"NameValuesAllRefused", call_name_values, bytes({15, 0, 9, 2, 1, 4, 3, 0, 0, 1, 3, 0, "a.b"}),
     bytes({4, 0, 0, 0}), "0"},
};

TEST_P(ExchangeTest, SendsExactRequestAndParsesReply) {
  send_reply(GetParam().reply);
  EXPECT_EQ(GetParam().call(client_), GetParam().result);
  EXPECT_EQ(take_request(), GetParam().request);
}

INSTANTIATE_TEST_SUITE_P(Requests, ExchangeTest, ::testing::ValuesIn(kExchanges),
                         [](const auto& info) { return std::string(info.param.name); });

std::string refused(const char* outputs) {
  return std::to_string(-EPROTO) + outputs;
}

// Replies whose contents lie about their items. Each frame is complete, so the client must
// refuse it without reading into the next reply, which must still reach the next call.
const ExchangeCase kLyingReplies[] = {
    {"ItemLongerThanFrame", call_get, "", bytes({8, 0, 0, 0, 9, 0, "ab"}), refused(" null")},
    {"HalfALength", call_get, "", bytes({5, 0, 0, 0, 3}), refused(" null")},
    {"MissingItem", call_param_info, "", bytes({11, 0, 0, 0, 1, 0, "p", 1, 0, "n", 0}),
     refused(" null null null")},
    {"GroupNameOverrun", call_group_info, "", bytes({10, 0, 0, 0, 1, 0, "p", 5, 0, "n"}),
     refused(" null null")},
    {"OptionWithoutItem", call_option, "", bytes({4, 0, 0, 0}), refused(" null")},
    {"CreateWithoutName", call_create, "", bytes({5, 0, 0, 0, 0}), refused(" null")},
    {"NameValueWithoutEquals", call_name_values, "", bytes({8, 0, 0, 0, "abc", 0}), refused("")},
};

class LyingReplyTest : public ExchangeTest {};

TEST_P(LyingReplyTest, RefusesReplyAndStaysInStep) {
  send_reply(GetParam().reply + bytes({6, 0, 0, 0, 0, 0}));
  EXPECT_EQ(GetParam().call(client_), GetParam().result) << "outputs must stay NULL";
  EXPECT_EQ(call_get(client_), "0 []");
}

INSTANTIATE_TEST_SUITE_P(Replies, LyingReplyTest, ::testing::ValuesIn(kLyingReplies),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(ClientTest, TruncatedReplyLosesTheConnection) {
  send_reply(bytes({100, 0, 0, 0, 20, 0, "short"}));
  shutdown(server_, SHUT_WR);
  EXPECT_EQ(call_get(client_), std::to_string(-ECONNRESET) + " null");
  EXPECT_EQ(call_get(client_), std::to_string(-ENOTCONN) + " null");
}

TEST_F(ClientTest, FrameShorterThanHeaderLosesTheConnection) {
  send_reply(bytes({3, 0, 0, 0}) + bytes({4, 0, 0, 0}));
  EXPECT_EQ(tessclient_sync(client_, 0), -EPROTO);
  EXPECT_EQ(tessclient_sync(client_, 0), -ENOTCONN);
}

TEST_F(ClientTest, ReadsReplyLongerThan16Bits) {
  std::string entry = std::string(1000, 'p') + "=v\x01";
  std::string data;
  for (int i = 0; i < 100; ++i) data += entry;
  data.back() = '\0';
  size_t total = data.size() + 4;
  std::string header = bytes({static_cast<int>(total & 0xFF), static_cast<int>(total >> 8 & 0xFF),
                              static_cast<int>(total >> 16), 0});
  std::thread server([&] { send_reply(header + data); });
  TessClientNameValueList* list = nullptr;
  EXPECT_EQ(tessclient_get_name_value_list(client_, "a", 0, &list), 0);
  server.join();
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->count, 100u);
  EXPECT_STREQ(list->items[99].value, "v");
  tessclient_free_name_value_list(list);
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
  send_reply(bytes({4, 0, 0, 0}));
  EXPECT_EQ(tessclient_sync(client_, 0), 0);
}

TEST_F(ClientTest, ClaimsOwnIdentityByDefault) {
  TessClient* plain = nullptr;
  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  ASSERT_EQ(tessclient_attach_fd(fds[0], &plain), 0);
  ASSERT_EQ(write(fds[1], "\x04\x00\x00\x00", 4), 4);
  EXPECT_EQ(tessclient_read_file(plain, "f"), 0);
  char request[16] = {};
  ASSERT_EQ(read(fds[1], request, sizeof request), 11);
  EXPECT_EQ(static_cast<uint8_t>(request[3]) | static_cast<uint8_t>(request[4]) << 8,
            getuid() & 0xFFFF);
  EXPECT_EQ(static_cast<uint8_t>(request[5]) | static_cast<uint8_t>(request[6]) << 8,
            getgid() & 0xFFFF);
  tessclient_close(plain);
  close(fds[1]);
}

// A listening socket in a fresh directory; the test reads back which one the client reached.
class Listener {
 public:
  explicit Listener(const std::string& path) : path_(path) {
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(fd_, 1), 0);
  }
  ~Listener() {
    close(fd_);
    unlink(path_.c_str());
  }
  bool reached() {
    int fd = accept(fd_, nullptr, nullptr);
    if (fd >= 0) close(fd);
    return fd >= 0;
  }

 private:
  std::string path_;
  int fd_;
};

TEST(ClientConnectTest, ArgumentWinsOverEnvironment) {
  std::string dir_template = ::testing::TempDir() + "tessclientXXXXXX";
  ASSERT_NE(mkdtemp(dir_template.data()), nullptr);
  Listener from_env(dir_template + "/env"), from_arg(dir_template + "/arg");
  ASSERT_EQ(setenv(TESSCLIENT_SOCKET_ENV, (dir_template + "/env").c_str(), 1), 0);
  TessClient* client = nullptr;
  ASSERT_EQ(tessclient_connect(nullptr, &client), 0);
  tessclient_close(client);
  EXPECT_TRUE(from_env.reached());
  ASSERT_EQ(tessclient_connect((dir_template + "/arg").c_str(), &client), 0);
  tessclient_close(client);
  EXPECT_TRUE(from_arg.reached());
  EXPECT_FALSE(from_env.reached());
  EXPECT_EQ(tessclient_connect((dir_template + "/none").c_str(), &client), -ENOENT);
  EXPECT_EQ(client, nullptr);
  unsetenv(TESSCLIENT_SOCKET_ENV);
  rmdir(dir_template.c_str());
}

TEST(ClientStatusTextTest, NamesEachStatus) {
  EXPECT_STREQ(tessclient_status_text(TESSCLIENT_NO_PARAM), "no such parameter");
  EXPECT_STREQ(tessclient_status_text(TESSCLIENT_ACCESS_REFUSED), "access refused");
  EXPECT_STREQ(tessclient_status_text(TESSCLIENT_READ_ONLY), "read-only parameter");
  EXPECT_STREQ(tessclient_status_text(0x13), "unknown status");
  EXPECT_STREQ(tessclient_status_text(-ENOENT), "No such file or directory");
  EXPECT_STREQ(tessclient_request_status_text(TESSCLIENT_SNC, 1), "synchronisation failed");
  EXPECT_STREQ(tessclient_request_status_text(TESSCLIENT_CREATE_GROUP, 0x10),
               "group already exists");
  EXPECT_STREQ(tessclient_request_status_text(TESSCLIENT_GET, 0x10), "no such parameter");
}

}  // namespace
