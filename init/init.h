// The daemon's entry point and lifecycle.
#pragma once

inline constexpr const char* kPidFilePath = "/run/tessard/tessard.pid";

// Runs start-up in its fixed order and then serves clients; returns only when start-up fails
// (-1, which the process reports as exit status 255).
int tessard_main(int argc, char** argv);
