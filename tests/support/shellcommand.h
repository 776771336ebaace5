// Shell commands run by tests that check programs from the outside (install, units, tessctl).
#pragma once

#include <sys/wait.h>

#include <cstdio>
#include <string>

namespace tessard::test {

// Runs `command` with /bin/sh, appending its standard output and error to `output`; its exit
// status, -1 when it did not exit normally.
inline int run_command(const std::string& command, std::string* output) {
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  char buffer[4096];
  for (size_t got; pipe != nullptr && (got = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
    output->append(buffer, got);
  int status = pipe != nullptr ? pclose(pipe) : -1;
  return status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace tessard::test
