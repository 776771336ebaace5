// Owning handles for C resources: malloc'd texts, stdio streams and file descriptors. They let a
// function hand a resource out only on success (`*out = text.release();`) and release it on
// every other path.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

struct FreeDeleter {
  void operator()(void* p) const { free(p); }
};
// A text from malloc/strdup, released with free().
using CString = std::unique_ptr<char, FreeDeleter>;

struct FileCloser {
  void operator()(FILE* f) const { fclose(f); }
};
// A stdio stream closed with fclose() (no flush check: use safe_close_file for files that matter).
using UniqueFile = std::unique_ptr<FILE, FileCloser>;

class UniqueFd {
 public:
  explicit UniqueFd(int fd = -1) : fd_(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }

 private:
  int fd_;
};
