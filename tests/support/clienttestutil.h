// Test helpers shared by the client library and tessctl tests: reply frames and a scripted fake
// daemon on a Unix socket.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace tessard::test {

// A reply frame: 24-bit total length, status byte, data.
inline std::string reply(int status, const std::string& data = "") {
  size_t total = data.size() + 4;
  return std::string{static_cast<char>(total & 0xFF), static_cast<char>(total >> 8 & 0xFF),
                     static_cast<char>(total >> 16), static_cast<char>(status)} +
         data;
}

// A counted item: 16-bit length, bytes.
inline std::string item(const std::string& text) {
  return std::string{static_cast<char>(text.size() & 0xFF), static_cast<char>(text.size() >> 8)} +
         text;
}

// Answers each request on one connection with the next scripted reply; after the last reply it
// closes the connection.
class FakeDaemon {
 public:
  FakeDaemon(const std::string& path, std::vector<std::string> replies)
      : path_(path), replies_(std::move(replies)) {
    listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(listen_fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(listen_fd_, 1), 0);
    thread_ = std::thread([this] { serve(); });
  }
  // Stops waiting for a connection and returns the requests received, whole frames included.
  std::vector<std::string> finish() {
    shutdown(listen_fd_, SHUT_RDWR);
    thread_.join();
    close(listen_fd_);
    unlink(path_.c_str());
    return requests_;
  }

 private:
  // Appends n bytes read from fd to *out; false when the peer closed first.
  static bool read_exact(int fd, std::string* out, size_t n) {
    char byte;
    for (; n > 0 && read(fd, &byte, 1) == 1; n--) *out += byte;
    return n == 0;
  }
  void serve() {
    int fd = accept(listen_fd_, nullptr, nullptr);
    if (fd < 0) return;
    for (const std::string& answer : replies_) {
      std::string request;
      if (!read_exact(fd, &request, 2)) break;
      size_t length = static_cast<uint8_t>(request[0]) | static_cast<uint8_t>(request[1]) << 8;
      if (length < 2 || !read_exact(fd, &request, length - 2)) break;
      requests_.push_back(request);
      if (write(fd, answer.data(), answer.size()) != static_cast<ssize_t>(answer.size())) break;
    }
    close(fd);
  }

  std::string path_;
  int listen_fd_;
  std::vector<std::string> replies_;
  std::vector<std::string> requests_;
  std::thread thread_;
};

}  // namespace tessard::test
