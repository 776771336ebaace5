// Moving whole buffers in and out of client descriptors.
#pragma once

// Reads exactly `length` bytes. Returns 0 when all arrived (at once for a length below 1), -1 when
// the peer closed or reads kept failing; a failing read is retried up to 20 times per call, each
// retry followed by a 500 ms pause.
int read_exact(int fd, void* buffer, int length);

// Writes all `length` bytes. Returns 0 when all were written (at once for a length below 1), -1
// otherwise; `loud` logs the failure at warning level instead of info.
int write_all(int fd, const void* buffer, int length, int loud);
