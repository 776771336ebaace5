#include "values/legacydatarep.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>

#include "base/handles.h"

namespace {

using namespace std::string_literals;

// A value written in a short notation: [a,b] a list, {k:a,l:b} a hash, type=text a custom
// scalar, # an integer scalar, - an empty value; an empty text gives no value at all.
UniqueData tree(const char** text) {
  char c = **text;
  if (c == '\0') return UniqueData();
  UniqueData data(legacy_drep_createData());
  if (c == '-' || c == '#') {
    if (c == '#') legacy_drep_initializeScalar(data.get(), SCALAR_INT, nullptr);
    ++*text;
    return data;
  }
  if (c != '[' && c != '{') {
    size_t type = strcspn(*text, "="), end = strcspn(*text, ",]}");
    std::string type_name(*text, type), value(*text + type + 1, end - type - 1);
    *text += end;
    EXPECT_EQ(legacy_drep_initializeScalar(data.get(), SCALAR_CUSTOM, type_name.c_str()), 0);
    EXPECT_EQ(legacy_drep_setCustomFromString(data.get(), value.c_str(), nullptr), 0) << value;
    return data;
  }
  if (c == '[') legacy_drep_initializeList(data.get());
  if (c == '{') legacy_drep_initializeHash(data.get());
  for (++*text; **text != ']' && **text != '}'; *text += **text == ',' ? 1 : 0) {
    std::string key(*text, c == '{' ? strcspn(*text, ":") + 1 : 0);
    *text += key.size();
    Data* item = tree(text).release();
    if (c == '[') legacy_drep_addToList(data.get(), item);
    if (c == '{') legacy_drep_setHashValue(data.get(), item, key.substr(0, key.size() - 1).c_str());
  }
  ++*text;
  return data;
}

UniqueData tree(const std::string& text) {
  const char* at = text.c_str();
  return tree(&at);
}

// The serialisation as a string, or "<none>" with length 0.
std::string bytes_of(const Data* data) {
  int length = -1;
  std::unique_ptr<unsigned char, FreeDeleter> bytes(legacy_drep_buildBytesFromData(data, &length));
  if (bytes == nullptr) return length == 0 ? "<none>" : "<bad length>";
  return std::string(reinterpret_cast<char*>(bytes.get()), length);
}

// Parses from a heap block of exactly the input's size, so that the sanitizer sees any read past
// it; gives the re-serialised result (or "<refused>") and the consumed count.
std::pair<std::string, int> parse(const std::string& input) {
  std::unique_ptr<unsigned char, FreeDeleter> block(
      static_cast<unsigned char*>(malloc(input.size())));
  std::copy(input.begin(), input.end(), block.get());
  int consumed = -1;
  UniqueData data(legacy_drep_buildDataFromBytesChecked(block.get(), input.size(), &consumed));
  return {data == nullptr ? "<refused>" : bytes_of(data.get()), consumed};
}

std::pair<std::string, int> whole(const std::string& bytes) {
  return {bytes, static_cast<int>(bytes.size())};
}

std::string u16(int value) {
  return std::string{static_cast<char>(value & 0xff), static_cast<char>(value >> 8)};
}

// Decoding is covered by the random trees of CheckedParse. A hash keeps insertion order; only
// custom scalars are serialised.
TEST(ByteFormat, EncodesToTheBytes) {
  EXPECT_EQ(bytes_of(tree("{b:yes_no=yes,a:[int=-1,{}]}").get()),
            u16(56) + u16(4) + "HASH" + u16(1) + "b" + u16(15) + u16(6) + "yes_no" + u16(3) +
                "yes" + u16(1) + "a" + u16(27) + u16(4) + "LIST" + u16(11) + u16(3) + "int" +
                u16(2) + "-1" + u16(8) + u16(4) + "HASH");
  for (const char* value : {"[#]", "{k:-}", "-", ""}) {
    EXPECT_EQ(bytes_of(tree(value).get()), "<none>") << value;
  }
}

TEST(ByteFormatLimits, ElementsUpTo65535Bytes) {
  // the value around a long text or key, the text's length, the key's, whether it fits
  const std::tuple<const char*, size_t, size_t, bool> cases[] = {
      {"%s", 65523, 0, true},           {"%s", 65524, 0, false},
      {"[%s]", 65515, 0, true},         {"[%s]", 65516, 0, false},
      {"{%s:string=}", 0, 65513, true}, {"{%s:string=}", 0, 65514, false}};
  for (auto [form, text_length, key_length, fits] : cases) {
    std::string inner =
        key_length > 0 ? std::string(key_length, 'k') : "string=" + std::string(text_length, 'v');
    std::string value = form;
    value.replace(value.find("%s"), 2, inner);
    std::string bytes = bytes_of(tree(value).get());
    EXPECT_TRUE(fits ? bytes.size() == 65535 : bytes == "<none>") << form << text_length;
    EXPECT_EQ(parse(bytes), fits ? whole(bytes) : parse(""));
  }
}

TEST(ByteFormatLimits, RepeatedKeyReplacesTheEarlierValueInItsPlace) {
  std::string entry1 = u16(1) + "k" + u16(10) + u16(3) + "int" + u16(1) + "1";
  std::string entry2 = u16(1) + "k" + u16(10) + u16(3) + "int" + u16(1) + "2";
  EXPECT_EQ(parse(u16(34) + u16(4) + "HASH" + entry1 + entry2),
            (std::pair{u16(21) + u16(4) + "HASH" + entry2, 34}));
}

// Unknown types and texts, and lengths that point outside their parent (truncations are covered
// by CheckedParse).
TEST(ByteFormat, RefusesBadTypesAndLyingLengths) {
  for (const std::string& bytes :
       {u16(11) + u16(2) + "IP" + u16(3) + "abc",  // type names are exact
        u16(12) + u16(2) + "ip" + u16(4) + "1.2.",
        u16(19) + u16(4) + "LIST" + u16(11) + u16(3) + "foo" + u16(2) + "ab",
        u16(20) + u16(4) + "LIST" + u16(15) + u16(6) + "string" + u16(3) + "abc",
        u16(11) + u16(4) + "HASH" + u16(1) + "k" + u16(8) + u16(4) + "LIST",
        u16(4) + u16(4) + "LIST"}) {
    EXPECT_EQ(parse(bytes), (std::pair{"<refused>"s, 0}));
  }
}

// Random valid trees of every container and several scalar types.
UniqueData random_tree(std::mt19937& rng, int depth) {
  const char* scalar =
      "string=a \"quoted\" text,string=,int=-42,ip=10.1.2.3,eth_addr=0:1:2:a:b:c,"
      "compression=very high,ipaddr=fe80::1%lo,ipaddr=192.168.0.1";
  int pick = static_cast<int>(rng() % (depth > 0 ? 10 : 8));
  for (int skip = pick; skip > 0 && pick < 8; --skip) scalar = strchr(scalar, ',') + 1;
  if (pick < 8) return tree(&scalar);
  UniqueData data = tree(pick == 8 ? "[]" : "{}");
  for (int i = static_cast<int>(rng() % 5); i > 0; --i) {
    Data* child = random_tree(rng, depth - 1).release();
    if (pick == 8) legacy_drep_addToList(data.get(), child);
    if (pick == 9) legacy_drep_setHashValue(data.get(), child, std::to_string(rng() % 8).c_str());
  }
  return data;
}

// Valid trees copy and parse back alike (bytes after the element ignored); every truncation is
// refused; input accepted after random damage was read within its bounds (the sanitizer watches).
TEST(CheckedParse, RoundTripsAndRefusesTruncation) {
  std::mt19937 rng(20240611);
  int accepted = 0;
  for (int round = 0; round < 200; ++round) {
    UniqueData value = random_tree(rng, 4);
    std::string bytes = bytes_of(value.get());
    ASSERT_NE(bytes, "<none>");
    EXPECT_EQ(bytes_of(UniqueData(legacy_drep_copyData(value.get())).get()), bytes);
    EXPECT_EQ(parse(bytes + "trailing"), whole(bytes));
    for (size_t cut = 0; cut < bytes.size(); ++cut) {
      EXPECT_EQ(parse(bytes.substr(0, cut)).first, "<refused>");
    }
    for (int mutation = 0; mutation < 50; ++mutation) {
      std::string mutated = bytes;
      for (int n = 1 + static_cast<int>(rng() % 3); n > 0; --n) {
        mutated[rng() % mutated.size()] = static_cast<char>(rng());
      }
      auto [result, consumed] = parse(mutated);
      accepted += result != "<refused>";
      EXPECT_LE(consumed, static_cast<int>(mutated.size()));
    }
  }
  EXPECT_GT(accepted, 100);  // the mutations must not all be trivially refused
}

TEST(CheckedParse, DeepestNestingRoundTripsAndCopies) {
  constexpr int kDepth = 65535 / 8;
  std::string bytes;
  for (int level = 0; level < kDepth; ++level) bytes += u16(8 * (kDepth - level)) + u16(4) + "LIST";
  int consumed = 0;
  UniqueData data(legacy_drep_buildDataFromBytesChecked(
      reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), &consumed));
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(bytes_of(UniqueData(legacy_drep_copyData(data.get())).get()), bytes);
}

