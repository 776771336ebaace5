// tessard-check: an offline check of a device's configuration with the daemon's own
// configuration parser, backing-file parsers and mapping code. It reads files only.
#pragma once

#include <string>
#include <vector>

// One thing that would go wrong on the device.
struct Finding {
  std::string kind;  // grammar, file, parser, mount, binding, constraint, template, roundtrip
  std::string file;  // empty when there is none
  int line = 0;      // 0 when there is none
  std::string message;
  std::string diff;  // roundtrip only: what the daemon's first write would change
};

struct CheckRequest {
  std::string config;             // the master configuration file
  std::vector<std::string> dirs;  // as the daemon's -d
  // Called with the findings so far (the last one of kind "fatal") when the daemon's code meets
  // a state that it takes as fatal; the process exits with status 1 right after.
  void (*on_fatal)(const std::vector<Finding>& findings) = nullptr;
};

// Loads the configuration into this process's parameter database (once per process) and
// appends what it finds, in the order found. The daemon code's log lines go through a sink of
// the checker while it runs.
void check_configuration(const CheckRequest& request, std::vector<Finding>* findings);

// A unified diff of two texts (one hunk per run of changes, three lines of context), headed by
// the two names; empty when the texts are equal. *first_line is the first changed line of
// `before` (counted from 1).
std::string unified_diff(const std::string& before, const std::string& after,
                         const std::string& before_name, const std::string& after_name,
                         int* first_line);
