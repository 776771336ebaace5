/* The floor of a one-shot command-line GET: a minimal C client that connects, asks for one value,
 * prints it and exits.   oneshot SOCKET PATH */
#include <stdio.h>

#include "proto.h"

int main(int argc, char** argv) {
  if (argc != 3) return 64;
  int fd = proto_connect(argv[1]);
  if (fd < 0) return 69;
  uint8_t req[512], reply[65536];
  size_t len = 0;
  if (strlen(argv[2]) > 255) return 64;
  int status = proto_exchange(fd, req, proto_get(req, argv[2]), reply, sizeof reply, &len);
  if (status != 0) return status < 0 ? 69 : status;
  size_t item = reply[4] | (reply[5] << 8);
  if (6 + item > len) return 76;
  fwrite(reply + 6, 1, item, stdout);
  fputc('\n', stdout);
  return 0;
}
