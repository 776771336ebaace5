#include "values/legacydatarep.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/log.h"
#include "values/legacydatarep_internal.h"

using drep_internal::kSource;
using drep_internal::read16;
using drep_internal::write16;

// ---- Text dump ---------------------------------------------------------------------------------

namespace {

// Indentation of the dump; process-wide, as the dump is only ever run from one place at a time.
int g_printIndent = 0;

void print_indent() {
  printf("%*s", g_printIndent, "");
}

void help_printScalar(const Data* data) {
  print_indent();
  printf("DATA_SCALAR->");
  if (data->scalarKind == SCALAR_STRING) {
    printf("SCALAR_STRING: '%s'", data->stringValue != nullptr ? data->stringValue : "(null)");
  } else if (data->scalarKind == SCALAR_CUSTOM) {
    CString text(scalar_getString(&data->custom, nullptr));
    printf("SCALAR_CUSTOM: %s", text != nullptr ? text.get() : "(null)");
  } else if (data->scalarKind == SCALAR_INT) {
    printf("SCALAR_INT: %d", data->intValue);
  } else {
    printf("SCALAR_NONE");
  }
  printf("\n");
}

void help_printHash(const Data* data) {
  print_indent();
  printf("DATA_HASH:\n");
  for (HashEntry* entry = data->firstEntry; entry != nullptr; entry = entry->next) {
    g_printIndent += 2;
    print_indent();
    printf("key: '%s'\n", entry->key);
    g_printIndent += 2;
    legacy_drep_printData(entry->value);
    g_printIndent -= 2;
    printf("\n");
    g_printIndent -= 2;
  }
}

}  // namespace

void legacy_drep_printData(const Data* data) {
  if (data == nullptr) {
    return;
  }
  switch (data->type) {
    case DATA_LIST:
      print_indent();
      printf("DATA_LIST:\n");
      g_printIndent += 2;
      for (ListNode* node = data->first; node != nullptr; node = node->next) {
        legacy_drep_printData(node->value);
      }
      g_printIndent -= 2;
      break;
    case DATA_HASH:
      help_printHash(data);
      break;
    case DATA_SCALAR:
      help_printScalar(data);
      break;
    default:
      print_indent();
      printf("DATA_NONE\n");
  }
}

// ---- Integer text fields -----------------------------------------------------------------------

namespace {

// Exactly one decimal integer, as "%d%c" would find it: leading blanks and a sign are allowed,
// nothing may follow. A value outside the 32-bit range is not one integer either.
bool scan_whole_int(const char* text, int* out) {
  char* end = nullptr;
  errno = 0;
  long value = strtol(text, &end, 10);
  if (end == text || *end != '\0') {
    return false;
  }
  if (errno == ERANGE || value < INT_MIN || value > INT_MAX) {
    return false;
  }
  *out = static_cast<int>(value);
  return true;
}

}  // namespace

int legacy_drep_byteToInt(const unsigned char* bytes, int* error) {
  *error = 0;
  size_t length = read16(bytes);
  auto* text = static_cast<char*>(malloc(length + 1));
  if (text == nullptr) {
    log_fatal(kSource, "Error: Out of memory in legacy_drep_byteToInt");
  }
  CString owner(text);
  memcpy(text, bytes + 2, length);
  text[length] = '\0';
  int value = 0;
  if (scan_whole_int(text, &value)) {
    return value;
  }
  *error = 2;
  return 0;
}

int legacy_drep_byteToIntChecked(const unsigned char* bytes, size_t size, int* error) {
  if (size < 2 || 2 + static_cast<size_t>(read16(bytes)) > size) {
    *error = 2;
    return 0;
  }
  return legacy_drep_byteToInt(bytes, error);
}

unsigned char* legacy_drep_intToByte(int value, unsigned char* buffer, int* error) {
  *error = 0;
  char text[16];
  size_t length = static_cast<size_t>(snprintf(text, sizeof text, "%d", value));
  size_t capacity = buffer != nullptr ? read16(buffer) : 0;
  if (buffer == nullptr || length > capacity) {
    auto* grown = static_cast<unsigned char*>(realloc(buffer, length + 2));
    if (grown == nullptr) {
      *error = -1;
      log_error(kSource, "Memory allocation failed in %s.", "legacy_drep_intToByte");
      return buffer;
    }
    buffer = grown;
  }
  write16(buffer, length);
  memcpy(buffer + 2, text, length);
  return buffer;
}

// ---- Range check -------------------------------------------------------------------------------

namespace {

bool is_separator(char c) {
  return c == ' ' || c == ',' || c == '\t';
}

const char* skip_blanks(const char* text) {
  while (*text == ' ' || *text == '\t') {
    ++text;
  }
  return text;
}

// Reads a (possibly signed) decimal number as strtol does, clamped to 32 bits.
bool read_number(const char** text, int32_t* out) {
  char* end = nullptr;
  long value = strtol(*text, &end, 10);
  if (end == *text) {
    return false;
  }
  *out = static_cast<int32_t>(value < INT32_MIN   ? INT32_MIN
                              : value > INT32_MAX ? INT32_MAX
                                                  : value);
  *text = end;
  return true;
}

// One item of a range list: N, or N-M with blanks allowed around "-"; "N-" without a number
// after it reaches the top of the 32-bit range.
bool read_range_item(const char** text, int32_t* low, int32_t* high) {
  if (!read_number(text, low)) {
    return false;
  }
  *high = *low;
  const char* after = skip_blanks(*text);
  if (*after != '-') {
    return true;
  }
  *text = skip_blanks(after + 1);
  if (!read_number(text, high)) {
    *high = INT32_MAX;
  }
  return true;
}

// Items are expected in ascending order and are not sorted. A value in the gap before an item
// goes to the nearer neighbour, ties to the item above.
int check_range_list(const char* text, int* value) {
  int32_t prevHigh = INT32_MIN;
  bool anyItem = false;
  text = skip_blanks(text);
  while (true) {
    int32_t low = 0;
    int32_t high = 0;
    if (!read_range_item(&text, &low, &high)) {
      *value = anyItem ? prevHigh : INT32_MAX;
      return -1;
    }
    anyItem = true;
    if (*value >= low && *value <= high) {
      return 0;
    }
    if (*value < low) {
      uint32_t below = static_cast<uint32_t>(*value) - static_cast<uint32_t>(prevHigh);
      uint32_t above = static_cast<uint32_t>(low) - static_cast<uint32_t>(*value);
      *value = below >= above ? low : prevHigh;
      return -1;
    }
    prevHigh = high;
    while (is_separator(*text)) {
      ++text;
    }
    if (*text == '\0') {
      *value = prevHigh;
      return -1;
    }
  }
}

int32_t number_after(const char* text) {
  int32_t number = 0;
  read_number(&text, &number);
  return number;
}

}  // namespace

int legacy_drep_checkRange(const char* constraint, int* value) {
  if (constraint == nullptr || value == nullptr) {
    return 0;
  }
  if (const char* range = strstr(constraint, "range=")) {
    return check_range_list(range + strlen("range="), value);
  }
  const char* maxText = strstr(constraint, "max=");
  int32_t max = maxText != nullptr ? number_after(maxText + strlen("max=")) : INT32_MAX;
  if (const char* minText = strstr(constraint, "min=")) {
    int32_t min = number_after(minText + strlen("min="));
    if (*value < min) {
      *value = min;
      return -1;
    }
  }
  if (*value > max) {
    *value = max;
    return -1;
  }
  return 0;
}