// Copies are compared byte for byte by CheckedParse; here the quote flag and an unset value.
TEST(DataTree, CopyKeepsTheFlagAndTakesAnUnsetAddress) {
  UniqueData value = tree("string=x");
  const char quote = '"';
  legacy_drep_setCustomFromString(value.get(), "z", &quote);
  EXPECT_EQ(UniqueData(legacy_drep_copyData(value.get()))->customFlag, '"');
  // A never-set "ipaddr" has no text form; copying it must not end the process.
  UniqueData ipaddr = tree("-");
  legacy_drep_initializeScalar(ipaddr.get(), SCALAR_CUSTOM, "ipaddr");
  EXPECT_NE(UniqueData(legacy_drep_copyData(ipaddr.get())), nullptr);
}

TEST(DataTree, ListTailAndWalkSurviveDeletion) {
  UniqueData list = tree("[int=1,int=2,int=3]");
  Data* first = legacy_drep_getFirstOfList(list.get());
  Data* second = legacy_drep_getNextToInList(list.get(), first);
  Data* third = legacy_drep_getNextToInList(list.get(), second);
  EXPECT_EQ(legacy_drep_deleteListItem(list.get(), second), 0);
  EXPECT_EQ(legacy_drep_getNextToInList(list.get(), first), third);
  EXPECT_EQ(legacy_drep_deleteListItem(list.get(), third), 0);  // the tail
  legacy_drep_addToList(list.get(), tree("int=4").release());
  EXPECT_EQ(bytes_of(list.get()), bytes_of(tree("[int=1,int=4]").get()));
  UniqueData stranger = tree("int=1");
  EXPECT_EQ(legacy_drep_getNextToInList(list.get(), stranger.get()), nullptr);
  EXPECT_EQ(legacy_drep_deleteListItem(list.get(), stranger.get()), 0);  // not ours: kept
}

