// The daemon's entry point and lifecycle.
#pragma once

inline constexpr const char* kPidFilePath = "/run/tessard/tessard.pid";

// Runs start-up in its fixed order and then serves clients; returns only when start-up fails
// (-1, which the process reports as exit status 255).
int tessard_main(int argc, char** argv);

// Hands the parameter database the work on files it asks of the layers above it: the
// configuration reader, the backing-file parsers and the dynamic groups.
void init_installMapHooks();
