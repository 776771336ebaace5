// Helpers shared by the parts of the data representation (legacydatarep*.cpp); not a public API.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>

#include "base/handles.h"
#include "values/legacydatarep.h"

namespace drep_internal {

inline constexpr const char* kSource = "legacydatarep";

// 16-bit little-endian fields of the byte format and of the integer text fields.
inline uint16_t read16(const unsigned char* at) {
  return static_cast<uint16_t>(at[0] | (at[1] << 8));
}

inline void write16(unsigned char* at, size_t value) {
  at[0] = static_cast<unsigned char>(value & 0xff);
  at[1] = static_cast<unsigned char>((value >> 8) & 0xff);
}

// Stores value into `existing` (freeing its old value unless it is the same) or, when existing is
// null, into a new entry with a copy of key appended to hash. Returns the entry, or null when the
// key cannot be copied (value then stays the caller's).
HashEntry* store_hash_value(Data* hash, HashEntry* existing, Data* value, const char* key);

}  // namespace drep_internal
