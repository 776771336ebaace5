// Owning handles for C resources: malloc'd texts, stdio streams, directory streams and file
// descriptors. They let a function hand a resource out only on success
// (`*out = text.release();`) and release it on every other path.
#pragma once

#include <dirent.h>
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

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};
// A directory stream from opendir(), closed with closedir().
using UniqueDir = std::unique_ptr<DIR, DirCloser>;

class UniqueFd {
 public:
  explicit UniqueFd(int fd = -1) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  ~UniqueFd() { reset(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }

 private:
  int fd_;
};