// A refused text stores no flag; a value becomes a scalar only once; only scalars print; only
// hashes take keys.
TEST(DataTree, WrongOperationsAreRefused) {
  UniqueData on_off = tree("cenum_on_off=on");
  const char flag = '\'';
  EXPECT_EQ(legacy_drep_setCustomFromString(on_off.get(), "ON", &flag), -1);
  EXPECT_EQ(on_off->customFlag, 0);
  EXPECT_EQ(legacy_drep_initializeScalar(on_off.get(), SCALAR_INT, nullptr), -1);
  char buffer[3];
  EXPECT_EQ(legacy_drep_getCustomStringToBuffer(tree("[]").get(), buffer, 3), -1);
  EXPECT_EQ(legacy_drep_setHashValue(tree("[]").get(), on_off.get(), "x"), nullptr);
}

// Out of range values move to the nearest allowed value (a tie goes up).
TEST(RangeCheck, MovesToTheNearestAllowedValue) {
  const char* const ranges = "range=1,5-7,10-";
  const char* const limits = "int:maxlength=3,min=0,max=100";
  // constraint, value, result, value after the check
  const std::tuple<const char*, int, int, int> cases[] = {
      {ranges, 3, -1, 5},           {ranges, 8, -1, 7},
      {ranges, 0, -1, 1},           {ranges, 12, 0, 12},
      {"range=1, 5 - 7", 9, -1, 7}, {"range= 5 -7", 6, 0, 6},
      {"range=-10--5", -3, -1, -5}, {"range=x", 3, -1, INT_MAX},
      {"range=1-3,x", 5, -1, 3},    {"min=5", 4, -1, 5},
      {limits, 101, -1, 100},       {limits, -1, -1, 0},
      {"max=10", 11, -1, 10},       {"int:maxlength=3", 5000, 0, 5000}};  // not a max=
  for (auto [constraint, value, result, corrected] : cases) {
    EXPECT_EQ(legacy_drep_checkRange(constraint, &value), result) << constraint;
    EXPECT_EQ(value, corrected) << constraint;
  }
}

}  // namespace
