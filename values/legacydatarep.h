// Parameter values: the Data tree (none, scalar, list, hash), its byte serialisation used by the
// client protocol and by change detection, deep copy, the text dump, the length-prefixed integer
// text fields and the integer range check.
//
// Ownership: a Data owns its whole subtree (nodes, entries, keys, texts, custom scalars). All
// memory handed in or out is malloc'd and released with free() unless a function says otherwise;
// Data trees are released with legacy_drep_freeData (or held in a UniqueData).
//
// Lists and hashes keep insertion order. Change them only through the legacy_drep_* functions:
// they also keep the tail and the walk position that make appending and walking constant-time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "values/scalar.h"

// Data::type
constexpr uint32_t DATA_NONE = 0;
constexpr uint32_t DATA_SCALAR = 1;
constexpr uint32_t DATA_LIST = 2;
constexpr uint32_t DATA_HASH = 3;

// Data::scalarKind
constexpr uint32_t SCALAR_NONE = 0;
constexpr uint32_t SCALAR_INT = 1;
constexpr uint32_t SCALAR_STRING = 2;
constexpr uint32_t SCALAR_CUSTOM = 3;

struct Data;

struct ListNode {
  Data* value;
  ListNode* next;
};

struct HashEntry {
  HashEntry* next;
  char* key;
  Data* value;
};

// Every parameter holds one, so a custom scalar is kept inside the record rather than beside it.
struct Data {
  uint32_t type;
  uint8_t scalarKind;  // DATA_SCALAR: one of SCALAR_*; SCALAR_NONE otherwise
  char customFlag;     // handed back with a custom value (a quote character); 0 unless given
  // "NONE", "LIST", "HASH", "INT", "STRING" or the custom scalar's type name; never freed.
  const char* typeName;
  union {
    struct {  // DATA_LIST and DATA_HASH
      union {
        ListNode* first;        // DATA_LIST: head of the list
        HashEntry* firstEntry;  // DATA_HASH: head of the entries
      };
      // Bookkeeping of the legacy_drep_* functions; not part of the value.
      void* last;              // last ListNode or HashEntry
      mutable void* walkHint;  // node or entry whose value a walk handed out last
    };
    int32_t intValue;     // SCALAR_INT
    char* stringValue;    // SCALAR_STRING, heap text or null
    CustomScalar custom;  // SCALAR_CUSTOM
  };
  Data* mark;  // element last visited by the mapping interface's walk, or null
};

// --- Creation and kinds ------------------------------------------------------------------------

// New DATA_NONE record. Fatal when memory runs out.
Data* legacy_drep_createData();
// DATA_NONE -> empty DATA_LIST; 0. Fatal for any other type.
int legacy_drep_initializeList(Data* data);
// DATA_NONE -> empty DATA_HASH; 0, or -1 for null or another type.
int legacy_drep_initializeHash(Data* data);
// DATA_NONE -> DATA_SCALAR of `kind` (SCALAR_INT, SCALAR_STRING, or SCALAR_CUSTOM of the type
// named `typeName`); -1 for null, another type or an unknown custom type. Fatal for another kind.
int legacy_drep_initializeScalar(Data* data, int kind, const char* typeName);

// --- Scalars -----------------------------------------------------------------------------------

int legacy_drep_setInt(Data* data, int value);  // -1 unless SCALAR_INT
int legacy_drep_getInt(const Data* data);       // 0 unless SCALAR_INT
// Copies text; -1 unless SCALAR_STRING or when memory runs out.
int legacy_drep_setString(Data* data, const char* text);
const char* legacy_drep_getString(const Data* data);  // stored text (still owned) or null
// Parses text into the custom scalar; stores *flag in customFlag when flag is given. -1 unless
// DATA_SCALAR or when the type refuses the text; fatal for a scalar that is not SCALAR_CUSTOM.
int legacy_drep_setCustomFromString(Data* data, const char* text, const char* flag);
// New malloc'd text of the custom scalar (null unless DATA_SCALAR); copies customFlag to *flag
// when given. Fatal for another scalar kind or when the type cannot print the value.
char* legacy_drep_getCustomString(const Data* data, char* flag);
// Writes the text into buffer (size bytes): 0, -2 when it does not fit, -1 unless DATA_SCALAR.
int legacy_drep_getCustomStringToBuffer(const Data* data, char* buffer, int size);

