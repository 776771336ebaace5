// The master configuration parser on the input's bytes, read as the daemon reads its configuration
// into a new tree, but with a report, so that grammar errors fail the parse instead of ending the
// process (as they do for tessard-check and for files that clients make).
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/fuzz_support.h"
#include "mapping/quibmapping.h"
#include "parsers/quibconfigparser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string dir = tessard::fuzz::scratch_dir();
  tessard::fuzz::start_parsers();
  map_init("/dev/null");
  ConfigReport report;
  config_parseText(std::string_view(reinterpret_cast<const char*>(data), size), "(input)", 1,
                   &report);
  return 0;
}
