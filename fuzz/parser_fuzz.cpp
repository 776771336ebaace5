// One registered backing-file parser (FUZZ_PARSER, with a parameter bound at FUZZ_MOUNT) over a
// file's text, in read mode and in write mode with that parameter changed by a client. An input is
// the new value, a NUL byte and the file's text (no NUL: the text alone, and the value "v"). Both
// modes must agree. A written file must parse again when the value is plain (printable, not blank
// at either end) and the text holds no NUL byte, for the parsers built with FUZZ_ROUND_TRIP 1.
// Shell and standard2 are built with 0: rewrites of some malformed files of theirs do not
// parse again.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "fuzz/fuzz_support.h"
#include "mapping/quibmapping.h"
#include "parsers/mappinginterface.h"
#include "parsers/parserframework.h"
#include "tests/support/paramvalue.h"

namespace {

Param* bound_param() {
  static Param* param = [] {
    tessard::fuzz::start_parsers();
    Group* root = nullptr;
    map_addGroup("root", nullptr, &root);
    Group* group = nullptr;
    map_addGroup("G", root, &group);
    Param* p = nullptr;
    map_createParam("p", group, &p);
    map_setParamOption("parser", FUZZ_PARSER, p);
    map_setParamOption("mount", FUZZ_MOUNT, p);
    return p;
  }();
  return param;
}

int parse(std::string_view text, std::string* output) {
  int result = parser_parseText(FUZZ_PARSER, text, "root.G", output == nullptr ? 1 : 0, output);
  mif_reset();
  return result;
}

bool plain(const std::string& value) {
  return !value.empty() && value.front() != ' ' && value.back() != ' ' &&
         std::all_of(value.begin(), value.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Param* param = bound_param();
  std::string_view input(reinterpret_cast<const char*>(data), size);
  size_t nul = input.find('\0');
  std::string value = nul == std::string_view::npos ? "v" : std::string(input.substr(0, nul));
  std::string_view text = nul == std::string_view::npos ? input : input.substr(nul + 1);

  param->status = PARAMSTATUS_DEFINED;
  int read = parse(text, nullptr);
  map_setParamData(param, tessard::test::string_data(value.c_str()));
  param->status = PARAMSTATUS_UPDATED;
  param->synced = 0;
  std::string written;
  if (parse(text, &written) != read) abort();
  bool checked = FUZZ_ROUND_TRIP && read == 0 && plain(value) && text.find('\0') == text.npos;
  if (!checked) return 0;
  // The written file in a block of its own size, so that a read past its end is caught.
  std::unique_ptr<char[]> exact(new char[written.size()]);
  memcpy(exact.get(), written.data(), written.size());
  param->status = PARAMSTATUS_DEFINED;
  if (parse(std::string_view(exact.get(), written.size()), nullptr) != 0) {
    fprintf(stderr, "Written file does not parse again:\n%s\n", written.c_str());
    abort();
  }
  return 0;
}
