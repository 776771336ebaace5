// The master configuration file: declares the groups and parameters of the parameter database
// with their options, in the syntax
//
//   group NAME { body }   param NAME { OPTION = VALUE ... }   paramfile { file = ... parser = ... }
//   include PATH          OPTION = VALUE (an option of the enclosing group)
//
// Names and values that do not begin with a letter must be quoted. A grammar error is logged and
// ends the reading of the file (result 1); what was declared before it stays in the database.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// A file mapped into memory (or a text), read from position onward.
struct InputSource {
  const char* data;
  uint64_t length;
  uint64_t position;
  bool mapped = false;    // data is a mapping of its own, made by mmap_fd
  uint64_t released = 0;  // mapped: the pages before this offset are handed back
};

// A place in a configuration file (or parameter list file), lines counted from 1.
struct ConfigDiagnostic {
  std::string file;
  int line = 0;
  std::string message;  // the text that the daemon logs
};

struct ConfigDeclaration {
  std::string path;  // of the parameter
  std::string file;
  int line = 0;
};

// What a reporting parse learns besides the tree.
struct ConfigReport {
  // The first error that failed the parse (a grammar error, an included file that cannot be
  // opened, a stray item at the top level), with the file and line of the offending token. Empty
  // message: none.
  ConfigDiagnostic error;
  // Where each parameter was declared, in the order met (a parameter declared again appears again).
  std::vector<ConfigDeclaration> params;
};

// Reads the configuration file at path into the database. With additive 0, groups declared again
// are read back from their backing files and lose parameters that the files no longer provide.
// 0 on success, for "/dev/null" and for a missing file; 1 when the file cannot be opened, locked
// or mapped (an empty file cannot be mapped), or it holds a grammar error.
int config_parseFile(const char* path, int additive);
// As config_parseFile, and with a report (may be null) a grammar error is also recorded in the
// report. Without a report it is config_parseFile.
int config_parseFileReporting(const char* path, int additive, ConfigReport* report);
// The same on text in memory; `name` stands for the file in messages and in the report.
int config_parseText(std::string_view text, const char* name, int additive, ConfigReport* report);

// Maps the whole file read-only; null when it cannot be examined or mapped. Release the result
// with config_unmapSource, which returns munmap's result.
InputSource* mmap_fd(int fd);
int config_unmapSource(InputSource* source);
