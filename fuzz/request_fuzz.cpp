// Requests as clients send them, through the daemon's own dispatch, on the example device's tree
// (its files in a scratch directory, built anew for every input). An input is what a client writes
// on its connection: frames of a 16-bit little-endian total length (these two bytes included), the
// type byte and the payload; a short or cut frame ends the input, as it ends a connection.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "mapping/quibmapping.h"
#include "server/server.h"

namespace {

// The daemon's end [0] and the client's end [1]; the client's end never blocks.
const int* connection() {
  static int ends[2] = {-1, -1};
  if (ends[0] < 0 && socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) != 0) {
    perror("socketpair");
    abort();
  }
  return ends;
}

void drain(int fd) {
  char buffer[65536];
  while (read(fd, buffer, sizeof buffer) > 0) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string dir = tessard::fuzz::scratch_dir();
  const int* ends = connection();
  tessard::fuzz::start_example_device(dir);
  for (size_t at = 0; at + 3 <= size;) {
    size_t total = data[at] | (data[at + 1] << 8);
    if (total < 3 || total > size - at) break;
    // The frame's body in a block of its own size, as the server loop holds it.
    std::vector<unsigned char> body(data + at + 2, data + at + total);
    dispatchRequest(ends[0], body[0], body.data() + 1, static_cast<int>(total - 3));
    drain(ends[1]);
    at += total;
  }
  // What any later client's synchronisation would do with what the input left pending.
  map_sync(0, 1);
  return 0;
}
