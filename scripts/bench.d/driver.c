/* Measuring driver of the device benchmarks (times in microseconds):
 *   driver SOCKET set PATH COUNT VALUE_BYTES   COUNT SETs on one connection, alternating two values
 *                                              of that size, each written to its file at once;
 *                                              prints the mean time per SET
 *   driver SOCKET launch PATH PROGRAM ARGS...  starts PROGRAM (the daemon) and asks for PATH until
 *                                              it answers; prints the time from the start, the
 *                                              peak resident bytes at that moment and the pid
 *   driver - spawn COUNT PROGRAM ARGS...       runs PROGRAM COUNT times (output to /dev/null);
 *                                              prints the mean time per run */
#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>

#include "proto.h"

static double now_us(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1e6 + ts.tv_nsec / 1e3;
}

static long peak_rss(pid_t pid) {
  char name[64], line[256];
  long kb = 0;
  snprintf(name, sizeof name, "/proc/%d/status", (int)pid);
  FILE* status = fopen(name, "r");
  while (status && fgets(line, sizeof line, status))
    if (sscanf(line, "VmHWM: %ld", &kb) == 1) break;
  if (status) fclose(status);
  return kb * 1024;
}

static int launch(const char* sock, const char* path, char** argv) {
  static uint8_t req[512], reply[65536];
  size_t len = proto_get(req, path);
  extern char** environ;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  double start = now_us();
  pid_t pid;
  if (posix_spawn(&pid, argv[0], &actions, NULL, argv, environ) != 0) return 1;
  while (now_us() - start < 60e6) {
    int fd = proto_connect(sock);
    if (fd >= 0) {
      int status = proto_exchange(fd, req, len, reply, sizeof reply, NULL);
      close(fd);
      if (status >= 0) {
        printf("%.1f %ld %d\n", now_us() - start, peak_rss(pid), (int)pid);
        return 0;
      }
    }
    if (waitpid(pid, NULL, WNOHANG) == pid) break;
    usleep(200);
  }
  fprintf(stderr, "driver: %s never answered\n", argv[0]);
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
      fprintf(stderr, "driver: %s failed\n", argv[0]);
      return 1;
    }
  }
  printf("%.2f\n", (now_us() - start) / count);
  return 0;
}

int main(int argc, char** argv) {
  if (argc < 5) return 64;
  if (strcmp(argv[2], "spawn") == 0) return spawn_runs(atol(argv[3]), argv + 4);
  if (strcmp(argv[2], "launch") == 0) return launch(argv[1], argv[3], argv + 4);
  if (strcmp(argv[2], "set") != 0 || argc != 6) return 64;
  int fd = proto_connect(argv[1]);
  if (fd < 0) return 69;
  long count = atol(argv[4]);
  size_t bytes = (size_t)atol(argv[5]);
  static uint8_t req[2][70000], reply[256];
  size_t len[2];
  char* value = malloc(bytes + 1);
  if (value == NULL || bytes > 60000) return 64;
  for (int i = 0; i < 2; i++) {
    memset(value, i ? 'b' : 'a', bytes);
    len[i] = proto_set(req[i], argv[3], value, bytes, 10);
  }
  free(value);
  double start = now_us();
  for (long i = 0; i < count; i++) {
    int status = proto_exchange(fd, req[i & 1], len[i & 1], reply, sizeof reply, NULL);
    if (status != 0) {
      fprintf(stderr, "driver: status %d at request %ld\n", status, i);
      return 1;
    }
  }
  printf("%.2f\n", (now_us() - start) / count);
  return 0;
}
