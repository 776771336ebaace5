// Logging to syslog (ident "tessard", LOG_PID, facility LOG_LOCAL6).
//
// Every function takes the caller's source file name first. It is accepted and ignored: call sites
// keep naming their file, messages never show it. Formats may use %m.
#pragma once

#include <cstdarg>

#define TESSARD_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))

void log_open();
// Where messages go instead of syslog, with their syslog priority (LOG_ERR, ...); null for syslog
// again. For programs that run the daemon's code outside the daemon and report what it says.
using LogSink = void (*)(int priority, const char* message);
void log_setSink(LogSink sink);
void log_info(const char* source, const char* format, ...) TESSARD_PRINTF(2, 3);
void log_warning(const char* source, const char* format, ...) TESSARD_PRINTF(2, 3);
void log_error(const char* source, const char* format, ...) TESSARD_PRINTF(2, 3);
// Logs the message and "Last error fatal. Exit.", both at LOG_ERR, then exit(1); the exit
// handler still runs.
[[noreturn]] void log_fatal(const char* source, const char* format, ...) TESSARD_PRINTF(2, 3);

// The text of an errno value, for messages that cannot use %m.
const char* errno_text(int err);
