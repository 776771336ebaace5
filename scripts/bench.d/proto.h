/* Raw protocol helpers shared by the benchmark clients: no library, so that the floor programs and
 * the measuring clients send exactly the bytes a client sends. */
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

/* Connects to the Unix socket at path; -1 on failure. */
static inline int proto_connect(const char* path) {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct sockaddr_un addr = {.sun_family = AF_UNIX};
  strncpy(addr.sun_path, path, sizeof addr.sun_path - 1);
  if (fd < 0 || connect(fd, (struct sockaddr*)&addr, sizeof addr) != 0) {
    if (fd >= 0) close(fd);
    return -1;
  }
  return fd;
}

static inline size_t put16(uint8_t* p, size_t at, unsigned v) {
  p[at] = v & 0xFF;
  p[at + 1] = (v >> 8) & 0xFF;
  return at + 2;
}

static inline size_t put_counted(uint8_t* p, size_t at, const char* text, size_t len) {
  at = put16(p, at, len);
  memcpy(p + at, text, len);
  return at + len;
}

/* A text GET of path for the caller's own uid and gid; returns the frame's length. */
static inline size_t proto_get(uint8_t* p, const char* path) {
  size_t at = 2;
  p[at++] = 0; /* GET */
  p[at++] = 0; /* text form */
  p[at++] = 2; /* text sub-form */
  p[at++] = 0; /* case-insensitive */
  at = put16(p, at, getuid());
  at = put16(p, at, getgid());
  p[at++] = 0; /* not quiet */
  at = put_counted(p, at, path, strlen(path));
  put16(p, 0, at);
  return at;
}

/* A text SET of path to value with the given sync mode; returns the frame's length. */
static inline size_t proto_set(uint8_t* p, const char* path, const char* value, size_t len,
                               int sync) {
  size_t at = 2;
  p[at++] = 1; /* SET */
  p[at++] = 0;
  p[at++] = 2;
  at = put16(p, at, getuid());
  at = put16(p, at, getgid());
  p[at++] = 0;
  p[at++] = 0;
  at = put_counted(p, at, path, strlen(path));
  at = put_counted(p, at, value, len);
  p[at++] = sync;
  put16(p, 0, at);
  return at;
}

static inline int write_all(int fd, const uint8_t* p, size_t n) {
  while (n > 0) {
    ssize_t w = write(fd, p, n);
    if (w <= 0) return -1;
    p += w;
    n -= w;
  }
  return 0;
}

static inline int read_all(int fd, uint8_t* p, size_t n) {
  while (n > 0) {
    ssize_t r = read(fd, p, n);
    if (r <= 0) return -1;
    p += r;
    n -= r;
  }
  return 0;
}

/* Sends a request and reads its reply into reply (at most cap bytes); the reply's status, or -1. */
static inline int proto_exchange(int fd, const uint8_t* req, size_t len, uint8_t* reply, size_t cap,
                                 size_t* reply_len) {
  if (write_all(fd, req, len) != 0 || read_all(fd, reply, 4) != 0) return -1;
  size_t total = reply[0] | (reply[1] << 8) | ((size_t)reply[2] << 16);
  if (total < 4 || total > cap || read_all(fd, reply + 4, total - 4) != 0) return -1;
  if (reply_len) *reply_len = total;
  return reply[3];
}
