// Shell commands run by tests that check programs from the outside (install, units, tessctl).
#pragma once

#include <sys/wait.h>

#include <cstdio>
#include <string>

namespace tessard::test {

// Runs `command` with /bin/sh; returns its exit status (-1 when it did not exit normally) and
// appends what it wrote to standard output and standard error to `output`.
inline int run_command(const std::string& command, std::string* output) {
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return -1;
  char buffer[4096];
  size_t got = 0;
  while ((got = fread(buffer, 1, sizeof buffer, pipe)) > 0) output->append(buffer, got);
  int status = pclose(pipe);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace tessard::test
