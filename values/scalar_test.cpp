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

// A refused text leaves the value at the type's default (the first entry, zero or empty; a
// never-set "ipaddr" has family 0, which has no text form); an accepted one prints as given.
// Enumerations share one parser: entries match exactly, case and whole text.
TEST(ScalarParse, AcceptsOrRefusesText) {
  // type, text, printed text; "=" and the default when the text is refused
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"int", "12abc", "12"},
      {"int", "abc", "0"},
      {"int", " -7", "-7"},
      {"int", "99999999999", "2147483647"},
      {"ip", "1.2.3.4 and more", "1.2.3.4"},
      {"ip", "255.255.255.255", "255.255.255.255"},
      {"ip", "256.0.0.1", "=0.0.0.0"},
      {"ip", "1.2.3", "=0.0.0.0"},
      {"eth_addr", "AA:bb:0c:1:2:3", "aa:bb:0c:01:02:03"},
      {"eth_addr", "ff:ff:ff:ff:ff:ff", "ff:ff:ff:ff:ff:ff"},
      {"eth_addr", "100:0:0:0:0:0", "=00:00:00:00:00:00"},
      {"cenum_on_off", "ON", "=off"},
      {"compression", "very high", "very high"},
      {"compression", "very", "=min"},
      {"ipaddr", "fe80::1%lo", "fe80::1%lo"},
      {"ipaddr", "10.0.0.1%lo", "10.0.0.1%lo"},
      {"ipaddr", "fe80::1%nosuchif9", "fe80::1"},
      {"ipaddr", "1.2.3.400", "=<-1>"},
      {"ipaddr", "1.2.3.4:80", "=<-1>"}};
  for (auto [type, text, printed] : cases) {
    UniqueScalar scalar = make(type);
    int result = 1;
    scalar_setFromString(scalar.get(), text, &result);
    EXPECT_EQ(result, printed[0] == '=' ? -1 : 0) << text;
    EXPECT_EQ(text_of(scalar.get()), printed[0] == '=' ? printed + 1 : printed);
  }
}

TEST(ScalarTypes, LookUpIsExactAndIpaddrKeepsTheInterfaceIndex) {
  for (const char* name : {"IP", "ip ", "enum"}) {
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
  scalar_setFromString(scalar.get(), "::2", &result);
  memcpy(head, scalar_bytes(scalar.get()), sizeof head);
  EXPECT_EQ(head[1], -1);
}

// A text is printed only into a buffer with room for the type's widest text; the interface name
// of an "ipaddr" is left out when it does not fit.
TEST(ScalarPrintToBuffer, NeedsRoomForTheWidestText) {
  // type, text, capacity, printed text or the result
  const std::tuple<const char*, const char*, int, const char*> cases[] = {
      {"int", "5", 12, "5"},
      {"int", "5", 11, "<-2>"},
      {"string", "abc", 4, "abc"},
      {"string", "abc", 3, "<-2>"},
      {"ip", "1.2.3.4", 16, "1.2.3.4"},
      {"ip", "1.2.3.4", 15, "<-2>"},
      {"eth_addr", "1:2:3:4:5:6", 17, "<-2>"},
      {"ipaddr", "1.2.3.4", 15, "<-2>"},
      {"ipaddr", "::1", 45, "<-2>"},
      {"ipaddr", "::1%lo", 46, "::1%lo"},
      {"ipaddr", "255.255.255.255%lo", 16, "255.255.255.255"},
      {"ipaddr", "255.255.255.255%lo", 19, "255.255.255.255%lo"}};
  for (auto [type, text, capacity, printed] : cases) {
    UniqueScalar scalar = make(type);
    int result = -1;
    scalar_setFromString(scalar.get(), text, &result);
    ASSERT_EQ(result, 0);
    std::string buffer(capacity, '#');
    int size = capacity;
    scalar_getStringToBuffer(scalar.get(), buffer.data(), &size, &result);
    EXPECT_EQ(result == 0 ? buffer.c_str() : "<" + std::to_string(result) + ">", printed) << text;
    EXPECT_EQ(size, result == 0 ? static_cast<int>(strlen(printed)) : capacity);
  }
}

// Accepted bytes are stored as they are; refused ones leave the value alone.
TEST(ScalarSetFromBytes, ChecksSizeAndContent) {
  using std::string_literals::operator""s;
  const std::tuple<const char*, std::string, int> cases[] = {{"string", "ab\0"s, 0},
                                                             {"string", "ab", -1},
                                                             {"int", "\1\1\1\1", 0},
                                                             {"int", "\1\1\1", -1},
                                                             {"ipaddr", std::string(24, '\0'), 0},
                                                             {"cenum_on_off", "on\0"s, 0},
                                                             {"cenum_on_off", "On\0"s, -1},
                                                             {"cenum_on_off", "on\0\0"s, -1}};
  for (const auto& [type, bytes, expected] : cases) {
    UniqueScalar scalar = make(type);
    std::string before(reinterpret_cast<const char*>(scalar_bytes(scalar.get())), scalar->size);
    int result = 1;
    scalar_setFromBytes(scalar.get(), reinterpret_cast<const unsigned char*>(bytes.data()),
                        static_cast<int>(bytes.size()), &result);
    EXPECT_EQ(result, expected) << type << bytes.size();
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(scalar_bytes(scalar.get())), scalar->size),
              result == 0 ? bytes : before);
  }
}

}  // namespace
