#include "tests/support/logcapture.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>

namespace tessard::test {

std::vector<CapturedLine>& captured_log() {
  static std::vector<CapturedLine> captured;
  return captured;
}

int count_logged(std::string_view needle) {
  int count = 0;
  for (const CapturedLine& line : captured_log())
    count += line.message.find(needle) != line.message.npos;
  return count;
}

}  // namespace tessard::test

extern "C" void vsyslog(int priority, const char* format, va_list args) {
  char text[4096];
  vsnprintf(text, sizeof text, format, args);  // the C library expands %m here as well
  tessard::test::captured_log().push_back({LOG_PRI(priority), text});
  fprintf(stderr, "log<%d>: %s\n", LOG_PRI(priority), text);
}

extern "C" void syslog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vsyslog(priority, format, args);
  va_end(args);
}
