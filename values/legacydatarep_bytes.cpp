#include "values/legacydatarep.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <unordered_map>

#include "base/log.h"
#include "values/legacydatarep_internal.h"

using drep_internal::kSource;
using drep_internal::read16;
using drep_internal::write16;

// ---- Byte format -------------------------------------------------------------------------------
//
// Every element: 2 bytes total length (itself included), 2 bytes name length L, L bytes name (no
// NUL), then the body: LIST the elements; HASH per entry 2 bytes key length, key, element; a
// custom scalar 2 bytes text length V and the text. All 16-bit fields are little-endian.

namespace {

constexpr size_t kMaxElement = 65535;
constexpr size_t kInitialArray = 100;
constexpr size_t kMaxContainerName = 96;

// Growable malloc'd byte array; growing that fails ends the process.
class ByteArray {
 public:
  ByteArray() = default;
  ByteArray(const ByteArray&) = delete;
  ByteArray& operator=(const ByteArray&) = delete;
  ~ByteArray() { free(bytes_); }

  size_t size() const { return size_; }
  unsigned char* data() { return bytes_; }
  unsigned char* release() {
    unsigned char* bytes = bytes_;
    bytes_ = nullptr;
    return bytes;
  }
  void reserve(size_t capacity) {
    if (capacity <= capacity_) {
      return;
    }
    void* grown = realloc(bytes_, capacity);
    if (grown == nullptr) {
      log_fatal(kSource, "Error: Out of memory in help_increaseArray");
    }
    bytes_ = static_cast<unsigned char*>(grown);
    capacity_ = capacity;
  }
  void append(const void* bytes, size_t count) {
    if (size_ + count > capacity_) {
      reserve(2 * (size_ + count));
    }
    if (count > 0) {
      memcpy(bytes_ + size_, bytes, count);
    }
    size_ += count;
  }
  void append16(size_t value) {
    unsigned char field[2];
    write16(field, value);
    append(field, 2);
  }

 private:
  unsigned char* bytes_ = nullptr;
  size_t size_ = 0;
  size_t capacity_ = 0;
};

bool help_appendElement(ByteArray* out, const Data* data);

bool help_appendList(ByteArray* out, const Data* list) {
  for (ListNode* node = list->first; node != nullptr; node = node->next) {
    if (!help_appendElement(out, node->value)) {
      return false;
    }
    if (out->size() > kMaxElement) {
      return false;
    }
  }
  return true;
}

bool help_appendHash(ByteArray* out, const Data* hash) {
  for (HashEntry* entry = hash->firstEntry; entry != nullptr; entry = entry->next) {
    size_t keyLength = strlen(entry->key);
    if (keyLength > kMaxElement) {
      return false;
    }
    out->append16(keyLength);
    out->append(entry->key, keyLength);
    if (!help_appendElement(out, entry->value)) {
      return false;
    }
    if (out->size() > kMaxElement) {
      return false;
    }
  }
  return true;
}

bool help_appendContainer(ByteArray* out, const Data* data) {
  size_t nameLength = strlen(data->typeName);
  if (nameLength > kMaxContainerName) {
    return false;
  }
  size_t start = out->size();
  out->reserve(start + kInitialArray);
  out->append16(0);
  out->append16(nameLength);
  out->append(data->typeName, nameLength);
  bool ok = data->type == DATA_LIST ? help_appendList(out, data) : help_appendHash(out, data);
  if (!ok) {
    return false;
  }
  write16(out->data() + start, out->size() - start);
  return true;
}

bool help_scalarToByteString(ByteArray* out, const Data* data) {
  if (data->scalarKind != SCALAR_CUSTOM) {
    return false;
  }
  int result = -1;
  CString text(scalar_getString(&data->custom, &result));
  if (result != 0) {
    return false;
  }
  size_t nameLength = strlen(data->typeName);
  size_t textLength = strlen(text.get());
  size_t total = 6 + nameLength + textLength;
  if (nameLength >= 65536 || textLength > kMaxElement || total > kMaxElement) {
    log_error(kSource, "Length too long in %s.", "help_scalarToByteString");
    return false;
  }
  out->append16(total);
  out->append16(nameLength);
  out->append(data->typeName, nameLength);
  out->append16(textLength);
  out->append(text.get(), textLength);
  return true;
}

// Appends data as one complete element; false when it (or a part of it) cannot be serialised.
bool help_appendElement(ByteArray* out, const Data* data) {
  if (data == nullptr) {
    return false;
  }
  switch (data->type) {
    case DATA_LIST:
    case DATA_HASH:
      return help_appendContainer(out, data);
    case DATA_SCALAR:
      return help_scalarToByteString(out, data);
    default:
      return false;
  }
}

}  // namespace

unsigned char* legacy_drep_buildBytesFromData(const Data* data, int* length) {
  if (length != nullptr) {
    *length = 0;
  }
  ByteArray out;
  if (!help_appendElement(&out, data)) {
    return nullptr;
  }
  if (length != nullptr) {
    *length = static_cast<int>(out.size());
  }
  return out.release();
}

namespace {

// Bounds of one parse. Unchecked parses trust the element's own length fields; checked ones may
// read only `avail` bytes from the element's start, and a nested element only what is left of
// its parent.
struct Bytes {
  const unsigned char* at;
  size_t avail;
  bool checked;

