// Parameter values as text, for tests that set and look at them.
#pragma once

#include <cstdlib>
#include <string>

#include "mapping/quibmapping.h"
#include "values/legacydatarep.h"

namespace tessard::test {

// The parameter's value as text ("<none>" unless it holds a scalar).
inline std::string value_text(Param* param, char* quote = nullptr) {
  Data* data = map_getParamData(param);
  if (data == nullptr || data->type != DATA_SCALAR) return "<none>";
  char* text = legacy_drep_getCustomString(data, quote);
  std::string result = text;
  free(text);
  return result;
}

// A scalar of type "string" holding `text`.
inline Data* string_data(const char* text) {
  Data* data = legacy_drep_createData();
  legacy_drep_initializeScalar(data, SCALAR_CUSTOM, "string");
  legacy_drep_setCustomFromString(data, text, nullptr);
  return data;
}

}  // namespace tessard::test
