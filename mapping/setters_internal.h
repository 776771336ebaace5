// Shared by the setter and getter sources of the parameter database (not a public interface).
#pragma once

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "base/handles.h"

inline bool starts_with(const char* text, std::string_view prefix) {
  return strncmp(text, prefix.data(), prefix.size()) == 0;
}
