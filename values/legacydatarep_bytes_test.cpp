#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>

#include "base/handles.h"
#include "tests/support/logcapture.h"
#include "values/legacydatarep.h"

namespace {

using namespace std::string_literals;

// The serialisation as a string, or "<none>" with length 0.
std::string bytes_of(const Data* data) {
  int length = -1;
  std::unique_ptr<unsigned char, FreeDeleter> bytes(legacy_drep_buildBytesFromData(data, &length));
  if (bytes == nullptr) {
    return length == 0 ? "<none>" : "<bad length>";
  }
  return std::string(reinterpret_cast<char*>(bytes.get()), length);
}

// Parses from a heap block of exactly the input's size, so that the sanitizer sees any read past
// it. Returns the re-serialised result and the consumed count.
struct Parsed {
  std::string bytes;
  int consumed;
  bool operator==(const Parsed&) const = default;
};

void PrintTo(const Parsed& parsed, std::ostream* out) {
  *out << testing::PrintToString(parsed.bytes) << " consumed " << parsed.consumed;
}

Parsed parse(const std::string& input, bool checked) {
  std::unique_ptr<unsigned char, FreeDeleter> block(
      static_cast<unsigned char*>(malloc(input.size())));
  std::copy(input.begin(), input.end(), block.get());
  int consumed = -1;
  UniqueData data(checked
                      ? legacy_drep_buildDataFromBytesChecked(block.get(), input.size(), &consumed)
                      : legacy_drep_buildDataFromBytes(block.get(), &consumed));
  if (data == nullptr) {
    return {"<refused>", consumed};
  }
  return {bytes_of(data.get()), consumed};
}

UniqueData scalar(const char* type, const char* text) {
  UniqueData data(legacy_drep_createData());
  legacy_drep_initializeScalar(data.get(), SCALAR_CUSTOM, type);
  EXPECT_EQ(legacy_drep_setCustomFromString(data.get(), text, nullptr), 0) << type << text;
  return data;
}

UniqueData empty(uint32_t type) {
  UniqueData data(legacy_drep_createData());
  if (type == DATA_LIST) {
    legacy_drep_initializeList(data.get());
  }
  if (type == DATA_HASH) {
    legacy_drep_initializeHash(data.get());
  }
  return data;
}

std::string u16(int value) {
  return std::string{static_cast<char>(value & 0xff), static_cast<char>(value >> 8)};
}

// The examples of the format as bytes: 08 00 04 00 "LIST" and 0F 00 06 00 "string" 03 00 "abc".
const std::string kEmptyList = "\x08\x00\x04\x00LIST"s;
const std::string kEmptyHash = "\x08\x00\x04\x00HASH"s;
const std::string kStringAbc = "\x0f\x00\x06\x00string\x03\x00"s + "abc";

TEST(ByteFormat, MatchesTheDocumentedExamples) {
  EXPECT_EQ(bytes_of(empty(DATA_LIST).get()), kEmptyList);
  EXPECT_EQ(bytes_of(empty(DATA_HASH).get()), kEmptyHash);
  EXPECT_EQ(bytes_of(scalar("string", "abc").get()), kStringAbc);
  for (const std::string& element : {kEmptyList, kEmptyHash, kStringAbc}) {
    EXPECT_EQ(parse(element, true), (Parsed{element, static_cast<int>(element.size())}));
    EXPECT_EQ(parse(element, false), (Parsed{element, static_cast<int>(element.size())}));
  }
}

TEST(ByteFormat, HashKeepsInsertionOrder) {
  UniqueData hash = empty(DATA_HASH);
  legacy_drep_setHashValue(hash.get(), scalar("yes_no", "yes").release(), "b");
  UniqueData list = empty(DATA_LIST);
  legacy_drep_addToList(list.get(), scalar("int", "-1").release());
  legacy_drep_addToList(list.get(), empty(DATA_HASH).release());
  legacy_drep_setHashValue(hash.get(), list.release(), "a");
  std::string expected = u16(56) + u16(4) + "HASH" +                                    //
                         u16(1) + "b" + u16(15) + u16(6) + "yes_no" + u16(3) + "yes" +  //
                         u16(1) + "a" + u16(27) + u16(4) + "LIST" +                     //
                         u16(11) + u16(3) + "int" + u16(2) + "-1" + kEmptyHash;
  EXPECT_EQ(bytes_of(hash.get()), expected);
  EXPECT_EQ(parse(expected, true), (Parsed{expected, 56}));
  // A repeated key replaces the earlier value in its place.
  std::string entry1 = u16(1) + "k" + u16(10) + u16(3) + "int" + u16(1) + "1";
  std::string entry2 = u16(1) + "k" + u16(10) + u16(3) + "int" + u16(1) + "2";
  std::string repeated = u16(34) + u16(4) + "HASH" + entry1 + entry2;
  std::string once = u16(21) + u16(4) + "HASH" + entry2;
  EXPECT_EQ(parse(repeated, true), (Parsed{once, 34}));
}

TEST(ByteFormat, ElementsUpTo65535Bytes) {
  struct Case {
    const char* what;
    size_t keyLength;  // for a hash
    size_t textLength;
    uint32_t container;
    bool fits;
  } cases[] = {{"scalar", 0, 65523, DATA_NONE, true},   {"scalar", 0, 65524, DATA_NONE, false},
               {"list", 0, 65515, DATA_LIST, true},     {"list", 0, 65516, DATA_LIST, false},
               {"hash key", 65513, 0, DATA_HASH, true}, {"hash key", 65514, 0, DATA_HASH, false}};
  for (const Case& c : cases) {
    tessard::test::clear_captured_log();
    UniqueData value = scalar("string", std::string(c.textLength, 'v').c_str());
    UniqueData top = c.container == DATA_NONE ? std::move(value) : empty(c.container);
    if (c.container == DATA_LIST) {
      legacy_drep_addToList(top.get(), value.release());
    }
    std::string key(c.keyLength, 'k');
    if (c.container == DATA_HASH) {
      legacy_drep_setHashValue(top.get(), value.release(), key.c_str());
    }
    std::string bytes = bytes_of(top.get());
    if (!c.fits) {
      EXPECT_EQ(bytes, "<none>") << c.what;
      // Only a scalar's own lengths are reported; containers fail without a message.
      int expectedLogs = c.container == DATA_NONE ? 1 : 0;
      EXPECT_EQ(tessard::test::count_logged("Length too long in help_scalarToByteString."),
                expectedLogs);
      continue;
    }
    ASSERT_EQ(bytes.size(), 65535u) << c.what;
    EXPECT_EQ(bytes.substr(0, 2), "\xff\xff");
    EXPECT_EQ(parse(bytes, true), (Parsed{bytes, 65535}));
  }
}

TEST(ByteFormat, OnlyCustomScalarsAreSerialised) {
  UniqueData list = empty(DATA_LIST);
  UniqueData number(legacy_drep_createData());
  legacy_drep_initializeScalar(number.get(), SCALAR_INT, nullptr);
  legacy_drep_addToList(list.get(), number.release());
  EXPECT_EQ(bytes_of(list.get()), "<none>");
  UniqueData text(legacy_drep_createData());
  legacy_drep_initializeScalar(text.get(), SCALAR_STRING, nullptr);
  legacy_drep_setString(text.get(), "x");
  EXPECT_EQ(bytes_of(text.get()), "<none>");
  UniqueData hash = empty(DATA_HASH);
  legacy_drep_setHashValue(hash.get(), legacy_drep_createData(), "k");
  EXPECT_EQ(bytes_of(hash.get()), "<none>");
  EXPECT_EQ(bytes_of(empty(DATA_NONE).get()), "<none>");
  EXPECT_EQ(bytes_of(nullptr), "<none>");
}

TEST(ByteFormat, UnknownTypesAndTextsAreRefused) {
  const std::string cases[] = {
      u16(11) + u16(2) + "IP" + u16(3) + "abc",  // type names are exact
      u16(12) + u16(2) + "ip" + u16(4) + "1.2.",
      u16(19) + u16(4) + "LIST" + u16(11) + u16(3) + "foo" + u16(2) + "ab"};
  for (const std::string& bytes : cases) {
    EXPECT_EQ(parse(bytes, true).bytes, "<refused>");
    EXPECT_EQ(parse(bytes, false).bytes, "<refused>");
  }
}

TEST(CheckedParse, RefusesLengthsPastTheEnd) {
  const std::string cases[] = {
      "",
      u16(8) + "\x04",                                        // header cut
      u16(9) + u16(4) + "LIST",                               // total past the end
      u16(8) + u16(5) + "LIST",                               // name past the end
      u16(15) + u16(6) + "string" + u16(4) + "abc",           // text past the end
      u16(11) + u16(6) + "string\x03",                        // text length cut
      u16(20) + u16(4) + "LIST" + kStringAbc,                 // child larger than parent
      u16(12) + u16(4) + "HASH" + u16(10) + "kk",             // key past the parent
      u16(9) + u16(4) + "HASH\x01",                           // key length cut
      u16(11) + u16(4) + "HASH" + u16(1) + "k" + kEmptyList,  // value past the parent
      u16(4) + u16(4) + "LIST",                               // total inside its own header
      u16(11) + u16(4) + "LIST" + u16(8) + "\x04"};           // nested header cut
  for (const std::string& bytes : cases) {
    EXPECT_EQ(parse(bytes, true), (Parsed{"<refused>", 0})) << testing::PrintToString(bytes);
  }
}

// Random valid trees of every container and several scalar types.
UniqueData random_tree(std::mt19937& rng, int depth) {
  static const char* const kScalars[][2] = {{"string", "a \"quoted\" text"},
                                            {"string", ""},
                                            {"int", "-42"},
                                            {"ip", "10.1.2.3"},
                                            {"eth_addr", "0:1:2:a:b:c"},
                                            {"compression", "very high"},
                                            {"ipaddr", "fe80::1%lo"},
                                            {"ipaddr", "192.168.0.1"}};
  int pick = static_cast<int>(rng() % (depth > 0 ? 10 : 8));
  if (pick < 8) {
    return scalar(kScalars[pick][0], kScalars[pick][1]);
  }
  UniqueData data = empty(pick == 8 ? DATA_LIST : DATA_HASH);
  for (int i = static_cast<int>(rng() % 5); i > 0; --i) {
    Data* child = random_tree(rng, depth - 1).release();
    if (pick == 8) {
      legacy_drep_addToList(data.get(), child);
    } else {
      legacy_drep_setHashValue(data.get(), child, std::to_string(rng() % 8).c_str());
    }
  }
  return data;
}

TEST(CheckedParse, AgreesWithTheUncheckedParserOnValidInput) {
  std::mt19937 rng(20240611);
  for (int round = 0; round < 300; ++round) {
    std::string bytes = bytes_of(random_tree(rng, 4).get());
    ASSERT_NE(bytes, "<none>");
    Parsed expected{bytes, static_cast<int>(bytes.size())};
    EXPECT_EQ(parse(bytes, false), expected);
    EXPECT_EQ(parse(bytes, true), expected);
    EXPECT_EQ(parse(bytes + "trailing", true), expected);  // bytes after the element are ignored
  }
}

TEST(CheckedParse, RefusesEveryTruncationAndSurvivesMutation) {
  std::mt19937 rng(7);
  int accepted = 0;
  for (int round = 0; round < 200; ++round) {
    std::string bytes = bytes_of(random_tree(rng, 4).get());
    for (size_t cut = 0; cut < bytes.size(); ++cut) {
      EXPECT_EQ(parse(bytes.substr(0, cut), true).bytes, "<refused>");
    }
    for (int mutation = 0; mutation < 50; ++mutation) {
      std::string mutated = bytes;
      for (int n = 1 + static_cast<int>(rng() % 3); n > 0; --n) {
        mutated[rng() % mutated.size()] = static_cast<char>(rng());
      }
      Parsed checked = parse(mutated, true);
      if (checked.bytes == "<refused>") {
        continue;
      }
      // Accepted input was read only inside its bounds, so the trusting parser must agree.
      ++accepted;
      EXPECT_LE(checked.consumed, static_cast<int>(mutated.size()));
      EXPECT_EQ(parse(mutated, false), checked);
    }
  }
  EXPECT_GT(accepted, 100);  // the mutations must not all be trivially refused
}

TEST(ByteFormat, DeepestNestingRoundTrips) {
  constexpr int kDepth = 65535 / 8;
  std::string bytes;
  for (int level = 0; level < kDepth; ++level) {
    int total = 8 * (kDepth - level);
    bytes += u16(total) + u16(4) + "LIST";
  }
  EXPECT_EQ(parse(bytes, true), (Parsed{bytes, 8 * kDepth}));
  auto* raw = reinterpret_cast<const unsigned char*>(bytes.data());
  int consumed = 0;
  UniqueData data(legacy_drep_buildDataFromBytes(raw, &consumed));
  ASSERT_NE(data, nullptr);
  UniqueData copy(legacy_drep_copyData(data.get()));
  EXPECT_EQ(bytes_of(copy.get()), bytes);
}

}  // namespace
