/* Bench client: GET requests in text form, each sent when the reply to the one before has come.
 *
 *   bench-client get SOCKET PATH IDLE COUNT [UID GID]
 *       holds IDLE idle connections, then times COUNT GETs on one more; prints microseconds per
 *       GET. With UID and GID it runs as that user and claims that identity.
 *   bench-client busy SOCKET PATH CLIENTS SECONDS
 *       CLIENTS connections, one thread each, GET as fast as replies come for SECONDS; prints
 *       answers per second, and the answers of the slowest and the fastest client.
 *
 * Any reply other than success ends the program with status 1.
 */
#define _GNU_SOURCE
#include <grp.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

static const char* socket_path;
static unsigned char frame[512];
static size_t frame_length;
static atomic_int stop;

static void make_frame(const char* path, unsigned uid, unsigned gid) {
  size_t n = strlen(path);
  unsigned char* p = frame;
  frame_length = 2 + 1 + 8 + 2 + n;
  *p++ = frame_length & 0xFF;
  *p++ = frame_length >> 8;
  *p++ = 0; /* GET */
  *p++ = 0; /* form: text */
  *p++ = 2; /* sub-form */
  *p++ = 0; /* case */
  *p++ = uid & 0xFF;
  *p++ = (uid >> 8) & 0xFF;
  *p++ = gid & 0xFF;
  *p++ = (gid >> 8) & 0xFF;
  *p++ = 0; /* quiet */
  *p++ = n & 0xFF;
  *p++ = n >> 8;
  memcpy(p, path, n);
}

static int connect_daemon(void) {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct sockaddr_un address = {.sun_family = AF_UNIX};
  strncpy(address.sun_path, socket_path, sizeof(address.sun_path) - 1);
  if (fd < 0 || connect(fd, (struct sockaddr*)&address, sizeof(address)) != 0) {
    perror("bench-client: connect");
    exit(1);
  }
  return fd;
}

static void read_all(int fd, unsigned char* out, size_t length) {
  while (length > 0) {
    ssize_t got = read(fd, out, length);
    if (got <= 0) {
      fprintf(stderr, "bench-client: connection lost\n");
      exit(1);
    }
    out += got;
    length -= got;
  }
}

static void get(int fd) {
  unsigned char reply[65536];
  if (write(fd, frame, frame_length) != (ssize_t)frame_length) {
    perror("bench-client: write");
    exit(1);
  }
  read_all(fd, reply, 4);
  size_t total = reply[0] | (reply[1] << 8) | (reply[2] << 16);
  if (reply[3] != 0 || total < 4 || total > sizeof(reply)) {
    fprintf(stderr, "bench-client: reply status %d, length %zu\n", reply[3], total);
    exit(1);
  }
  read_all(fd, reply + 4, total - 4);
}

static double now(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return t.tv_sec + t.tv_nsec / 1e9;
}

static int latency(int idle, int count) {
  for (int i = 0; i < idle; i++) connect_daemon();
  int fd = connect_daemon();
  for (int i = 0; i < count / 10; i++) get(fd);
  double start = now();
  for (int i = 0; i < count; i++) get(fd);
  printf("%.2f\n", (now() - start) * 1e6 / count);
  return 0;
}

static void* busy_client(void* arg) {
  long* answers = arg;
  int fd = connect_daemon();
  while (!atomic_load(&stop)) {
    get(fd);
    ++*answers;
  }
  close(fd);
  return NULL;
}

static int busy(int clients, double seconds) {
  pthread_t threads[256];
  long answers[256] = {0};
  if (clients > 256) clients = 256;
  for (int i = 0; i < clients; i++) pthread_create(&threads[i], NULL, busy_client, &answers[i]);
  usleep(seconds * 1e6);
  atomic_store(&stop, 1);
  long total = 0, least = -1, most = 0;
  for (int i = 0; i < clients; i++) {
    pthread_join(threads[i], NULL);
    total += answers[i];
    if (least < 0 || answers[i] < least) least = answers[i];
    if (answers[i] > most) most = answers[i];
  }
  printf("%.0f %ld %ld\n", total / seconds, least, most);
  return 0;
}

int main(int argc, char** argv) {
  if (argc < 6 || (strcmp(argv[1], "get") != 0 && strcmp(argv[1], "busy") != 0)) {
    fprintf(stderr,
            "usage: bench-client get SOCKET PATH IDLE COUNT [UID GID]\n"
            "       bench-client busy SOCKET PATH CLIENTS SECONDS\n");
    return 64;
  }
  socket_path = argv[2];
  struct rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  unsigned uid = argc > 7 ? (unsigned)atoi(argv[6]) : 0;
  unsigned gid = argc > 7 ? (unsigned)atoi(argv[7]) : 0;
  if (argc > 7 && (setgroups(0, NULL) != 0 || setgid(gid) != 0 || setuid(uid) != 0)) {
    perror("bench-client: becoming the user");
    return 1;
  }
  make_frame(argv[3], uid, gid);
  if (strcmp(argv[1], "get") == 0) return latency(atoi(argv[4]), atoi(argv[5]));
  return busy(atoi(argv[4]), atof(argv[5]));
}
