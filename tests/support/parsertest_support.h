// Test support for the parsers' unit tests: a fixture with a scratch directory and a group of its
// own in the process-wide parameter tree, and parameters bound to backing files.
#pragma once

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "mapping/quibmapping.h"
#include "parsers/mappinginterface.h"
#include "parsers/parserframework.h"
#include "tests/support/logcapture.h"
#include "values/legacydatarep.h"

namespace tessard::test {

inline void write_file(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline std::string read_file(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

inline bool exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

// The parameter's value as text ("<none>" unless it holds a scalar).
inline std::string value_text(Param* param, char* quote = nullptr) {
  Data* data = map_getParamData(param);
  if (data == nullptr || data->type != DATA_SCALAR) return "<none>";
  char* text = legacy_drep_getCustomString(data, quote);
  std::string result = text;
  free(text);
  return result;
}

// Gives the parameter a new "string" value, as a client's change does.
inline void client_sets(Param* param, const char* text) {
  Data* data = legacy_drep_createData();
  legacy_drep_initializeScalar(data, SCALAR_CUSTOM, "string");
  legacy_drep_setCustomFromString(data, text, nullptr);
  map_setParamData(param, data);
  param->status = PARAMSTATUS_UPDATED;
  param->synced = 0;
}

// One value changed by a client: the parameter bound at `mount` set to `value`, after which the
// file's text has `new_text` in place of the first `old_text`; null `new_text`: the file stays.
struct RewriteCase {
  const char* mount;
  const char* value;
  const char* old_text;
  const char* new_text;
};

inline void PrintTo(const RewriteCase& c, std::ostream* os) {
  *os << c.mount << "=" << ::testing::PrintToString(std::string(c.value));
}

// A value that a file holds: the parameter bound at `mount` reads `value` ("<none>": not bound),
// as a scalar of `type` when one is given.
struct Loaded {
  const char* mount;
  const char* value;
  const char* type = nullptr;
};

// Texts of random bytes for robustness rounds: mostly characters of `alphabet` (those a grammar
// cares about), now and then a NUL or any other byte; each of up to `max_length` bytes.
class RandomText {
 public:
  RandomText(std::string_view alphabet, unsigned seed) : alphabet_(alphabet), seed_(seed) {}
  std::string next(unsigned max_length) {
    std::string text;
    for (unsigned n = draw() % (max_length + 1); n > 0; --n) {
      unsigned pick = draw() % 64;
      text += pick == 0   ? '\0'
              : pick == 1 ? static_cast<char>(draw())
                          : alphabet_[draw() % alphabet_.size()];
    }
    return text;
  }
  // `base` with a few random edits: characters of the alphabet inserted or put in place of
  // others, characters deleted.
  std::string mutate(std::string_view base) {
    std::string text(base);
    for (unsigned edits = 1 + draw() % 4; edits > 0; --edits) {
      size_t at = draw() % (text.size() + 1);
      char c = alphabet_[draw() % alphabet_.size()];
      switch (draw() % 3) {
        case 0:
          text.insert(at, 1, c);
          break;
        case 1:
          if (at < text.size()) text.erase(at, 1);
          break;
        default:
          if (at < text.size()) text[at] = c;
      }
    }
    return text;
  }

 private:
  unsigned draw() { return (seed_ = seed_ * 1103515245 + 12345) >> 16; }
  std::string alphabet_;
  unsigned seed_;
};

// Runs `parse` over `text` held in a heap block of exactly its size, so that a read past the end
// of the input is caught by AddressSanitizer. Write mode when `output` is not null.
inline int run_exact(ParseFunction parse, std::string_view text, const char* group_path,
                     std::string* output) {
  std::unique_ptr<char[]> exact(new char[text.size()]);
  std::copy(text.begin(), text.end(), exact.get());
  return parser_runOnText(parse, std::string_view(exact.get(), text.size()), "(random)", group_path,
                          output == nullptr ? 1 : 0, output);
}

class ParserTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    static bool started = false;
    if (!started) parser_init();
    started = true;
  }
  void SetUp() override {
    mif_init();
    clear_captured_log();
    group_ = new_group();
    const char* base = getenv("TMPDIR");
    dir_ = std::string(base != nullptr ? base : "/tmp") + "/parsers_test.XXXXXX";
    ASSERT_NE(mkdtemp(dir_.data()), nullptr);
  }
  void TearDown() override {
    mif_reset();
    EXPECT_EQ(system(("rm -rf '" + dir_ + "'").c_str()), 0);
  }

  // A new group below the root: each test binds its parameters in groups of its own.
  static Group* new_group() {
    static int groups = 0;
    Group* root = map_getRootGroup();
    if (root == nullptr) map_addGroup("root", nullptr, &root);
    Group* group = nullptr;
    map_addGroup(("T" + std::to_string(++groups)).c_str(), root, &group);
    return group;
  }
  std::string file(const std::string& name) const { return dir_ + "/" + name; }
  // A parameter of the test's group bound to `path` by `parser` at `mount`.
  Param* param(const char* name, const std::string& path, const char* mount,
               const char* parser = "Standardparser") {
    Param* p = nullptr;
    map_createParam(name, group_, &p);
    if (parser != nullptr) map_setParamOption("parser", parser, p);
    if (!path.empty()) map_setParamOption("file", path.c_str(), p);
    map_setParamOption("mount", mount, p);
    return p;
  }
  int invoke(Param* p, int readonly) { return parser_invokeForParam(p, group_->path, readonly); }
  // For a parser that is not registered at start: the token types and that parser alone (call
  // from SetUpTestSuite instead of the fixture's own).
  static void start_alone(int (*register_parser)()) {
    static bool started = false;
    if (!started) {
      token_init();
      register_parser();
    }
    started = true;
  }

  // Reads every value of `expected` from the file at `path`, which holds `text`, through `parser`;
  // the read leaves the file as it is.
  void check_loads(const std::string& path, const char* parser, const std::string& text,
                   std::initializer_list<Loaded> expected) {
    for (const Loaded& loaded : expected) {
      Param* p = param("p", path, loaded.mount, parser);
      ASSERT_EQ(invoke(p, 1), 0) << loaded.mount;
      EXPECT_EQ(value_text(p), loaded.value) << loaded.mount;
      if (loaded.type != nullptr) {
        EXPECT_STREQ(legacy_drep_getTypeName(map_getParamData(p)), loaded.type) << loaded.mount;
      }
    }
    EXPECT_EQ(read_file(path), text);
  }

  // Changes a value as `c` says in the file at `path`, which holds `text`, through `parser`, and
  // compares the whole file; a written value is then read back into a fresh parameter.
  void check_rewrite(const RewriteCase& c, const std::string& path, const char* parser,
                     const std::string& text) {
    write_file(path, text);
    Param* p = param("p", path, c.mount, parser);
    std::string expected = text;
    if (c.new_text != nullptr) {
      expected.replace(expected.find(c.old_text), strlen(c.old_text), c.new_text);
    }
    client_sets(p, c.value);
    EXPECT_EQ(invoke(p, 0), 0);
    EXPECT_EQ(read_file(path), expected);
    EXPECT_EQ(p->status, c.new_text != nullptr ? PARAMSTATUS_STORED : PARAMSTATUS_UPDATED);
    if (c.new_text == nullptr) return;
    group_ = new_group();
    Param* again = param("p", path, c.mount, parser);
    ASSERT_EQ(invoke(again, 1), 0);
    EXPECT_EQ(value_text(again), c.value);
  }
  int temp_files() const {
    int count = 0;
    DIR* dir = opendir(dir_.c_str());
    while (dirent* entry = readdir(dir)) count += std::string(entry->d_name).ends_with(".temp");
    closedir(dir);
    return count;
  }

  // Robustness rounds through `parse`: random texts, or random edits of `base` when one is given.
  // Each runs in read mode and then in write mode with `changed` (a parameter of the test's group
  // bound into such files) set to `value` by a client. Both modes must agree; a successful write
  // must read again and write itself unchanged once no value is changed, unless the text holds one
  // of the `unstable` characters. Returns how many rounds parsed successfully.
  int random_rounds(ParseFunction parse, std::string_view alphabet, Param* changed,
                    const char* value, std::string_view base = {}, std::string_view unstable = {},
                    int rounds = 2000) {
    RandomText random(alphabet, 4711);
    int succeeded = 0;
    for (int round = 0; round < rounds && !::testing::Test::HasFailure(); ++round) {
      std::string text = base.empty() ? random.next(80) : random.mutate(base), once, twice;
      changed->status = PARAMSTATUS_DEFINED;
      int read = run_exact(parse, text, group_->path, nullptr);
      client_sets(changed, value);
      EXPECT_EQ(run_exact(parse, text, group_->path, &once), read)
          << ::testing::PrintToString(text);
      mif_reset();
      if (read != 0) continue;
      ++succeeded;
      if (text.find_first_of(unstable) != std::string::npos) continue;
      changed->status = PARAMSTATUS_LOADED;
      EXPECT_EQ(run_exact(parse, once, group_->path, &twice), 0) << ::testing::PrintToString(text);
      EXPECT_EQ(twice, once) << ::testing::PrintToString(text);
      mif_reset();
    }
    return succeeded;
  }

  // Rounds of random edits of `base`, malformed ones included (unclosed quotes, repeated keys,
  // NUL bytes): once `changed` is set to `value` and the text rewritten, each of `others` reads
  // from the written text what it read from the original, and `changed` the value when it was
  // written. Returns the rounds whose rewrite changed the text.
  int others_kept_rounds(ParseFunction parse, std::string_view alphabet, Param* changed,
                         const char* value, const std::vector<Param*>& others,
                         std::string_view base, int rounds = 1500) {
    RandomText random(alphabet, 2024);
    auto read_others = [&](const std::string& text) {
      legacy_drep_resetData(&changed->value);
      changed->status = PARAMSTATUS_DEFINED;
      for (Param* p : others) {
        legacy_drep_resetData(&p->value);
        p->status = PARAMSTATUS_DEFINED;
      }
      run_exact(parse, text, group_->path, nullptr);
      mif_reset();
      std::vector<std::string> values;
      for (Param* p : others) values.push_back(value_text(p));
      return values;
    };
    int rewritten = 0;
    for (int round = 0; round < rounds && !::testing::Test::HasFailure(); ++round) {
      std::string text = random.mutate(base), written;
      std::vector<std::string> before = read_others(text);
      client_sets(changed, value);
      bool refused = run_exact(parse, text, group_->path, &written) != 0 ||
                     parser_lastInputMalformed();  // the file would be left as it is
      mif_reset();
      if (refused) continue;
      bool stored = changed->status == PARAMSTATUS_STORED;
      rewritten += written != text;
      EXPECT_EQ(read_others(written), before)
          << ::testing::PrintToString(text) << " -> " << ::testing::PrintToString(written);
      if (stored) {
        EXPECT_EQ(value_text(changed), value)
            << ::testing::PrintToString(text) << " -> " << ::testing::PrintToString(written);
      }
    }
    return rewritten;
  }

  Group* group_ = nullptr;
  std::string dir_;
};

}  // namespace tessard::test
