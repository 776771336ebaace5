// Takes the place of the system log in every test program (tessard_testsupport replaces syslog()
// and vsyslog() of the C library), so that unit tests see what the code under test logged. Every
// line also goes to standard error, where a death test can match it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tessard::test {

struct CapturedLine {
  int priority;  // LOG_ERR, LOG_INFO, ... (facility removed)
  std::string message;
};

std::vector<CapturedLine>& captured_log();
inline void clear_captured_log() {
  captured_log().clear();
}
// How many captured lines contain `needle`.
int count_logged(std::string_view needle);

}  // namespace tessard::test
