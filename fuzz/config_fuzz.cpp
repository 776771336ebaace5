// The master configuration parser on a file of the input's bytes, loaded as the daemon loads its
// configuration (into a new tree). Its grammar errors are fatal by design; they end the input.
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/fuzz_support.h"
#include "mapping/quibmapping.h"

namespace {

void load(const std::string& path) {
  map_init(path.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = tessard::fuzz::scratch_dir() + "/tessard.conf";
  tessard::fuzz::write_file(path, std::string_view(reinterpret_cast<const char*>(data), size));
  tessard::fuzz::run_catching_fatal(load, path);
  return 0;
}
