// The master configuration file: declares the groups and parameters of the parameter database
// with their options, in the syntax
//
//   group NAME { body }   param NAME { OPTION = VALUE ... }   paramfile { file = ... parser = ... }
//   include PATH          OPTION = VALUE (an option of the enclosing group)
//
// Names and values that do not begin with a letter must be quoted. Grammar errors end the process
// (log_fatal); only the top-level problems listed at config_parseFile are returned.
#pragma once

#include <cstdint>

// A file mapped into memory, read from position onward.
struct InputSource {
  const char* data;
  uint64_t length;
  uint64_t position;
};

// Reads the configuration file at path into the database. With additive 0, groups declared again
// are read back from their backing files and lose parameters that the files no longer provide.
// 0 on success, for "/dev/null" and for a missing file; 1 when the file cannot be opened, locked
// or mapped (an empty file cannot be mapped), or its top level is malformed.
int config_parseFile(const char* path, int additive);

// Maps the whole file read-only; null when it cannot be examined or mapped. Release the result
// with config_unmapSource, which returns munmap's result.
InputSource* mmap_fd(int fd);
int config_unmapSource(InputSource* source);
