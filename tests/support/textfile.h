// Whole files as text, for tests that prepare inputs and look at what was written.
#pragma once

#include <fstream>
#include <sstream>
#include <string>

namespace tessard::test {

// The whole text of the file: "" when it cannot be read.
inline std::string read_text(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

inline void write_file(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

}  // namespace tessard::test
