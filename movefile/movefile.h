// Safe replacement of files: every rewritten file is written in full into TARGET.temp beside it,
// flushed and synced, then renamed over the target (or copied, where the rename would cross a
// file-system boundary), and the directory holding the result is synced.
//
// Results: 0 or a non-negative descriptor for success, -1 or null for failure. Every failure is
// logged. Paths handed out through out-arguments and by sreadlink are malloc'd; the caller releases
// them with free().
#pragma once

#include <cstdint>
#include <cstdio>

// Creates DIR/NAME.temp (trailing slashes of DIR dropped) with O_RDWR|O_CREAT|O_EXCL, mode 0600.
// A file left at that name by an earlier run is deleted first. On success *tmp_path receives the
// path and the descriptor is returned; on failure *tmp_path is untouched.
int create_tmp_file(const char* dir, const char* name, char** tmp_path);

// create_tmp_file in the target's own directory, for the target's base name.
int create_tmp_file_for(const char* target, char** tmp_path);

// Syncs the directory that contains PATH. Failures are logged only.
void sync_directory_of(const char* path);

// Read or write exactly COUNT bytes, retrying EAGAIN/EBUSY up to five times in a row.
// read_fully returns fewer bytes only at end of file. A count below 1 gives 0.
int read_fully(int fd, void* buf, int32_t count);
int write_fully(int fd, const void* buf, int32_t count);

// The target of the symbolic link PATH as a malloc'd text, or null (logged) if it cannot be read.
char* sreadlink(const char* path);

// Flushes, syncs and closes *stream. *stream is set to null once it is closed, even when the flush
// failed (the result is -1 then). A null pointer or null stream gives -1 without a message. NAME
// names the file in messages (null: "file").
int safe_close_file(FILE** stream, const char* name);

// Opens a fresh temporary file for TARGET as a "w+" stream: TARGET.temp beside it when use_tmp is
// 0, /tmp/BASENAME.temp otherwise. The temporary path goes to *tmp_path when tmp_path is given
// (the caller removes the file on failure and frees the path), else it is freed here.
FILE* open_param_temp_file(const char* target, char** tmp_path, int use_tmp);

// Moves SOURCE over DESTINATION by rename; across file systems by safe_move_file.
int move_file(const char* source, const char* destination);

// The copying half of move_file: copies SOURCE into DESTINATION.temp, keeping the owner, group and
// mode of an existing destination (of the source for a new name) and the source's times, renames
// it over DESTINATION and removes SOURCE. A symbolic link is recreated at a new name only, and the
// source link is left in place.
int safe_move_file(const char* source, const char* destination);
