#include "tests/support/logcapture.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>

namespace tessard::test {
namespace {

std::vector<CapturedLine>& lines() {
  static std::vector<CapturedLine> captured;
  return captured;
}

void record(int priority, const char* format, va_list args) {
  char text[4096];
  va_list copy;
  va_copy(copy, args);
  vsnprintf(text, sizeof text, format, copy);  // the C library expands %m here as well
  va_end(copy);
  lines().push_back(CapturedLine{LOG_PRI(priority), text});
  fprintf(stderr, "log<%d>: %s\n", LOG_PRI(priority), text);
}

}  // namespace

std::vector<CapturedLine> captured_log() {
  return lines();
}

void clear_captured_log() {
  lines().clear();
}

int count_logged(std::string_view needle) {
  int count = 0;
  for (const CapturedLine& line : lines()) {
    if (line.message.find(needle) != std::string::npos) ++count;
  }
  return count;
}

}  // namespace tessard::test

extern "C" void vsyslog(int priority, const char* format, va_list args) {
  tessard::test::record(priority, format, args);
}

extern "C" void syslog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  tessard::test::record(priority, format, args);
  va_end(args);
}
