// The value byte format as clients send it: parsed with the checked reader, then serialised and
// parsed again, which must give the same bytes.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/handles.h"
#include "fuzz/fuzz_support.h"
#include "values/legacydatarep.h"

namespace {

std::unique_ptr<unsigned char, FreeDeleter> bytes_of(const Data* data, int* length) {
  return std::unique_ptr<unsigned char, FreeDeleter>(legacy_drep_buildBytesFromData(data, length));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tessard::fuzz::silence_log();
  int error = 0;
  legacy_drep_byteToIntChecked(data, size, &error);
  int consumed = 0;
  UniqueData value(legacy_drep_buildDataFromBytesChecked(data, size, &consumed));
  if (!value) return 0;
  if (consumed < 0 || static_cast<size_t>(consumed) > size) abort();
  int length = 0;
  auto once = bytes_of(value.get(), &length);
  if (!once) return 0;
  int again_consumed = 0;
  UniqueData again(legacy_drep_buildDataFromBytesChecked(once.get(), length, &again_consumed));
  if (!again || again_consumed != length) abort();
  int again_length = 0;
  auto twice = bytes_of(again.get(), &again_length);
  if (!twice || again_length != length || memcmp(once.get(), twice.get(), length) != 0) abort();
  return 0;
}
