#include "server/input_parameter_validation.h"

#include <string>

#include "base/log.h"

namespace {

constexpr size_t kMaxNameLength = 255;
constexpr size_t kMaxFilePathLength = 4095;
constexpr std::string_view kFileSuffix = ".conf";
constexpr std::string_view kReadableDirectories[] = {"/usr/etc/param/", "/etc/dynamic/param/",
                                                     "/etc/tessard/portmanager/"};

// The characters allowed in a name: ASCII letters and digits and those of `extra`, as a table,
// since every request's path is checked character by character.
struct NameChars {
  bool allowed[256] = {};
  constexpr explicit NameChars(std::string_view extra) {
    for (int c = 0; c < 256; ++c) {
      allowed[c] = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    }
    for (char c : extra) allowed[static_cast<unsigned char>(c)] = true;
  }
};

constexpr NameChars kPathChars("-._");
constexpr NameChars kTemplateChars("-_");

bool all_chars_in(std::string_view text, const NameChars& chars) {
  for (char c : text) {
    if (!chars.allowed[static_cast<unsigned char>(c)]) return false;
  }
  return true;
}

bool valid_name(std::string_view text, const NameChars& chars) {
  return !text.empty() && text.size() <= kMaxNameLength && all_chars_in(text, chars);
}

int refuse(const char* format, std::string_view text) {
  log_info("input_parameter_validation", format, std::string(text).c_str());
  return 0;
}

bool valid_file_name(std::string_view path) {
  if (path.size() > kMaxFilePathLength || !path.ends_with(kFileSuffix)) return false;
  for (std::string_view dir : kReadableDirectories) {
    if (!path.starts_with(dir)) continue;
    if (path.size() < dir.size() + kFileSuffix.size()) return false;
    std::string_view name = path.substr(dir.size(), path.size() - dir.size() - kFileSuffix.size());
    return !name.empty() && all_chars_in(name, kPathChars);
  }
  return false;
}

}  // namespace

int validateTemplateName(std::string_view name) {
  if (valid_name(name, kTemplateChars)) return 1;
  return refuse("Invalid template name: '%s'", name);
}

int validateGroupPath(std::string_view path) {
  if (valid_name(path, kPathChars)) return 1;
  return refuse("Invalid group path: '%s'", path);
}

int validateReadGroupFilePath(std::string_view path) {
  if (valid_file_name(path)) return 1;
  return refuse("Invalid read group file path: '%s'", path);
}
