// Typed scalar values: the thirteen custom scalar types a parameter can choose with its `type`
// option ("string", "int", "ip", "eth_addr", "ipaddr" and the enumerations).
//
// A CustomScalar owns a heap byte buffer whose layout depends on the type:
//   "string"         the text with its NUL
//   "int"            4-byte signed integer (host order)
//   "ip"             4 bytes, the IPv4 octets in text order
//   "eth_addr"       6 bytes
//   enumerations     the chosen entry's text with its NUL (the text itself, not an index)
//   "ipaddr"         24 bytes: family (int32: 2 IPv4, 10 IPv6), interface index (int32, -1 for
//                    none), 16 address bytes
//
// Every function reports through the out-parameter `result` (which may be null): 0 success,
// -1 failure, -2 caller's buffer too small. A refused text or byte string never changes the
// stored value. Allocation failures are logged and reported as -1, never fatal.
#pragma once

#include <cstdint>

// Indexes of the type table, in table order.
constexpr int32_t SCALARTYPE_STRING = 0;
constexpr int32_t SCALARTYPE_INT = 1;
constexpr int32_t SCALARTYPE_IP = 2;
constexpr int32_t SCALARTYPE_ETH_ADDR = 3;
constexpr int32_t SCALARTYPE_CENUM_ON_OFF = 4;
constexpr int32_t SCALARTYPE_CENUM_TRUE_FALSE = 5;
constexpr int32_t SCALARTYPE_COMPRESSION = 6;
constexpr int32_t SCALARTYPE_WEEKDAYS = 7;
constexpr int32_t SCALARTYPE_HIGH_LOW = 8;
constexpr int32_t SCALARTYPE_YES_NO = 9;
constexpr int32_t SCALARTYPE_REMOVE = 10;
constexpr int32_t SCALARTYPE_RESOLUTION = 11;
constexpr int32_t SCALARTYPE_IPADDR = 12;
constexpr int32_t SCALARTYPE_COUNT = 13;

// Size of the "ipaddr" storage and the text buffer its new-text form uses.
constexpr int32_t SCALAR_IPADDR_SIZE = 24;
constexpr int32_t SCALAR_IPADDR_TEXT_SIZE = 62;

// Values of up to this many bytes are kept in the record itself.
constexpr int32_t SCALAR_INLINE_SIZE = 16;

struct CustomScalar {
  // The value's bytes (read them with scalar_bytes): in `inlineBytes` when `size` is at most
  // SCALAR_INLINE_SIZE, else in `buffer`. Most values are short, and every parameter has one.
  union {
    unsigned char* buffer;  // heap, owned
    unsigned char inlineBytes[SCALAR_INLINE_SIZE];
  };
  int32_t size;       // bytes of the value
  int32_t typeIndex;  // row of the type table
};

inline const unsigned char* scalar_bytes(const CustomScalar* scalar) {
  return scalar->size > SCALAR_INLINE_SIZE ? scalar->buffer : scalar->inlineBytes;
}

// Index of the type with exactly this name (case-sensitive), or -1.
int scalar_findType(const char* name);
// Name of the type at index, or null for an index outside the table. Static text.
const char* scalar_typeNameOfIndex(int typeIndex);
// Entries of an enumeration type in order (the first is the default), ending with null; null for
// a type that is not an enumeration.
const char* const* scalar_enumEntries(int typeIndex);

// Sets a zeroed scalar (one kept inside a value record) to the named type's default; -1 if the
// name is unknown or memory ran out. Release its buffer with scalar_release.
int scalar_initialize(CustomScalar* scalar, const char* typeName);
// Releases the scalar's buffer, leaving the record that holds it to its owner.
void scalar_release(CustomScalar* scalar);
// Stores `size` raw bytes after checking them against the type (size, final NUL, enumeration
// entry).
void scalar_setFromBytes(CustomScalar* scalar, const unsigned char* bytes, int size, int* result);
// Parses the text form of the type.
void scalar_setFromString(CustomScalar* scalar, const char* text, int* result);
// Writes the text form and its NUL into buffer; *size holds the buffer's capacity on entry and the
// text's length (without NUL) on success. -2 when the buffer is too small.
void scalar_getStringToBuffer(const CustomScalar* scalar, char* buffer, int* size, int* result);
// The text form in a new malloc'd text (release with free), or null with -1.
char* scalar_getString(const CustomScalar* scalar, int* result);
// The type's name: static text, valid for the life of the process.
const char* scalar_getTypeName(const CustomScalar* scalar);
