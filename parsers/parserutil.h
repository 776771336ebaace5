// Pieces that the backing-file parsers share on top of the parser framework and the mapping
// interface.
#pragma once

#include <cstddef>
#include <cstring>

#include "parsers/token.h"

// Copies `text` into the buffer `out` of `size` bytes, cut to fit, always NUL-terminated.
inline void copy_cut(char* out, size_t size, const char* text) {
  size_t length = strnlen(text, size - 1);
  memcpy(out, text, length);
  out[length] = 0;
}

// The body of a write-value callback: enters `section` (which maps the parameter changed by a
// client) and a scalar of `type`, writes `prefix` and then the value as a token of `token_type`
// (bare, quoted or single-quoted as that type writes text), and reports the value as stored.
void write_section_value(const char* section, const char* type, int token_type,
                         const char* prefix = "");

// The value of the entry `section`, a "string" scalar, from the cursor to the end of its line: a
// token of `value_type`, or the empty value when the line holds nothing more. Blanks before it
// are passed inside the section, so a replaced value takes them along. False after a logged
// failure; the rest of the file is then kept as it is.
bool parse_string_value(Token* token, const char* section, int value_type);

// The parse of a file of lines: skips white space and comment lines, then calls `parse_line`
// at the start of each line inside the root section `root` (bound below `group_path`) until the
// end of the file. `parse_line` returns false on a failure it has logged; the parse then stops
// with -1. 0 otherwise.
int parse_lines(Token* token, const char* root, const char* group_path,
                bool (*parse_line)(Token* token));
