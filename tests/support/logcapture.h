// Test support: takes the place of the system log in a test program, so that unit tests can see
// what the code under test logged. Every line is also written to standard error, where a death
// test (a fatal error ends the process) can match it.
//
// Every test links it (tessard_testsupport); it replaces syslog() and vsyslog() of the C
// library for the whole program.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tessard::test {

struct CapturedLine {
  int priority;  // LOG_ERR, LOG_INFO, ... (facility removed)
  std::string message;
};

std::vector<CapturedLine> captured_log();
void clear_captured_log();
// How many captured lines contain `needle`.
int count_logged(std::string_view needle);

}  // namespace tessard::test
