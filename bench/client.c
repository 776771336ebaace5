/* Measuring client: COUNT requests on one connection, prints the mean microseconds per request.
 *   client SOCKET get PATH COUNT
 *   client SOCKET set PATH COUNT VALUE_BYTES    (alternates two values, synchronised at once)
 *   client SOCKET wait PATH TIMEOUT_MS          (retries a GET until it is answered; prints the
 *                                                 time it took)
 *   client - spawn COUNT PROGRAM ARGS...         (runs a program COUNT times, output to
 *                                                 /dev/null; prints the mean time per run) */
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include "proto.h"

static double now_us(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1e6 + ts.tv_nsec / 1e3;
}

static int wait_answer(const char* sock, const char* path, double timeout_ms) {
  static uint8_t req[512], reply[65536];
  size_t len = proto_get(req, path);
  double start = now_us();
  while (now_us() - start < timeout_ms * 1000) {
    int fd = proto_connect(sock);
    if (fd >= 0) {
      int status = proto_exchange(fd, req, len, reply, sizeof reply, NULL);
      close(fd);
      if (status >= 0) {
        printf("%.1f\n", now_us() - start);
        return 0;
      }
    }
    usleep(500);
  }
  return 1;
}

static int spawn_runs(long count, char** argv) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  extern char** environ;
  double start = now_us();
  for (long i = 0; i < count; i++) {
    pid_t pid;
    int status;
    if (posix_spawn(&pid, argv[0], &actions, NULL, argv, environ) != 0 ||
        waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      fprintf(stderr, "client: %s failed\n", argv[0]);
      return 1;
    }
  }
  printf("%.2f\n", (now_us() - start) / count);
  return 0;
}

int main(int argc, char** argv) {
  if (argc < 5) return 64;
  if (strcmp(argv[2], "spawn") == 0) return spawn_runs(atol(argv[3]), argv + 4);
  if (strcmp(argv[2], "wait") == 0) return wait_answer(argv[1], argv[3], atof(argv[4]));
  int fd = proto_connect(argv[1]);
  if (fd < 0) return 69;
  long count = atol(argv[4]);
  static uint8_t req[2][70000], reply[1 << 20];
  size_t len[2];
  if (strcmp(argv[2], "get") == 0) {
    len[0] = len[1] = proto_get(req[0], argv[3]);
    memcpy(req[1], req[0], len[0]);
  } else {
    size_t bytes = argc > 5 ? (size_t)atol(argv[5]) : 8;
    char* value = malloc(bytes + 1);
    for (int i = 0; i < 2; i++) {
      memset(value, i ? 'b' : 'a', bytes);
      len[i] = proto_set(req[i], argv[3], value, bytes, 10);
    }
    free(value);
  }
  double start = now_us();
  for (long i = 0; i < count; i++) {
    int status = proto_exchange(fd, req[i & 1], len[i & 1], reply, sizeof reply, NULL);
    if (status != 0) {
      fprintf(stderr, "client: status %d at request %ld\n", status, i);
      return 1;
    }
  }
  printf("%.2f\n", (now_us() - start) / count);
  return 0;
}
