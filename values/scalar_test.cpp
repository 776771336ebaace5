#include "values/scalar.h"

#include <gtest/gtest.h>
#include <net/if.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>

namespace {

UniqueScalar make(const char* type) {
  int result = -1;
  UniqueScalar scalar(scalar_create(type, &result));
  EXPECT_EQ(result, 0) << type;
  return scalar;
}

// The text form, or "<-1>" style markers when printing fails.
std::string text_of(const CustomScalar* scalar) {
  int result = 0;
  char* text = scalar_getString(scalar, &result);
  if (text == nullptr) return "<" + std::to_string(result) + ">";
  std::string copy(text);
  free(text);
  return copy;
}

// Values move between the record and the heap as they grow and shrink across the inline size.
TEST(ScalarStorage, TextsAcrossTheInlineSizeReadBack) {
  UniqueScalar scalar = make("string");
  for (size_t length : {15, 16, 40, 3, 15, 17, 16, 0, 90}) {
    std::string text(length, static_cast<char>('a' + length % 26));
    int result = -1;
    scalar_setFromString(scalar.get(), text.c_str(), &result);
    ASSERT_EQ(result, 0);
    EXPECT_EQ(text_of(scalar.get()), text) << length;
  }
}

using ParseCase = std::tuple<const char*, const char*, const char*>;
class ScalarParse : public testing::TestWithParam<ParseCase> {};

// A refused text leaves the value at the type's default (the first entry, zero or empty); an
// accepted one prints as given.
TEST_P(ScalarParse, AcceptsOrRefusesText) {
  auto [type, text, printed] = GetParam();
  UniqueScalar scalar = make(type);
  int result = 1;
  scalar_setFromString(scalar.get(), text, &result);
  EXPECT_EQ(result, printed[0] == '=' ? -1 : 0);
  EXPECT_EQ(text_of(scalar.get()), printed[0] == '=' ? printed + 1 : printed);
}

// type, text, printed text; "=" and the default when the text is refused
INSTANTIATE_TEST_SUITE_P(
    Types, ScalarParse,
    testing::Values(
        ParseCase{"string", "a b\tc", "a b\tc"}, ParseCase{"string", "", ""},
        ParseCase{"int", "12abc", "12"}, ParseCase{"int", "abc", "0"},
        ParseCase{"int", " -7", "-7"}, ParseCase{"int", "99999999999", "2147483647"},
        ParseCase{"ip", "1.2.3.4 and more", "1.2.3.4"},
        ParseCase{"ip", "255.255.255.255", "255.255.255.255"},
        ParseCase{"ip", "256.0.0.1", "=0.0.0.0"}, ParseCase{"ip", "1.2.3", "=0.0.0.0"},
        ParseCase{"ip", "1.2.3.-1", "=0.0.0.0"}, ParseCase{"ip", "1.2..4", "=0.0.0.0"},
        ParseCase{"eth_addr", "AA:bb:0c:1:2:3", "aa:bb:0c:01:02:03"},
        ParseCase{"eth_addr", "ff:ff:ff:ff:ff:ff", "ff:ff:ff:ff:ff:ff"},
        ParseCase{"eth_addr", "100:0:0:0:0:0", "=00:00:00:00:00:00"},
        ParseCase{"eth_addr", "1-2-3-4-5-6", "=00:00:00:00:00:00"},
        // Enumerations share one parser: entries match exactly, case and whole text.
        ParseCase{"cenum_on_off", "ON", "=off"}, ParseCase{"compression", "very high", "very high"},
        ParseCase{"compression", "very", "=min"}, ParseCase{"compression", "medium ", "=min"},
        ParseCase{"ipaddr", "::1", "::1"}, ParseCase{"ipaddr", "fe80::1%lo", "fe80::1%lo"},
        ParseCase{"ipaddr", "10.0.0.1%lo", "10.0.0.1%lo"},
        ParseCase{"ipaddr", "fe80::1%nosuchif9", "fe80::1"},
        // A never-set "ipaddr" has family 0, which has no text form.
        ParseCase{"ipaddr", "localhost", "=<-1>"}, ParseCase{"ipaddr", "1.2.3.400", "=<-1>"},
        ParseCase{"ipaddr", "1.2.3.4:80", "=<-1>"}));

TEST(ScalarTypes, LookUpIsExactAndIpaddrKeepsTheInterfaceIndex) {
  EXPECT_EQ(scalar_findType("ipaddr"), SCALARTYPE_IPADDR);
  for (const char* name : {"IP", "String", "ip ", "", "enum"}) {
    int result = 0;
    EXPECT_EQ(scalar_create(name, &result), nullptr) << name;
    EXPECT_EQ(result, -1);
  }
  UniqueScalar scalar = make("ipaddr");
  int result = -1;
  scalar_setFromString(scalar.get(), "fe80::1%lo", &result);
  ASSERT_EQ(scalar->size, SCALAR_IPADDR_SIZE);
  int32_t head[2] = {};  // family, interface index
  memcpy(head, scalar_bytes(scalar.get()), sizeof head);
  EXPECT_EQ(head[0], 10);
  EXPECT_EQ(head[1], static_cast<int32_t>(if_nametoindex("lo")));
  EXPECT_EQ(scalar_bytes(scalar.get())[8] + scalar_bytes(scalar.get())[23], 0xfe + 0x01);
  scalar_setFromBytes(scalar.get(), nullptr, 0, &result);
  EXPECT_EQ(result, -1);
  scalar_setFromString(scalar.get(), "::2", &result);
  memcpy(head, scalar_bytes(scalar.get()), sizeof head);
  EXPECT_EQ(head[1], -1);
}

using BufferCase = std::tuple<const char*, const char*, int, const char*>;
class ScalarPrintToBuffer : public testing::TestWithParam<BufferCase> {};

TEST_P(ScalarPrintToBuffer, NeedsRoomForTheWidestText) {
  auto [type, text, capacity, printed] = GetParam();
  UniqueScalar scalar = make(type);
  int result = -1;
  scalar_setFromString(scalar.get(), text, &result);
  ASSERT_EQ(result, 0);
  std::string buffer(capacity, '#');
  int size = capacity;
  scalar_getStringToBuffer(scalar.get(), buffer.data(), &size, &result);
  EXPECT_EQ(result == 0 ? buffer.c_str() : "<" + std::to_string(result) + ">", printed);
  EXPECT_EQ(size, result == 0 ? static_cast<int>(strlen(printed)) : capacity);
}

// type, text, capacity, printed text or the result
INSTANTIATE_TEST_SUITE_P(
    Capacities, ScalarPrintToBuffer,
    testing::Values(
        BufferCase{"int", "5", 12, "5"}, BufferCase{"int", "5", 11, "<-2>"},
        BufferCase{"int", "-2147483648", 12, "-2147483648"}, BufferCase{"string", "abc", 4, "abc"},
        BufferCase{"string", "abc", 3, "<-2>"}, BufferCase{"ip", "1.2.3.4", 16, "1.2.3.4"},
        BufferCase{"ip", "1.2.3.4", 15, "<-2>"}, BufferCase{"eth_addr", "1:2:3:4:5:6", 17, "<-2>"},
        BufferCase{"ipaddr", "1.2.3.4", 15, "<-2>"}, BufferCase{"ipaddr", "::1", 45, "<-2>"},
        BufferCase{"ipaddr", "::1%lo", 46, "::1%lo"},
        // The interface name is left out when it does not fit.
        BufferCase{"ipaddr", "255.255.255.255%lo", 16, "255.255.255.255"},
        BufferCase{"ipaddr", "255.255.255.255%lo", 19, "255.255.255.255%lo"}));

using BytesCase = std::tuple<const char*, std::string, int>;
class ScalarSetFromBytes : public testing::TestWithParam<BytesCase> {};

// Accepted bytes are stored as they are; refused ones leave the value alone.
TEST_P(ScalarSetFromBytes, ChecksSizeAndContent) {
  auto [type, bytes, expected] = GetParam();
  UniqueScalar scalar = make(type);
  std::string before(reinterpret_cast<const char*>(scalar_bytes(scalar.get())), scalar->size);
  int result = 1;
  scalar_setFromBytes(scalar.get(), reinterpret_cast<const unsigned char*>(bytes.data()),
                      static_cast<int>(bytes.size()), &result);
  EXPECT_EQ(result, expected);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(scalar_bytes(scalar.get())), scalar->size),
            result == 0 ? bytes : before);
}

using std::string_literals::operator""s;
INSTANTIATE_TEST_SUITE_P(
    Types, ScalarSetFromBytes,
    testing::Values(BytesCase{"string", "ab\0"s, 0}, BytesCase{"string", "ab", -1},
                    BytesCase{"string", "", -1}, BytesCase{"int", std::string(4, '\1'), 0},
                    BytesCase{"int", std::string(3, '\1'), -1},
                    BytesCase{"ip", std::string(5, '\1'), -1},
                    BytesCase{"eth_addr", std::string(6, '\1'), 0},
                    BytesCase{"ipaddr", std::string(24, '\0'), 0},
                    BytesCase{"ipaddr", std::string(23, '\0'), -1},
                    BytesCase{"cenum_on_off", "on\0"s, 0}, BytesCase{"cenum_on_off", "On\0"s, -1},
                    BytesCase{"cenum_on_off", "on", -1}, BytesCase{"cenum_on_off", "on\0\0"s, -1}));

}  // namespace
