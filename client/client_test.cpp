#include <tessard/tessclient.h>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/clienttestutil.h"

namespace {

using tessard::test::reply;

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

// What a call handed out, shown with its result as one text and freed.
struct Outputs {
  char* text[3] = {};
  unsigned char* bytes = nullptr;
  size_t length = 0;
  TessClientNameValueList* list = nullptr;

  std::string render(int rc) {
    std::string out = std::to_string(rc);
    for (char* t : text) out += t ? " [" + std::string(t) + "]" : "";
    if (bytes) out += " " + std::to_string(length) + " bytes";
    for (size_t i = 0; list && i < list->count; ++i) {
      const TessClientNameValue& item = list->items[i];
      out += " " + std::string(item.path) + (item.has_value ? "=" : "~") + item.value;
    }
    for (char* t : text) free(t);
    free(bytes);
    tessclient_free_name_value_list(list);
    return out;
  }
};

using Call = int (*)(TessClient*, Outputs*);

struct ExchangeCase {
  const char* name;
  Call call;
  std::string request;
  std::string reply;
  std::string result;
};

void PrintTo(const ExchangeCase& c, std::ostream* os) {
  *os << c.name;
}

class ExchangeTest : public ClientTest, public ::testing::WithParamInterface<ExchangeCase> {
 protected:
  std::string call(Call call) {
    Outputs outputs;
    int rc = call(client_, &outputs);
    return outputs.render(rc);
  }
};

int get(TessClient* c, Outputs* o) {
  return tessclient_get(c, "a.b", &o->text[0]);
}
int get_bytes(TessClient* c, Outputs* o) {
  return tessclient_get_bytes(c, "a.b", &o->bytes, &o->length);
}
int param_info(TessClient* c, Outputs* o) {
  return tessclient_get_param_info(c, "a.b", 0x105, &o->text[0], &o->text[1], &o->text[2]);
}
int option(TessClient* c, Outputs* o) {
  return tessclient_get_param_option(c, "a.b", "type", &o->text[0]);
}
int group_info(TessClient* c, Outputs* o) {
  return tessclient_get_group_info(c, "a.b", 2, &o->text[0], &o->text[1]);
}
int create(TessClient* c, Outputs* o) {
  return tessclient_create_group(c, "a.b", "t", TESSCLIENT_ANY_NUMBER, 10, &o->text[0]);
}
int name_values(TessClient* c, Outputs* o) {
  return tessclient_get_name_value_list(c, "a.b", 1, &o->list);
}

const unsigned char kEmptyList[] = {8, 0, 4, 0, 'L', 'I', 'S', 'T'};

const ExchangeCase kExchanges[] = {
    {"GetText", get, bytes({16, 0, 0, 0, 2, 0, 2, 1, 4, 3, 0, 3, 0, "a.b"}),
     bytes({9, 0, 0, 0, 3, 0, "xyz"}), "0 [xyz]"},
    {"GetBytes", get_bytes, bytes({16, 0, 0, 3, 0, 0, 2, 1, 4, 3, 0, 3, 0, "a.b"}),
     bytes({14, 0, 0, 0, 8, 0, 8, 0, 4, 0, "LIST"}), "0 8 bytes"},
    {"SetText", [](TessClient* c, Outputs*) { return tessclient_set(c, "a.b", "v1", 10); },
     bytes({21, 0, 1, 0, 2, 2, 1, 4, 3, 0, 0, 3, 0, "a.b", 2, 0, "v1", 10}), bytes({4, 0, 0, 5}),
     "5"},
    {"SetBytes",
     [](TessClient* c, Outputs*) { return tessclient_set_bytes(c, "a.b", kEmptyList, 8, 0); },
     bytes({27, 0, 1, 3, 0, 2, 1, 4, 3, 0, 0, 3, 0, "a.b", 8, 0, 8, 0, 4, 0, "LIST", 0}),
     bytes({4, 0, 0, 0}), "0"},
    {"Sync", [](TessClient* c, Outputs*) { return tessclient_sync(c, 1); }, bytes({4, 0, 2, 1}),
     bytes({4, 0, 0, 1}), "1"},
    {"ParamInfo", param_info, bytes({11, 0, 3, 0, 3, 0, "a.b", 5, 1}),
     bytes({16, 0, 0, 0, 2, 0, "p1", 1, 0, "c", 3, 0, "int"}), "0 [p1] [c] [int]"},
    {"Option", option, bytes({16, 0, 4, 0, 3, 0, "a.b", 0, 4, 0, "type"}),
     bytes({10, 0, 0, 0, 4, 0, "int", 0}), "0 [int]"},
    {"GroupInfo", group_info, bytes({11, 0, 5, 0, 3, 0, "a.b", 2, 0}),
     bytes({12, 0, 0, 0, 3, 0, "a.g", 1, 0, "g"}), "0 [a.g] [g]"},
    {"CreateAnyNumber", create,
     bytes({20, 0, 6, 2, 1, 4, 3, 0, 0, 3, 0, "a.b", 0xFF, 0xFF, 1, 0, "t", 10}),
     bytes({7, 0, 0, 0, "I0", 0}), "0 [I0]"},
    {"CreateUnlimitedExists",
     [](TessClient* c, Outputs* o) {
       return tessclient_create_group_unlimited(c, "a.b", "t", 3, 0, &o->text[0]);
     },
     bytes({20, 0, 10, 2, 1, 4, 3, 0, 0, 3, 0, "a.b", 3, 0, 1, 0, "t", 0}), bytes({4, 0, 0, 0x10}),
     "16"},
    {"Delete", [](TessClient* c, Outputs*) { return tessclient_delete_group(c, "a.b", 10); },
     bytes({15, 0, 7, 2, 1, 4, 3, 0, 0, 3, 0, "a.b", 10}), bytes({4, 0, 0, 0}), "0"},
    {"DeleteWithoutSyncByte",
     [](TessClient* c,
        Outputs*) { return tessclient_delete_group(c, "a.b", TESSCLIENT_NO_SYNC_BYTE); },
     bytes({14, 0, 7, 2, 1, 4, 3, 0, 0, 3, 0, "a.b"}), bytes({4, 0, 0, 3}), "3"},
    {"ReadFile", [](TessClient* c, Outputs*) { return tessclient_read_file(c, "/f.conf"); },
     bytes({17, 0, 8, 2, 1, 4, 3, 0, 7, 0, "/f.conf"}), bytes({4, 0, 0, 1}), "1"},
    {"NameValues", name_values, bytes({15, 0, 9, 2, 1, 4, 3, 0, 0, 1, 3, 0, "a.b"}),
     bytes({22, 0, 0, 0, "a.b.x=1=2", 1, "a.b.y=", 2, 0}), "0 a.b.x=1=2 a.b.y~"},
    {"NameValuesPartialWithStatus", name_values,
     bytes({15, 0, 9, 2, 1, 4, 3, 0, 0, 1, 3, 0, "a.b"}), bytes({11, 0, 0, 1, "a.b.x=", 0}),
     "1 a.b.x="},
};

TEST_P(ExchangeTest, SendsExactRequestAndParsesReply) {
  send_reply(GetParam().reply);
  EXPECT_EQ(call(GetParam().call), GetParam().result);
  EXPECT_EQ(take_request(), GetParam().request);
}

INSTANTIATE_TEST_SUITE_P(Requests, ExchangeTest, ::testing::ValuesIn(kExchanges),
                         [](const auto& info) { return std::string(info.param.name); });

const std::string kRefused = std::to_string(-EPROTO);

// Replies whose contents lie about their items. Each frame is complete, so the client must
// refuse it without reading into the next reply, which must still reach the next call.
const ExchangeCase kLyingReplies[] = {
    {"ItemLongerThanFrame", get, "", bytes({8, 0, 0, 0, 9, 0, "ab"}), kRefused},
    {"HalfALength", get, "", bytes({5, 0, 0, 0, 3}), kRefused},
    {"MissingItem", param_info, "", bytes({11, 0, 0, 0, 1, 0, "p", 1, 0, "n", 0}), kRefused},
    {"OptionWithoutItem", option, "", bytes({4, 0, 0, 0}), kRefused},
    {"CreateWithoutName", create, "", bytes({5, 0, 0, 0, 0}), kRefused},
    {"NameValueWithoutEquals", name_values, "", bytes({8, 0, 0, 0, "abc", 0}), kRefused},
};

class LyingReplyTest : public ExchangeTest {};

TEST_P(LyingReplyTest, RefusesReplyAndStaysInStep) {
  send_reply(GetParam().reply + bytes({6, 0, 0, 0, 0, 0}));
  EXPECT_EQ(call(GetParam().call), GetParam().result) << "outputs must stay NULL";
  EXPECT_EQ(call(get), "0 []");
}

INSTANTIATE_TEST_SUITE_P(Replies, LyingReplyTest, ::testing::ValuesIn(kLyingReplies),
                         [](const auto& info) { return std::string(info.param.name); });

class BrokenFrameTest : public ExchangeTest {};

// A frame shorter than its header, or cut by the peer's close, loses the connection.
TEST_P(BrokenFrameTest, LosesTheConnection) {
  send_reply(GetParam().reply);
  shutdown(server_, SHUT_WR);
  EXPECT_EQ(call(get), GetParam().result);
  EXPECT_EQ(call(get), std::to_string(-ENOTCONN));
}

INSTANTIATE_TEST_SUITE_P(
    Frames, BrokenFrameTest,
    ::testing::Values(ExchangeCase{"Short", get, "", bytes({3, 0, 0, 0, 4, 0, 0, 0}), kRefused},
                      ExchangeCase{"Cut", get, "", bytes({100, 0, 0, 0, 20, 0, "short"}),
                                   std::to_string(-ECONNRESET)}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(ClientTest, ReadsReplyLongerThan16Bits) {
  std::string data;
  for (int i = 0; i < 100; ++i) data += std::string(1000, 'p') + "=v\x01";
  data.back() = '\0';
  std::thread server([&] { send_reply(reply(0, data)); });
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
  EXPECT_EQ(tessclient_delete_group(client_, "a", 256), -EINVAL);
  EXPECT_EQ(tessclient_set(client_, "a", "v", 256), -EINVAL);
  EXPECT_EQ(tessclient_get_group_info(client_, "a", 0x10000, nullptr, nullptr), -EINVAL);
  EXPECT_EQ(tessclient_create_group(client_, "a", "t", 0xFFFF, 0, nullptr), -EINVAL);
  EXPECT_EQ(take_request(), "") << "nothing may be sent";
  send_reply(bytes({4, 0, 0, 0}));
  EXPECT_EQ(tessclient_sync(client_, 0), 0);
}

// Also pins the identity a new handle claims: its own uid and gid.
TEST(ClientConnectTest, ArgumentWinsOverEnvironment) {
  std::string dir = ::testing::TempDir() + "tessclientXXXXXX";
  ASSERT_NE(mkdtemp(dir.data()), nullptr);
  tessard::test::FakeDaemon from_env(dir + "/env", {reply(0), reply(0)});
  tessard::test::FakeDaemon from_arg(dir + "/arg", {reply(0)});
  ASSERT_EQ(setenv(TESSCLIENT_SOCKET_ENV, (dir + "/env").c_str(), 1), 0);
  for (const std::string& path : {std::string(), dir + "/arg"}) {
    TessClient* client = nullptr;
    ASSERT_EQ(tessclient_connect(path.empty() ? nullptr : path.c_str(), &client), 0);
    EXPECT_EQ(tessclient_read_file(client, ""), 0);
    tessclient_close(client);
  }
  TessClient* client = nullptr;
  EXPECT_EQ(tessclient_connect((dir + "/none").c_str(), &client), -ENOENT);
  EXPECT_EQ(client, nullptr);
  unsetenv(TESSCLIENT_SOCKET_ENV);
  std::vector<std::string> requests = from_arg.finish();
  EXPECT_EQ(from_env.finish().size(), 1u);
  ASSERT_EQ(requests.size(), 1u);
  auto int16 = [](unsigned v) { return std::string{char(v & 0xFF), char(v >> 8 & 0xFF)}; };
  EXPECT_EQ(requests[0].substr(3, 4), int16(getuid()) + int16(getgid()));
  rmdir(dir.c_str());
}

}  // namespace