// --- Lists -------------------------------------------------------------------------------------

// Appends value (now owned by the list); 0. Fatal unless DATA_LIST.
int legacy_drep_addToList(Data* list, Data* value);
// First value; the list must not be empty. Fatal unless DATA_LIST.
Data* legacy_drep_getFirstOfList(const Data* list);
// Value after `previous` (compared by identity; null gives the first); null at the end or when
// previous is not in the list. Fatal unless DATA_LIST.
Data* legacy_drep_getNextToInList(const Data* list, const Data* previous);
// Unlinks and frees the node holding value (identity) and the value; 0. Fatal unless DATA_LIST.
int legacy_drep_deleteListItem(Data* list, Data* value);

// --- Hashes ------------------------------------------------------------------------------------

// Stores value under key (copied), replacing and freeing an older value of an equal key, else
// appending. Returns value, or null unless DATA_HASH or when the key cannot be copied (value then
// stays the caller's).
Data* legacy_drep_setHashValue(Data* hash, Data* value, const char* key);
// Value stored under key, or null. Null arguments give null; fatal unless DATA_HASH.
Data* legacy_drep_getHashValue(const Data* hash, const char* key);
// Like the list walk, by value identity; *key (when given) gets the entry's key (still owned).
// Fatal unless DATA_HASH.
Data* legacy_drep_getNextToInHash(const Data* hash, const Data* previous, const char** key);
// Removes the first entry with key (freeing key and value); 0 also when absent, -1 unless
// DATA_HASH.
int legacy_drep_deleteHashValue(Data* hash, const char* key);

// --- Whole values ------------------------------------------------------------------------------

const char* legacy_drep_getTypeName(const Data* data);
void legacy_drep_freeData(Data* data);  // whole subtree; null is ignored
// Frees *slot and puts a new DATA_NONE record there.
void legacy_drep_resetData(Data** slot);
// Deep copy keeping list and hash order. Fatal on corrupt data or scalars other than
// SCALAR_CUSTOM.
Data* legacy_drep_copyData(const Data* data);

// --- Byte format -------------------------------------------------------------------------------

// Serialises data; malloc'd bytes and *length, or null with *length 0 when the value (or any part
// of it) is not serialisable or longer than 65535 bytes.
unsigned char* legacy_drep_buildBytesFromData(const Data* data, int* length);
// Parses one element trusting its own length fields (only for bytes this process produced);
// *consumed gets the bytes used. Null when a type or text is refused.
Data* legacy_drep_buildDataFromBytes(const unsigned char* bytes, int* consumed);
// The same parse, but never reads at or past bytes + size: an element whose length fields point
// past size (or past its enclosing element) is refused with null. Every well-formed input gives
// exactly legacy_drep_buildDataFromBytes's result. Use this for bytes from clients.
Data* legacy_drep_buildDataFromBytesChecked(const unsigned char* bytes, size_t size, int* consumed);

// --- Text ----------------------------------------------------------------------------------------

// Dumps the tree to standard output (see legacydatarep.cpp for the format).
void legacy_drep_printData(const Data* data);
// Reads a 16-bit little-endian length and that many bytes of decimal text; the integer, or 0 with
// *error 2 when the text is not exactly one integer.
int legacy_drep_byteToInt(const unsigned char* bytes, int* error);
// The same for a field inside `size` received bytes: a length pointing past them gives 0 with
// *error 2, without reading past the end.
int legacy_drep_byteToIntChecked(const unsigned char* bytes, size_t size, int* error);
// Writes value as such a field into buffer (malloc'd; its stored length is taken as its
// capacity), reallocating when needed; returns the possibly moved buffer. *error -1 (old buffer
// returned unchanged) when reallocation fails.
unsigned char* legacy_drep_intToByte(int value, unsigned char* buffer, int* error);
// 0 when *value satisfies the range=, min= or max= constraint text; else -1 with *value moved to
// the nearest allowed value.
int legacy_drep_checkRange(const char* constraint, int* value);

// Owning handle for a Data tree.
struct DataFree {
  void operator()(Data* data) const { legacy_drep_freeData(data); }
};
using UniqueData = std::unique_ptr<Data, DataFree>;
