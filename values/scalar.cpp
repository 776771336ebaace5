#include "values/scalar.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "base/log.h"

namespace {

constexpr const char* kSource = "scalar";

// ---- Buffer handling ---------------------------------------------------------------------------

void set_result(int* result, int value) {
  if (result != nullptr) {
    *result = value;
  }
}

// Replaces the scalar's bytes by a copy of bytes; -1 (value unchanged) when memory runs out.
// Kept out of line: inlined into a caller with a small array, its heap branch (never taken there)
// draws an array-bounds warning from an optimising build.
[[gnu::noinline]] int store_bytes(CustomScalar* scalar, const void* bytes, int size) {
  unsigned char* heap = scalar->size > SCALAR_INLINE_SIZE ? scalar->buffer : nullptr;
  if (size <= SCALAR_INLINE_SIZE) {
    memmove(scalar->inlineBytes, bytes, size);
    free(heap);
    scalar->size = size;
    return 0;
  }
  auto* grown = static_cast<unsigned char*>(realloc(heap, size));
  if (grown == nullptr) {
    log_error(kSource, "Memory reallocation failed.");
    return -1;
  }
  memcpy(grown, bytes, size);
  scalar->buffer = grown;
  scalar->size = size;
  return 0;
}

int store_text(CustomScalar* scalar, std::string_view text) {
  std::string copy(text);
  return store_bytes(scalar, copy.c_str(), static_cast<int>(copy.size() + 1));
}

bool ends_in_nul(const unsigned char* bytes, int size) {
  return size >= 1 && bytes[size - 1] == 0;
}

// The stored text of "string" and the enumerations (stored with its NUL).
const char* stored_text(const CustomScalar* scalar) {
  return scalar->size > 0 ? reinterpret_cast<const char*>(scalar_bytes(scalar)) : "";
}

// Copies text into the caller's buffer when text and NUL fit; the length goes to *size.
int print_fitting(std::string_view text, char* buffer, int* size) {
  if (*size < 0 || text.size() + 1 > static_cast<size_t>(*size)) {
    return -2;
  }
  memcpy(buffer, text.data(), text.size());
  buffer[text.size()] = '\0';
  *size = static_cast<int>(text.size());
  return 0;
}

// Prints text into the caller's buffer, which must hold at least `minimum` bytes whatever the
// text's length (the fixed-width types reserve their widest text).
int print_reserved(std::string_view text, int minimum, char* buffer, int* size) {
  if (*size < minimum) {
    return -2;
  }
  return print_fitting(text, buffer, size);
}

// ---- Number scanning ---------------------------------------------------------------------------

// Reads one number as strtol does (blanks, sign, digits in base); false when no digit follows.
bool scan_number(const char** text, int base, long* out) {
  char* end = nullptr;
  errno = 0;
  long value = strtol(*text, &end, base);
  if (end == *text) {
    return false;
  }
  *out = value;
  *text = end;
  return true;
}

// Reads `count` numbers separated by `separator`, each below 256 when taken as unsigned (so a
// negative number fails). Text after the last number is not examined.
bool scan_octets(const char* text, int base, char separator, unsigned char* out, int count) {
  for (int i = 0; i < count; ++i) {
    if (i > 0 && *text++ != separator) {
      return false;
    }
    long number = 0;
    if (!scan_number(&text, base, &number)) {
      return false;
    }
    if (static_cast<unsigned long>(number) >= 256) {
      return false;
    }
    out[i] = static_cast<unsigned char>(number);
  }
  return true;
}

// ---- "string" ----------------------------------------------------------------------------------

int string_set_bytes(CustomScalar* scalar, const unsigned char* bytes, int size, const void*) {
  if (!ends_in_nul(bytes, size)) {
    return -1;
  }
  return store_bytes(scalar, bytes, size);
}

int string_parse(CustomScalar* scalar, const char* text, const void*) {
  return store_text(scalar, text);
}

int text_print(const CustomScalar* scalar, char* buffer, int* size, const void*) {
  return print_fitting(stored_text(scalar), buffer, size);
}

// ---- "int" -------------------------------------------------------------------------------------

constexpr int kIntTextSize = 12;

int32_t stored_int(const CustomScalar* scalar) {
  int32_t value = 0;
  memcpy(&value, scalar_bytes(scalar), sizeof value);
  return value;
}

// Base-10 conversion of the leading digits; a text without digits gives 0. Values beyond the
// 32-bit range are clamped.
int int_parse(CustomScalar* scalar, const char* text, const void*) {
  long value = 0;
  scan_number(&text, 10, &value);
  if (value > INT32_MAX) {
    value = INT32_MAX;
  }
  if (value < INT32_MIN) {
    value = INT32_MIN;
  }
  int32_t stored = static_cast<int32_t>(value);
  return store_bytes(scalar, &stored, sizeof stored);
}

int int_print(const CustomScalar* scalar, char* buffer, int* size, const void*) {
  char text[kIntTextSize];
  snprintf(text, sizeof text, "%d", stored_int(scalar));
  return print_reserved(text, kIntTextSize, buffer, size);
}

// ---- "ip" and "eth_addr" -----------------------------------------------------------------------

// The layout of an address written as numbers with a separator between them.
struct OctetFormat {
  int count;
  int base;
  char separator;
  const char* octetFormat;  // printf format of one octet
  int textSize;             // widest text with its NUL
};

constexpr OctetFormat kIpFormat = {4, 10, '.', "%d", 16};
constexpr OctetFormat kEthFormat = {6, 16, ':', "%02x", 18};
constexpr int kMaxOctets = 6;

int octets_parse(CustomScalar* scalar, const char* text, const void* arg) {
  const auto& format = *static_cast<const OctetFormat*>(arg);
  unsigned char octets[kMaxOctets];
  if (!scan_octets(text, format.base, format.separator, octets, format.count)) {
    return -1;
  }
  return store_bytes(scalar, octets, format.count);
}

int octets_print(const CustomScalar* scalar, char* buffer, int* size, const void* arg) {
  const auto& format = *static_cast<const OctetFormat*>(arg);
  std::string text;
  for (int i = 0; i < format.count; ++i) {
    char octet[4];
    snprintf(octet, sizeof octet, format.octetFormat, scalar_bytes(scalar)[i]);
    if (i > 0) {
      text += format.separator;
    }
    text += octet;
  }
  return print_reserved(text, format.textSize, buffer, size);
}

// ---- Enumerations ------------------------------------------------------------------------------

constexpr const char* kOnOff[] = {"off", "on", nullptr};
constexpr const char* kTrueFalse[] = {"false", "true", nullptr};
constexpr const char* kCompression[] = {"min", "low", "medium", "high", "very high", nullptr};
constexpr const char* kWeekdays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat", nullptr};
constexpr const char* kHighLow[] = {"low", "high", nullptr};
constexpr const char* kYesNo[] = {"no", "yes", nullptr};
constexpr const char* kRemove[] = {"no", "used", "stored", "number", "previous", "time", nullptr};
constexpr const char* kResolution[] = {"640x480", "320x240", "160x120", nullptr};

// The entry equal to text (case-sensitive), or null.
const char* enum_match(const void* arg, std::string_view text) {
  for (auto* entry = static_cast<const char* const*>(arg); *entry != nullptr; ++entry) {
    if (text == *entry) {
      return *entry;
    }
  }
  return nullptr;
}

int enum_set_bytes(CustomScalar* scalar, const unsigned char* bytes, int size, const void* arg) {
  if (!ends_in_nul(bytes, size)) {
    return -1;
  }
  const char* entry = enum_match(arg, {reinterpret_cast<const char*>(bytes), size_t(size - 1)});
  if (entry == nullptr) {
    return -1;
  }
  return store_text(scalar, entry);
}

int enum_parse(CustomScalar* scalar, const char* text, const void* arg) {
  const char* entry = enum_match(arg, text);
  if (entry == nullptr) {
    return -1;
  }
  return store_text(scalar, entry);
}

// ---- "ipaddr" ----------------------------------------------------------------------------------

constexpr int kIpv4Family = 2;
constexpr int kIpv6Family = 10;
constexpr int kNoInterface = -1;

struct IpAddr {
  int32_t family;
  int32_t interfaceIndex;
  unsigned char address[16];
};
static_assert(sizeof(IpAddr) == SCALAR_IPADDR_SIZE);

int ipaddr_parse(CustomScalar* scalar, const char* text, const void*) {
  std::string_view whole(text);
  IpAddr value = {};
  if (whole.find(':') != std::string_view::npos) {
    value.family = kIpv6Family;
  } else if (whole.find('.') != std::string_view::npos) {
    value.family = kIpv4Family;
  } else {
    return -1;
  }
  std::string address(whole.substr(0, whole.find('%')));
  value.interfaceIndex = kNoInterface;
  if (address.size() < whole.size()) {
    std::string name(whole.substr(address.size() + 1));
    int index = static_cast<int>(if_nametoindex(name.c_str()));
    if (index >= 1) {
      value.interfaceIndex = index;
    }
  }
  int af = value.family == kIpv6Family ? AF_INET6 : AF_INET;
  if (inet_pton(af, address.c_str(), value.address) != 1) {
    return -1;
  }
  return store_bytes(scalar, &value, sizeof value);
}

int ipaddr_print(const CustomScalar* scalar, char* buffer, int* size, const void*) {
  IpAddr value;
  memcpy(&value, scalar_bytes(scalar), sizeof value);
  int af = 0;
  int minimum = 0;
  if (value.family == kIpv4Family) {
    af = AF_INET;
    minimum = INET_ADDRSTRLEN;
  } else if (value.family == kIpv6Family) {
    af = AF_INET6;
    minimum = INET6_ADDRSTRLEN;
  } else {
    return -1;
  }
  if (*size < minimum) {
    return -2;
  }
  if (inet_ntop(af, value.address, buffer, *size) == nullptr) {
    return -1;
  }
  size_t length = strlen(buffer);
  char name[IF_NAMESIZE];
  if (value.interfaceIndex > 0 && if_indextoname(value.interfaceIndex, name) != nullptr &&
      length + 1 + strlen(name) + 1 <= static_cast<size_t>(*size)) {
    buffer[length] = '%';
    strcpy(buffer + length + 1, name);
    length += 1 + strlen(name);
  }
  *size = static_cast<int>(length);
  return 0;
}

// ---- The type table ----------------------------------------------------------------------------

using SetBytesFn = int (*)(CustomScalar*, const unsigned char*, int, const void*);
using ParseFn = int (*)(CustomScalar*, const char*, const void*);
using PrintFn = int (*)(const CustomScalar*, char*, int*, const void*);

struct ScalarType {
  const char* name;
  SetBytesFn setBytes;  // null: the bytes are copied as they are, after the size check
  ParseFn parse;
  PrintFn print;
  const void* arg;  // the enumeration list or the address layout
  int fixedSize;    // storage size of a fixed-size type (its default is all zero); 0 for texts
  int newTextSize;  // buffer for the new-text form; 0: the stored text's own length
};

#define TESSARD_ENUM_ROW(name, list) \
  { name, enum_set_bytes, enum_parse, text_print, list, 0, 0 }

constexpr ScalarType kTypes[SCALARTYPE_COUNT] = {
    {"string", string_set_bytes, string_parse, text_print, nullptr, 0, 0},
    {"int", nullptr, int_parse, int_print, nullptr, sizeof(int32_t), kIntTextSize},
    {"ip", nullptr, octets_parse, octets_print, &kIpFormat, kIpFormat.count, kIpFormat.textSize},
    {"eth_addr", nullptr, octets_parse, octets_print, &kEthFormat, kEthFormat.count,
     kEthFormat.textSize},
    TESSARD_ENUM_ROW("cenum_on_off", kOnOff),
    TESSARD_ENUM_ROW("cenum_true_false", kTrueFalse),
    TESSARD_ENUM_ROW("compression", kCompression),
    TESSARD_ENUM_ROW("weekdays", kWeekdays),
    TESSARD_ENUM_ROW("high_low", kHighLow),
    TESSARD_ENUM_ROW("yes_no", kYesNo),
    TESSARD_ENUM_ROW("remove", kRemove),
    TESSARD_ENUM_ROW("resolution", kResolution),
    {"ipaddr", nullptr, ipaddr_parse, ipaddr_print, nullptr, SCALAR_IPADDR_SIZE,
     SCALAR_IPADDR_TEXT_SIZE},
};

#undef TESSARD_ENUM_ROW

bool valid_index(int typeIndex) {
  return typeIndex >= 0 && typeIndex < SCALARTYPE_COUNT;
}

const ScalarType& type_of(const CustomScalar* scalar) {
  return kTypes[scalar->typeIndex];
}

bool is_enum(const ScalarType& type) {
  return type.setBytes == enum_set_bytes;
}

// Sets the row's default: zero bytes for the fixed-size types, the empty text for "string" and
// the first entry for an enumeration.
int set_default(CustomScalar* scalar, const ScalarType& type) {
  if (type.fixedSize > 0) {
    unsigned char zeros[SCALAR_IPADDR_SIZE] = {};
    return store_bytes(scalar, zeros, type.fixedSize);
  }
  const char* text = is_enum(type) ? static_cast<const char* const*>(type.arg)[0] : "";
  return store_text(scalar, text);
}

}  // namespace

