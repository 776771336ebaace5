// Shared by the setter and getter sources of the parameter database (not a public interface).
#pragma once

#include <cstdlib>
#include <memory>

struct FreeDeleter {
  void operator()(void* p) const { free(p); }
};
// A text from malloc/strdup, released with free().
using CString = std::unique_ptr<char, FreeDeleter>;
