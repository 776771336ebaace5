// A small unified diff for the round-trip finding: backing files are short, so a plain longest
// common subsequence table is enough.
#include <algorithm>
#include <string>
#include <vector>

#include "tools/tessard_check.h"

namespace {

constexpr size_t kContext = 3;

std::vector<std::string> split_lines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) {
      lines.push_back(text.substr(start) + "\n\\ No newline at end of file");
      break;
    }
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

enum class Op { kSame, kRemove, kAdd };

struct Edit {
  Op op;
  size_t before;  // index in before (kSame, kRemove) or the position in before (kAdd)
  size_t after;
};

std::vector<Edit> edit_script(const std::vector<std::string>& a,
                              const std::vector<std::string>& b) {
  std::vector<std::vector<int>> common(a.size() + 1, std::vector<int>(b.size() + 1, 0));
  for (size_t i = a.size(); i-- > 0;) {
    for (size_t j = b.size(); j-- > 0;) {
      common[i][j] =
          a[i] == b[j] ? common[i + 1][j + 1] + 1 : std::max(common[i + 1][j], common[i][j + 1]);
    }
  }
  std::vector<Edit> edits;
  size_t i = 0, j = 0;
  while (i < a.size() || j < b.size()) {
    if (i < a.size() && j < b.size() && a[i] == b[j]) {
      edits.push_back({Op::kSame, i++, j++});
    } else if (i < a.size() && (j == b.size() || common[i + 1][j] >= common[i][j + 1])) {
      edits.push_back({Op::kRemove, i++, j});  // removals first, as diff -u shows them
    } else {
      edits.push_back({Op::kAdd, i, j++});
    }
  }
  return edits;
}

std::string range(size_t start, size_t count) {
  // An empty range names the line before it, as diff -u does.
  size_t first = count == 0 ? start : start + 1;
  return std::to_string(first) + (count == 1 ? "" : "," + std::to_string(count));
}

}  // namespace

std::string unified_diff(const std::string& before, const std::string& after,
                         const std::string& before_name, const std::string& after_name,
                         int* first_line) {
  std::vector<std::string> a = split_lines(before), b = split_lines(after);
  std::vector<Edit> edits = edit_script(a, b);
  std::string out;
  size_t k = 0;
  while (k < edits.size()) {
    if (edits[k].op == Op::kSame) {
      ++k;
      continue;
    }
    if (out.empty()) {
      out = "--- " + before_name + "\n+++ " + after_name + "\n";
      *first_line = static_cast<int>(edits[k].before) + 1;
    }
    // The hunk: from kContext lines before this change to kContext lines after the last change
    // that is no further than 2 * kContext unchanged lines away.
    size_t start = k >= kContext ? k - kContext : 0;
    while (start < k && edits[start].op != Op::kSame) ++start;
    size_t end = k;
    size_t same_run = 0;
    for (size_t m = k; m < edits.size() && same_run <= 2 * kContext; ++m) {
      same_run = edits[m].op == Op::kSame ? same_run + 1 : 0;
      if (edits[m].op != Op::kSame) end = m;
    }
    size_t stop = std::min(edits.size(), end + 1 + kContext);
    size_t a_count = 0, b_count = 0;
    std::string body;
    for (size_t m = start; m < stop; ++m) {
      const Edit& e = edits[m];
      if (e.op != Op::kAdd) ++a_count;
      if (e.op != Op::kRemove) ++b_count;
      char mark = e.op == Op::kSame ? ' ' : e.op == Op::kRemove ? '-' : '+';
      body += mark + (e.op == Op::kAdd ? b[e.after] : a[e.before]) + "\n";
    }
    out += "@@ -" + range(edits[start].before, a_count) + " +" +
           range(edits[start].after, b_count) + " @@\n" + body;
    k = stop;
  }
  return out;
}
