// The whole text of a file, for tests that look at what was written: "" when it cannot be read.
#pragma once

#include <fstream>
#include <sstream>
#include <string>

namespace tessard::test {

inline std::string read_text(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

}  // namespace tessard::test
