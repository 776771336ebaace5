#include "server/clientserver.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

RequestReader reader_of(const Bytes& bytes) {
  return RequestReader{bytes.data(), static_cast<int>(bytes.size()), 0};
}

// The path sent with its 16-bit length, and the full path made of it ("" when refused).
TEST(GetPath, MakesFullPaths) {
  const std::pair<std::string, std::string> cases[] = {
      {"roo", "root.roo"},
      {"root", "root"},
      {"", "root."},
      {std::string("a\0b", 3), ""},
      {"root." + std::string(250, 'x'), "root." + std::string(250, 'x')},
      // 255 bytes pass the length limit, but "root." makes the path too long.
      {std::string(255, 'x'), ""}};
  for (const auto& [sent, expected] : cases) {
    Bytes bytes = {static_cast<unsigned char>(sent.size() & 0xFF),
                   static_cast<unsigned char>(sent.size() >> 8)};
    bytes.insert(bytes.end(), sent.begin(), sent.end());
    RequestReader reader = reader_of(bytes);
    std::string path;
    int result = getPath(&reader, &path);
    EXPECT_EQ(result == 0 ? path : "", expected) << sent.size();
  }
}

// Replies go to the daemon's end of a socket pair; the test reads them at the client's end.
class ReplyBuffer : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds_), 0); }
  void TearDown() override {
    for (int fd : fds_) close(fd);
  }
  Bytes receive(size_t count) {
    Bytes bytes(count);
    size_t done = 0;
    for (ssize_t got = 1; done < count && got > 0; done += got > 0 ? got : 0) {
      got = read(fds_[1], bytes.data() + done, count - done);
    }
    EXPECT_EQ(done, count);
    return bytes;
  }
  int fds_[2] = {-1, -1};
};

TEST_F(ReplyBuffer, TooLongReplyAnswersStatusTwoAndRecovers) {
  createMessage(fds_[0], 0x1000000);
  addMessageData("x", 1);
  sendMessage(fds_[0]);
  EXPECT_EQ(receive(4), (Bytes{0x04, 0x00, 0x00, 0x02}));
  createMessage(fds_[0], 7);
  addMessageData("z", 1);
  sendMessage(fds_[0]);
  EXPECT_EQ(receive(7), (Bytes{7, 0, 0, 0, 1, 0, 'z'}));
}

TEST_F(ReplyBuffer, WritingToAClosedPeerFailsWithoutSignal) {
  close(fds_[1]);
  fds_[1] = -1;
  signal(SIGPIPE, SIG_IGN);
  EXPECT_EQ(write_all(fds_[0], "abc", 3, 1), -1);
}

}  // namespace
