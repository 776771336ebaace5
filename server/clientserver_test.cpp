#include "server/clientserver.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

class SocketPair {
 public:
  SocketPair() { socketpair(AF_UNIX, SOCK_STREAM, 0, fds_); }
  ~SocketPair() {
    for (int fd : fds_) {
      if (fd >= 0) close(fd);
    }
  }
  int daemon() const { return fds_[0]; }
  int client() const { return fds_[1]; }
  void CloseClient() {
    close(fds_[1]);
    fds_[1] = -1;
  }
  std::vector<unsigned char> Receive(size_t count) {
    std::vector<unsigned char> bytes(count);
    size_t done = 0;
    while (done < count) {
      ssize_t got = read(client(), bytes.data() + done, count - done);
      if (got <= 0) break;
      done += got;
    }
    EXPECT_EQ(done, count);
    return bytes;
  }

 private:
  int fds_[2] = {-1, -1};
};

RequestReader reader_of(const std::vector<unsigned char>& bytes) {
  return RequestReader{bytes.data(), static_cast<int>(bytes.size()), 0};
}

std::vector<unsigned char> counted(const std::string& text) {
  std::vector<unsigned char> bytes = {static_cast<unsigned char>(text.size() & 0xFF),
                                      static_cast<unsigned char>(text.size() >> 8)};
  bytes.insert(bytes.end(), text.begin(), text.end());
  return bytes;
}

TEST(FieldReaders, StopAtTheEndOfThePayload) {
  std::vector<unsigned char> bytes = {0x01, 0x34, 0x12};
  RequestReader reader = reader_of(bytes);
  int value = 0;
  ASSERT_EQ(read_int_8(&reader, &value), 0);
  EXPECT_EQ(value, 1);
  ASSERT_EQ(read_int_16(&reader, &value), 0);
  EXPECT_EQ(value, 0x1234);
  EXPECT_EQ(read_int_8(&reader, &value), -1);
  EXPECT_EQ(read_int_16(&reader, &value), -1);
  EXPECT_EQ(reader.pos, 3) << "a refused read does not move";
}

TEST(FieldReaders, Int16NeedsBothBytes) {
  std::vector<unsigned char> bytes = {0x07};
  RequestReader reader = reader_of(bytes);
  int value = -1;
  EXPECT_EQ(read_int_16(&reader, &value), -1);
  EXPECT_EQ(value, -1);
}

struct PathCase {
  std::string sent;
  int result;
  std::string full;
};

void PrintTo(const PathCase& c, std::ostream* os) {
  *os << '"' << c.sent.substr(0, 24) << '"';
}

class GetPathTest : public ::testing::TestWithParam<PathCase> {};

TEST_P(GetPathTest, MakesFullPaths) {
  std::vector<unsigned char> bytes = counted(GetParam().sent);
  RequestReader reader = reader_of(bytes);
  std::string path;
  ASSERT_EQ(getPath(&reader, &path), GetParam().result);
  if (GetParam().result == 0) {
    EXPECT_EQ(path, GetParam().full);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Paths, GetPathTest,
    ::testing::Values(PathCase{"network.eth0", 0, "root.network.eth0"},
                      PathCase{"root.network.eth0", 0, "root.network.eth0"},
                      PathCase{"roo", 0, "root.roo"}, PathCase{"root", 0, "root"},
                      PathCase{"", 0, "root."}, PathCase{"a b", -1, ""},
                      PathCase{std::string("a\0b", 3), -1, ""},
                      PathCase{"root." + std::string(250, 'x'), 0, "root." + std::string(250, 'x')},
                      PathCase{std::string(256, 'x'), -1, ""},
                      // 255 bytes pass the length limit, but "root." makes the path too long.
                      PathCase{std::string(255, 'x'), -1, ""}));

TEST(GetPath, RefusesLengthBeyondPayload) {
  std::vector<unsigned char> bytes = {0x05, 0x00, 'a', 'b'};
  RequestReader reader = reader_of(bytes);
  std::string path;
  EXPECT_EQ(getPath(&reader, &path), -1);
}

TEST(ReplyBuffer, StatusOnlyReplyIsFourBytes) {
  SocketPair pair;
  sendStatus(pair.daemon(), STATUS_MALFORMED);
  EXPECT_EQ(pair.Receive(4), (std::vector<unsigned char>{0x04, 0x00, 0x00, 0x04}));
}

TEST(ReplyBuffer, CountedItemsFollowTheHeader) {
  SocketPair pair;
  createMessage(pair.daemon(), 4 + 2 + 3 + 2);
  addMessageData("abc", 3);
  addMessageDataNoLen("\x01\x02", 2);
  sendMessage(pair.daemon());
  EXPECT_EQ(pair.Receive(11),
            (std::vector<unsigned char>{0x0B, 0, 0, 0, 3, 0, 'a', 'b', 'c', 1, 2}));
}

TEST(ReplyBuffer, ReplyLargerThanTheBufferIsSentWhole) {
  SocketPair pair;
  std::string item(1994, 'v');
  createMessage(pair.daemon(), 2000);
  addMessageData(item.data(), static_cast<int>(item.size()));
  sendMessage(pair.daemon());
  std::vector<unsigned char> reply = pair.Receive(2000);
  EXPECT_EQ(reply[0] | (reply[1] << 8) | (reply[2] << 16), 2000);
  EXPECT_EQ(reply.back(), 'v');
}

TEST(ReplyBuffer, TooLongReplyAnswersStatusTwoAndRecovers) {
  SocketPair pair;
  createMessage(pair.daemon(), 0x1000000);
  addMessageData("x", 1);
  sendMessage(pair.daemon());
  EXPECT_EQ(pair.Receive(4), (std::vector<unsigned char>{0x04, 0x00, 0x00, 0x02}));
  createMessage(pair.daemon(), 7);
  addMessageData("z", 1);
  sendMessage(pair.daemon());
  EXPECT_EQ(pair.Receive(7), (std::vector<unsigned char>{7, 0, 0, 0, 1, 0, 'z'}));
}

TEST(ReplyBufferDeathTest, CreateWhileActiveAborts) {
  SocketPair pair;
  EXPECT_DEATH(
      {
        createMessage(pair.daemon(), 8);
        createMessage(pair.daemon(), 8);
      },
      "message_buffer_state == INACTIVE");
}

TEST(WriteAll, FailsOnClosedPeerWithoutSignal) {
  SocketPair pair;
  pair.CloseClient();
  signal(SIGPIPE, SIG_IGN);
  EXPECT_EQ(write_all(pair.daemon(), "abc", 3, 1), -1);
}

}  // namespace
