// Shared set-up of the fuzz targets.
#pragma once

#include <string>

namespace tessard::fuzz {

// Drops what the code under test logs (prints it to standard error when TESSARD_FUZZ_LOG is set),
// so that millions of inputs do not flood the host's log.
void silence_log();

// The process's scratch directory below $TMPDIR (or /tmp), made once and removed when the process
// exits normally. Also points the D-Bus addresses into it, so that no message of a fuzzed input
// reaches a real bus, and silences the log.
std::string scratch_dir();

// The token types and the six registered parsers, once per process.
void start_parsers();

// The example device below `dir` (its master configuration with the paths moved into `dir`,
// without setters, getters and D-Bus messages), started as the daemon starts it up to the server
// loop: dynamic directories, parsers, mapping interface, the tree read and synchronised, the user
// cache. Calling it again puts every file back and rebuilds the tree.
void start_example_device(const std::string& dir);

}  // namespace tessard::fuzz
