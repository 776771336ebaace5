// Dynamic groups: rewriting a parent's group file (a new group's block at its sorted place, or a
// deleted group's block left out) and its parameter file (a deleted group's sections left out).
#include <cstring>

#include "base/log.h"
#include "dynamic/dynamic_internal.h"

namespace {

constexpr const char* kFind = "find_sorted_place_in_file";
constexpr const char* kAddGroup = "add_group";

// Copies a line of the group file. The text of this message is kept exactly as it always was,
// the unfilled "#s" included.
bool copy_line(const char* text, FILE* out) {
  if (fputs(text, out) != EOF) return true;
  log_error(kDynSource, "#s, putting line to file failed!");
  return false;
}

bool put_text(const char* text, FILE* out, const char* function) {
  if (fputs(text, out) != EOF) return true;
  log_error(kDynSource, "%s, putting line to file failed!", function);
  return false;
}

// The brace counts of the group file read so far, and how many components of the parent path
// have been matched by group headers.
struct Scan {
  int opens = 0;
  int closes = 0;
  size_t matched = 0;
  int depth() const { return opens - closes; }
};

// Writes a "group NAME {" line for each of the components from FROM on, the merged template and
// one closing line per added level.
int write_nesting(FILE* out, const std::vector<char*>& parent, size_t from,
                  const TemplateMerge& merge) {
  for (size_t i = from; i < parent.size(); ++i) {
    std::string header = "group " + std::string(parent[i]) + " {\n";
    if (!put_text(header.c_str(), out, kAddGroup)) return -1;
  }
  if (merge.write(out) != 0) return -1;
  for (size_t i = from; i < parent.size(); ++i) {
    if (!put_text("}\n", out, kAddGroup)) return -1;
  }
  return 0;
}

// Copies the block of a group that is not on the parent path, from its header line (in LINE) to
// the line where its braces balance.
int copy_other_block(FILE* in, FILE* out, LineBuffer* line, Scan* scan) {
  int opens = 0;
  int closes = 0;
  for (;;) {
    count_braces(line->text, &opens, &closes);
    if (!put_text(line->text, out, kAddGroup)) return -1;
    if (opens == closes || !line->read(in)) break;
  }
  scan->opens += opens;
  scan->closes += closes;
  return 0;
}

bool copy_block_line(const char* text, FILE* out) {
  if (fputs(text, out) != EOF) return true;
  log_error(kDynSource, "%s, fputs() failed! %m", kFind);
  return false;
}

// Inside the parent's block (its header is in LINE and already copied): copies lines until the
// first sibling header of the same letter with a greater number, or the line that closes the
// block, and writes the new group's block before that line.
int insert_in_parent_block(FILE* in, FILE* out, LineBuffer* line, char letter, int number,
                           const TemplateMerge& merge) {
  int opens = 0;
  int closes = 0;
  count_braces(line->text, &opens, &closes);
  while (opens == 0) {
    if (!line->read(in)) return merge.write(out);
    count_braces(line->text, &opens, &closes);
    if (!copy_block_line(line->text, out)) return -1;
  }
  int depth = opens - closes - 1;  // inside the block, relative to its top level
  bool stopped = false;
  while (!stopped && line->read(in)) {
    char found = 0;
    unsigned sibling = 0;
    if (depth == 0 && sscanf(line->text, " group %c%u ", &found, &sibling) == 2 &&
        found == letter && sibling > static_cast<unsigned>(number)) {
      stopped = true;
      continue;
    }
    int lineOpens = 0;
    int lineCloses = 0;
    count_braces(line->text, &lineOpens, &lineCloses);
    depth += lineOpens - lineCloses;
    stopped = depth < 0;
    if (!stopped && !copy_block_line(line->text, out)) return -1;
  }
  if (merge.write(out) != 0) return -1;
  // The line that stopped the scan follows the new block; at the end of the file there is none.
  return !stopped || copy_block_line(line->text, out) ? 0 : -1;
}

}  // namespace

int find_sorted_place_in_file(FILE* in, FILE* out, const std::vector<char*>& parent, char letter,
                              int number, const TemplateMerge& merge) {
  LineBuffer line(kFind);
  Scan scan;
  bool inserted = false;
  while (!inserted && line.read(in)) {
    char name[64];
    bool header = read_group_header(line.text, name);
    if (header && scan.matched < parent.size() && dyn_namesEqual(name, parent[scan.matched])) {
      ++scan.matched;
      if (!copy_line(line.text, out)) return -1;
      if (scan.matched < parent.size()) {
        count_braces(line.text, &scan.opens, &scan.closes);
        continue;
      }
      if (insert_in_parent_block(in, out, &line, letter, number, merge) != 0) return -1;
      inserted = true;
    } else if (header) {
      if (copy_other_block(in, out, &line, &scan) != 0) return -1;
    } else {
      count_braces(line.text, &scan.opens, &scan.closes);
      // The innermost matched block closes here without the remaining components.
      if (scan.opens != 0 && scan.matched == static_cast<size_t>(scan.depth()) + 1) {
        if (write_nesting(out, parent, scan.matched, merge) != 0) return -1;
        inserted = true;
      }
      if (!copy_line(line.text, out)) return -1;
    }
  }
  // A file without the parent's blocks (a new file holds only its header line) gets them at its
  // end, so that the group is never left out of the file.
  if (!inserted) return write_nesting(out, parent, scan.matched, merge);
  while (line.read(in)) {
    if (!copy_line(line.text, out)) return -1;
  }
  return 0;
}

int copy_without_group(FILE* in, FILE* out, const std::vector<char*>& group,
                       const char* scratchPath) {
  LineBuffer line("remove_group_file");
  size_t matched = 0;
  int depth = 0;          // relative to the top level of the innermost matched block
  bool searching = true;  // until the block is dropped or the matched block has closed
  bool dropping = false;
  int dropOpens = 0;
  int dropCloses = 0;
  while (line.read(in)) {
    int opens = 0;
    int closes = 0;
    count_braces(line.text, &opens, &closes);
    char name[64];
    if (dropping) {
      dropOpens += opens;
      dropCloses += closes;
      dropping = dropOpens == 0 || dropOpens > dropCloses;
      continue;
    }
    if (searching && depth == 0 && read_group_header(line.text, name) &&
        dyn_namesEqual(name, group[matched])) {
      if (++matched == group.size()) {
        searching = false;
        dropOpens = opens;
        dropCloses = closes;
        dropping = opens == 0 || opens > closes;
        continue;
      }
      depth = opens - closes - 1;  // descends into the block of the matched header
    } else {
      depth += opens - closes;
      if (closes > 0 && depth < 0) searching = false;
    }
    if (fputs(line.text, out) == EOF) {
      log_error(kDynSource, "%s, fputs() failed to put line in file '%s'.", "remove_group_file",
                scratchPath);
      return -1;
    }
  }
  return 0;
}

int copy_without_sections(FILE* in, FILE* out, std::string_view key) {
  std::string text(key);
  LineBuffer line("remove_param_file");
  bool dropping = false;
  while (line.read(in)) {
    bool keyed = false;
    for (const char* at = strstr(line.text, text.c_str()); at != nullptr && !keyed;
         at = strstr(at + 1, text.c_str())) {
      char behind = at[text.size()];
      keyed = behind == ']' || behind == '.';
    }
    if (keyed) {
      dropping = true;
      continue;
    }
    if (line.text[0] == '[') dropping = false;
    if (dropping) continue;
    if (fputs(line.text, out) == EOF) return -1;
  }
  return 0;
}
