#include "base/log.h"

#include <syslog.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

LogSink sink = nullptr;

void log_at(int priority, const char* format, va_list args) {
  if (sink == nullptr) {
    vsyslog(priority, format, args);
    return;
  }
  char message[2048];
  vsnprintf(message, sizeof message, format, args);  // glibc expands %m as syslog does
  sink(priority, message);
}

void log_line(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  log_at(priority, format, args);
  va_end(args);
}

}  // namespace

void log_open() {
  openlog("tessard", LOG_PID, LOG_LOCAL6);
}

void log_setSink(LogSink new_sink) {
  sink = new_sink;
}

void log_info(const char* /*source*/, const char* format, ...) {
  va_list args;
  va_start(args, format);
  log_at(LOG_INFO, format, args);
  va_end(args);
}

void log_warning(const char* /*source*/, const char* format, ...) {
  va_list args;
  va_start(args, format);
  log_at(LOG_WARNING, format, args);
  va_end(args);
}

void log_error(const char* /*source*/, const char* format, ...) {
  va_list args;
  va_start(args, format);
  log_at(LOG_ERR, format, args);
  va_end(args);
}

void log_fatal(const char* /*source*/, const char* format, ...) {
  va_list args;
  va_start(args, format);
  log_at(LOG_ERR, format, args);
  va_end(args);
  log_line(LOG_ERR, "Last error fatal. Exit.");
  exit(1);
}

const char* errno_text(int err) {
  return strerror(err);
}
