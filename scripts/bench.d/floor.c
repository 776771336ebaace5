/* The floor of the serving benchmarks: an epoll server on a Unix stream socket that does nothing
 * but frame requests (2-byte little-endian total length) and answer each with the reply a GET of
 * VALUE gets from the daemon. Nothing is parsed, checked or stored, so the daemon's time above
 * this is what its own work costs.
 *
 *   bench-floor SOCKET VALUE
 */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#define BUFFER_SIZE 65536

struct client {
  int fd;
  size_t used;
  unsigned char in[BUFFER_SIZE];
};

static unsigned char reply[BUFFER_SIZE];
static size_t reply_length;

static void make_reply(const char* value) {
  size_t n = strlen(value);
  reply_length = 4 + 2 + n;
  reply[0] = reply_length & 0xFF;
  reply[1] = (reply_length >> 8) & 0xFF;
  reply[2] = 0;
  reply[3] = 0;
  reply[4] = n & 0xFF;
  reply[5] = (n >> 8) & 0xFF;
  memcpy(reply + 6, value, n);
}

static int listen_on(const char* path) {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  struct sockaddr_un address = {.sun_family = AF_UNIX};
  strncpy(address.sun_path, path, sizeof(address.sun_path) - 1);
  unlink(path);
  if (fd < 0 || bind(fd, (struct sockaddr*)&address, sizeof(address)) != 0 ||
      listen(fd, SOMAXCONN) != 0) {
    perror("floor: listen");
    exit(1);
  }
  return fd;
}

static void send_all(int fd, const unsigned char* bytes, size_t length) {
  while (length > 0) {
    ssize_t put = send(fd, bytes, length, MSG_NOSIGNAL);
    if (put < 0 && errno == EAGAIN) continue;
    if (put <= 0) return;
    bytes += put;
    length -= put;
  }
}

/* Answers every whole frame; 0 when the client is gone. */
static int serve(struct client* c) {
  ssize_t got = read(c->fd, c->in + c->used, BUFFER_SIZE - c->used);
  if (got < 0 && errno == EAGAIN) return 1;
  if (got <= 0) return 0;
  c->used += got;
  size_t pos = 0;
  while (c->used - pos >= 2) {
    size_t total = c->in[pos] | (c->in[pos + 1] << 8);
    if (total < 3) return 0;
    if (c->used - pos < total) break;
    send_all(c->fd, reply, reply_length);
    pos += total;
  }
  memmove(c->in, c->in + pos, c->used - pos);
  c->used -= pos;
  return 1;
}

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: bench-floor SOCKET VALUE\n");
    return 64;
  }
  struct rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  make_reply(argv[2]);
  int listener = listen_on(argv[1]);
  int ep = epoll_create1(EPOLL_CLOEXEC);
  struct epoll_event event = {.events = EPOLLIN, .data.ptr = NULL};
  epoll_ctl(ep, EPOLL_CTL_ADD, listener, &event);
  struct epoll_event events[256];
  for (;;) {
    int n = epoll_wait(ep, events, 256, -1);
    for (int i = 0; i < n; i++) {
      struct client* c = events[i].data.ptr;
      if (c == NULL) {
        int fd = accept4(listener, NULL, NULL, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) continue;
        c = malloc(sizeof(*c));
        c->fd = fd;
        c->used = 0;
        struct epoll_event add = {.events = EPOLLIN, .data.ptr = c};
        epoll_ctl(ep, EPOLL_CTL_ADD, fd, &add);
      } else if (!serve(c)) {
        close(c->fd);
        free(c);
      }
    }
  }
}