int scalar_findType(const char* name) {
  if (name == nullptr) {
    return -1;
  }
  for (int i = 0; i < SCALARTYPE_COUNT; ++i) {
    if (strcmp(kTypes[i].name, name) == 0) {
      return i;
    }
  }
  return -1;
}

const char* scalar_typeNameOfIndex(int typeIndex) {
  return valid_index(typeIndex) ? kTypes[typeIndex].name : nullptr;
}

const char* const* scalar_enumEntries(int typeIndex) {
  if (!valid_index(typeIndex) || !is_enum(kTypes[typeIndex])) {
    return nullptr;
  }
  return static_cast<const char* const*>(kTypes[typeIndex].arg);
}

int scalar_initialize(CustomScalar* scalar, const char* typeName) {
  int typeIndex = scalar_findType(typeName);
  if (scalar == nullptr || typeIndex < 0) {
    return -1;
  }
  int status = set_default(scalar, kTypes[typeIndex]);
  if (status == 0) {
    scalar->typeIndex = typeIndex;
  }
  return status;
}

void scalar_setFromBytes(CustomScalar* scalar, const unsigned char* bytes, int size, int* result) {
  if (scalar == nullptr || bytes == nullptr) {
    return set_result(result, -1);
  }
  const ScalarType& type = type_of(scalar);
  if (type.setBytes != nullptr) {
    return set_result(result, type.setBytes(scalar, bytes, size, type.arg));
  }
  bool sizeFits = type.fixedSize == 0 || size == type.fixedSize;
  set_result(result, sizeFits && size > 0 ? store_bytes(scalar, bytes, size) : -1);
}