  bool lacks(size_t count) const { return checked && count > avail; }
  Bytes inner(size_t offset, size_t end) const {
    return {at + offset, checked ? end - offset : SIZE_MAX, checked};
  }
};

Data* help_parseElement(const Bytes& in, size_t* consumed);

// NUL-terminated copy of count bytes; logs and gives null when memory runs out.
CString copy_text(const unsigned char* bytes, size_t count) {
  CString text(static_cast<char*>(malloc(count + 1)));
  if (text == nullptr) {
    log_error(kSource, "Memory allocation failed in %s.", "legacy_drep_buildDataFromBytes");
    return nullptr;
  }
  memcpy(text.get(), bytes, count);
  text.get()[count] = '\0';
  return text;
}

bool help_parseList(const Bytes& in, size_t total, size_t* p, Data* list) {
  while (total > *p) {
    size_t used = 0;
    Data* element = help_parseElement(in.inner(*p, total), &used);
    if (element == nullptr) {
      return false;
    }
    legacy_drep_addToList(list, element);
    *p += used;
  }
  return true;
}

// A repeated key replaces the earlier value in its place, as legacy_drep_setHashValue does; the
// keys seen so far are indexed so that a large hash is not searched once per entry.
bool help_parseHash(const Bytes& in, size_t total, size_t* p, Data* hash) {
  std::unordered_map<std::string_view, HashEntry*> seen;
  while (total > *p) {
    if (in.checked && *p + 2 > total) {
      return false;
    }
    size_t keyLength = read16(in.at + *p);
    if (in.checked && *p + 2 + keyLength > total) {
      return false;
    }
    CString key = copy_text(in.at + *p + 2, keyLength);
    if (key == nullptr) {
      return false;
    }
    size_t used = 0;
    Data* element = help_parseElement(in.inner(*p + 2 + keyLength, total), &used);
    if (element == nullptr) {
      return false;
    }
    auto found = seen.find(key.get());
    HashEntry* entry = drep_internal::store_hash_value(
        hash, found != seen.end() ? found->second : nullptr, element, key.get());
    if (entry == nullptr) {
      legacy_drep_freeData(element);
      return false;
    }
    seen.emplace(entry->key, entry);
    *p += 2 + keyLength + used;
  }
  return true;
}

Data* help_parseContainer(const Bytes& in, const char* name, size_t nameLength, size_t* consumed) {
  size_t total = read16(in.at);
  if (in.checked && total < 4 + nameLength) {
    return nullptr;
  }
  UniqueData data(legacy_drep_createData());
  size_t p = 4 + nameLength;
  bool ok = false;
  if (strcmp(name, "LIST") == 0) {
    legacy_drep_initializeList(data.get());
    ok = help_parseList(in, total, &p, data.get());
  } else {
    legacy_drep_initializeHash(data.get());
    ok = help_parseHash(in, total, &p, data.get());
  }
  if (!ok) {
    return nullptr;
  }
  *consumed = p;
  return data.release();
}

// A scalar's extent is 6 + L + V; its total length field is not consulted.
Data* help_parseScalar(const Bytes& in, const char* name, size_t nameLength, size_t* consumed) {
  if (in.lacks(6 + nameLength)) {
    return nullptr;
  }
  size_t textLength = read16(in.at + 4 + nameLength);
  if (in.lacks(6 + nameLength + textLength)) {
    return nullptr;
  }
  UniqueData data(legacy_drep_createData());
  if (legacy_drep_initializeScalar(data.get(), SCALAR_CUSTOM, name) != 0) {
    return nullptr;
  }
  CString text = copy_text(in.at + 6 + nameLength, textLength);
  if (text == nullptr) {
    return nullptr;
  }
  const char noFlag = 0;
  if (legacy_drep_setCustomFromString(data.get(), text.get(), &noFlag) != 0) {
    return nullptr;
  }
  *consumed = 6 + nameLength + textLength;
  return data.release();
}

Data* help_parseElement(const Bytes& in, size_t* consumed) {
  if (in.lacks(4)) {
    return nullptr;
  }
  size_t total = read16(in.at);
  size_t nameLength = read16(in.at + 2);
  if (in.lacks(total) || in.lacks(4 + nameLength)) {
    return nullptr;
  }
  CString name = copy_text(in.at + 4, nameLength);
  if (name == nullptr) {
    return nullptr;
  }
  if (strcmp(name.get(), "LIST") == 0 || strcmp(name.get(), "HASH") == 0) {
    return help_parseContainer(in, name.get(), nameLength, consumed);
  }
  return help_parseScalar(in, name.get(), nameLength, consumed);
}

Data* parse_top(const Bytes& in, int* consumed) {
  size_t used = 0;
  Data* data = in.at != nullptr ? help_parseElement(in, &used) : nullptr;
  if (consumed != nullptr) {
    *consumed = data != nullptr ? static_cast<int>(used) : 0;
  }
  return data;
}

}  // namespace

Data* legacy_drep_buildDataFromBytes(const unsigned char* bytes, int* consumed) {
  return parse_top({bytes, SIZE_MAX, false}, consumed);
}

Data* legacy_drep_buildDataFromBytesChecked(const unsigned char* bytes, size_t size,
                                            int* consumed) {
  return parse_top({bytes, size, true}, consumed);
}
