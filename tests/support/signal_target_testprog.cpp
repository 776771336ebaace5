// Test program for the setter tests: a process that the daemon finds through /proc by its
// program name (argv[0]) and signals. Writes the number of every signal it receives, one per
// line, to the file named by argv[1]; writes "ready" to standard output once it listens.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>

namespace {

int g_out = -1;

void record(int signal) {
  char line[4] = {static_cast<char>('0' + signal / 10), static_cast<char>('0' + signal % 10), '\n'};
  [[maybe_unused]] ssize_t ignored =
      signal >= 10 ? write(g_out, line, 3) : write(g_out, line + 1, 2);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || (g_out = open(argv[1], O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644)) < 0)
    return 1;
  struct sigaction action = {};
  action.sa_handler = record;
  // Signals arriving while one is being written down wait for it, so the lines keep the order
  // of delivery (the tests' closing marker signal must come last).
  sigfillset(&action.sa_mask);
  for (int signal = 1; signal < 32; ++signal) {
    if (signal != SIGKILL && signal != SIGSTOP && signal != SIGCHLD)
      sigaction(signal, &action, nullptr);
  }
  std::puts("ready");
  std::fflush(stdout);
  for (;;) pause();
}
