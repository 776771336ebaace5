#include "server/clientserver.h"

#include <unistd.h>

#include <cerrno>

#include "init/log.h"

namespace {

constexpr int kReadRetries = 20;
constexpr useconds_t kRetryPause = 500 * 1000;

}  // namespace

int read_exact(int fd, void* buffer, int length) {
  if (length < 1) return 0;
  auto* bytes = static_cast<unsigned char*>(buffer);
  int retries = kReadRetries;
  int done = 0;
  while (done < length) {
    ssize_t got = read(fd, bytes + done, length - done);
    // The pause follows every retried read, also the one that succeeds; a client that interrupts
    // a read costs at least half a second, as before.
    while (got == -1 && retries > 0) {
      got = read(fd, bytes + done, length - done);
      int saved = errno;
      retries--;
      usleep(kRetryPause);
      errno = saved;
    }
    if (got == -1) {
      log_error("clientserver", "Failed to read from file. %m");
      return -1;
    }
    if (got == 0) return -1;
    done += static_cast<int>(got);
  }
  return 0;
}

int write_all(int fd, const void* buffer, int length, int loud) {
  if (length < 1) return 0;
  const auto* bytes = static_cast<const unsigned char*>(buffer);
  int done = 0;
  while (done < length) {
    ssize_t put = write(fd, bytes + done, length - done);
    if (put == 0) return -1;
    if (put < 0) {
      if (loud) {
        log_warning("clientserver", "Failed to write to file. %m");
      } else {
        log_info("clientserver", "Failed to write to file. %m");
      }
      return -1;
    }
    done += static_cast<int>(put);
  }
  return 0;
}
