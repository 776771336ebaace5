/* The floor of a SET with immediate durable write: COUNT times, write a file of the same size as
 * FILE to a temporary file beside it, fsync, rename over FILE, fsync the directory. Prints the mean
 * microseconds per replacement.   replace FILE COUNT */
#include <fcntl.h>
#include <libgen.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

int main(int argc, char** argv) {
  if (argc != 3) return 64;
  struct stat st;
  if (stat(argv[1], &st) != 0) return 1;
  size_t size = st.st_size;
  char* bytes = malloc(size);
  int in = open(argv[1], O_RDONLY);
  if (in < 0 || read(in, bytes, size) != (ssize_t)size) return 1;
  close(in);
  char tmp[4096], dir_path[4096];
  snprintf(tmp, sizeof tmp, "%s.XXXXXX", argv[1]);
  snprintf(dir_path, sizeof dir_path, "%s", argv[1]);
  int dir = open(dirname(dir_path), O_RDONLY | O_DIRECTORY);
  long count = atol(argv[2]);
  struct timespec a, b;
  clock_gettime(CLOCK_MONOTONIC, &a);
  for (long i = 0; i < count; i++) {
    char name[4096];
    strcpy(name, tmp);
    int fd = mkstemp(name);
    bytes[size / 2] ^= 1; /* a changed value, as a SET writes */
    if (fd < 0 || write(fd, bytes, size) != (ssize_t)size || fsync(fd) != 0 || close(fd) != 0 ||
        rename(name, argv[1]) != 0 || fsync(dir) != 0)
      return 1;
  }
  clock_gettime(CLOCK_MONOTONIC, &b);
  printf("%.2f\n", ((b.tv_sec - a.tv_sec) * 1e6 + (b.tv_nsec - a.tv_nsec) / 1e3) / count);
  return 0;
}