void scalar_setFromString(CustomScalar* scalar, const char* text, int* result) {
  if (scalar == nullptr || text == nullptr) {
    return set_result(result, -1);
  }
  const ScalarType& type = type_of(scalar);
  set_result(result, type.parse(scalar, text, type.arg));
}

void scalar_getStringToBuffer(const CustomScalar* scalar, char* buffer, int* size, int* result) {
  if (scalar == nullptr || buffer == nullptr || size == nullptr) {
    return set_result(result, -1);
  }
  const ScalarType& type = type_of(scalar);
  set_result(result, type.print(scalar, buffer, size, type.arg));
}

char* scalar_getString(const CustomScalar* scalar, int* result) {
  set_result(result, -1);
  if (scalar == nullptr) {
    return nullptr;
  }
  const ScalarType& type = type_of(scalar);
  int capacity = type.newTextSize > 0 ? type.newTextSize : strlen(stored_text(scalar)) + 1;
  auto* text = static_cast<char*>(malloc(capacity));
  if (text == nullptr) {
    log_error(kSource, "Memory allocation failed.");
    return nullptr;
  }
  int status = type.print(scalar, text, &capacity, type.arg);
  set_result(result, status);
  if (status == 0) {
    return text;
  }
  free(text);
  return nullptr;
}

const char* scalar_getTypeName(const CustomScalar* scalar) {
  return scalar != nullptr ? type_of(scalar).name : nullptr;
}

void scalar_release(CustomScalar* scalar) {
  if (scalar->size > SCALAR_INLINE_SIZE) {
    free(scalar->buffer);
  }
  scalar->size = 0;
}
