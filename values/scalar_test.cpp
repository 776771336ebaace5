#include "values/scalar.h"

#include <gtest/gtest.h>
#include <net/if.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

UniqueScalar make(const char* type) {
  int result = -1;
  UniqueScalar scalar(scalar_create(type, &result));
  EXPECT_EQ(result, 0) << type;
  return scalar;
}

// The new-text form, or "<-1>" style markers when printing fails.
std::string text_of(const CustomScalar* scalar) {
  int result = 0;
  char* text = scalar_getString(scalar, &result);
  if (text == nullptr) {
    return "<" + std::to_string(result) + ">";
  }
  std::string copy(text);
  free(text);
  return copy;
}

struct ParseCase {
  const char* type;
  const char* text;
  const char* printed;  // null: the text is refused
};

class ScalarParse : public testing::TestWithParam<ParseCase> {};

// A refused text leaves the value at the type's default; an accepted one prints as given.
TEST_P(ScalarParse, AcceptsOrRefusesText) {
  const ParseCase& c = GetParam();
  UniqueScalar scalar = make(c.type);
  std::string before = text_of(scalar.get());
  int result = 1;
  scalar_setFromString(scalar.get(), c.text, &result);
  if (c.printed == nullptr) {
    EXPECT_EQ(result, -1);
    EXPECT_EQ(text_of(scalar.get()), before);
  } else {
    EXPECT_EQ(result, 0);
    EXPECT_EQ(text_of(scalar.get()), c.printed);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Types, ScalarParse,
    testing::Values(
        ParseCase{"string", "a b\tc", "a b\tc"}, ParseCase{"string", "", ""},
        ParseCase{"int", "12abc", "12"}, ParseCase{"int", "abc", "0"},
        ParseCase{"int", " -7", "-7"}, ParseCase{"int", "99999999999", "2147483647"},
        ParseCase{"ip", "1.2.3.4", "1.2.3.4"}, ParseCase{"ip", "1.2.3.4 and more", "1.2.3.4"},
        ParseCase{"ip", "255.255.255.255", "255.255.255.255"},
        ParseCase{"ip", "256.0.0.1", nullptr}, ParseCase{"ip", "1.2.3", nullptr},
        ParseCase{"ip", "1.2.3.-1", nullptr}, ParseCase{"ip", "1.2..4", nullptr},
        ParseCase{"eth_addr", "AA:bb:0c:1:2:3", "aa:bb:0c:01:02:03"},
        ParseCase{"eth_addr", "ff:ff:ff:ff:ff:ff", "ff:ff:ff:ff:ff:ff"},
        ParseCase{"eth_addr", "100:0:0:0:0:0", nullptr},
        ParseCase{"eth_addr", "1:2:3:4:5", nullptr}, ParseCase{"eth_addr", "1-2-3-4-5-6", nullptr},
        ParseCase{"cenum_on_off", "on", "on"}, ParseCase{"cenum_on_off", "ON", nullptr},
        ParseCase{"cenum_true_false", "true", "true"},
        ParseCase{"cenum_true_false", "True", nullptr},
        ParseCase{"compression", "very high", "very high"},
        ParseCase{"compression", "very", nullptr}, ParseCase{"compression", "medium ", nullptr},
        ParseCase{"weekdays", "Sat", "Sat"}, ParseCase{"weekdays", "sat", nullptr},
        ParseCase{"high_low", "high", "high"}, ParseCase{"yes_no", "yes", "yes"},
        ParseCase{"yes_no", "Yes", nullptr}, ParseCase{"remove", "previous", "previous"},
        ParseCase{"remove", "yes", nullptr}, ParseCase{"resolution", "160x120", "160x120"},
        ParseCase{"resolution", "640X480", nullptr}, ParseCase{"ipaddr", "10.0.0.1", "10.0.0.1"},
        ParseCase{"ipaddr", "::1", "::1"}, ParseCase{"ipaddr", "fe80::1%lo", "fe80::1%lo"},
        ParseCase{"ipaddr", "10.0.0.1%lo", "10.0.0.1%lo"},
        ParseCase{"ipaddr", "fe80::1%nosuchif9", "fe80::1"},
        ParseCase{"ipaddr", "localhost", nullptr}, ParseCase{"ipaddr", "1.2.3.400", nullptr},
        ParseCase{"ipaddr", "1.2.3.4:80", nullptr}));

TEST(ScalarTypes, DefaultsAreTheFirstEntryOrZero) {
  const char* expected[SCALARTYPE_COUNT] = {
      "",    "0",  "0.0.0.0", "00:00:00:00:00:00", "off", "false", "min", "Sun",
      "low", "no", "no",      "640x480",           "<-1>"};  // a never-set "ipaddr" has family 0,
                                                             // which has no text form
  for (int i = 0; i < SCALARTYPE_COUNT; ++i) {
    UniqueScalar scalar = make(scalar_typeNameOfIndex(i));
    EXPECT_EQ(scalar->typeIndex, i);
    EXPECT_EQ(text_of(scalar.get()), expected[i]) << scalar_typeNameOfIndex(i);
  }
}

TEST(ScalarTypes, LookUpIsExactAndInTableOrder) {
  EXPECT_EQ(scalar_findType("string"), SCALARTYPE_STRING);
  EXPECT_EQ(scalar_findType("ipaddr"), SCALARTYPE_IPADDR);
  EXPECT_EQ(scalar_findType("resolution"), SCALARTYPE_RESOLUTION);
  for (const char* name : {"IP", "String", "ip ", "", "enum"}) {
    EXPECT_EQ(scalar_findType(name), -1) << name;
    int result = 0;
    EXPECT_EQ(scalar_create(name, &result), nullptr);
    EXPECT_EQ(result, -1);
  }
  EXPECT_STREQ(scalar_enumEntries(SCALARTYPE_COMPRESSION)[4], "very high");
  EXPECT_EQ(scalar_enumEntries(SCALARTYPE_IP), nullptr);
}

TEST(ScalarTypes, IpaddrKeepsTheInterfaceIndex) {
  UniqueScalar scalar = make("ipaddr");
  int result = -1;
  scalar_setFromString(scalar.get(), "fe80::1%lo", &result);
  ASSERT_EQ(result, 0);
  ASSERT_EQ(scalar->size, SCALAR_IPADDR_SIZE);
  int32_t family = 0;
  int32_t index = 0;
  memcpy(&family, scalar->buffer, 4);
  memcpy(&index, scalar->buffer + 4, 4);
  EXPECT_EQ(family, 10);
  EXPECT_EQ(index, static_cast<int32_t>(if_nametoindex("lo")));
  EXPECT_GT(index, 0);
  EXPECT_EQ(scalar->buffer[8], 0xfe);
  EXPECT_EQ(scalar->buffer[23], 0x01);

  scalar_setFromString(scalar.get(), "::2", &result);
  memcpy(&index, scalar->buffer + 4, 4);
  EXPECT_EQ(index, -1);
}

struct BufferCase {
  const char* type;
  const char* text;
  int capacity;
  int result;
  const char* printed;  // expected text when result is 0
};

class ScalarPrintToBuffer : public testing::TestWithParam<BufferCase> {};

TEST_P(ScalarPrintToBuffer, NeedsRoomForTheWidestText) {
  const BufferCase& c = GetParam();
  UniqueScalar scalar = make(c.type);
  int result = -1;
  scalar_setFromString(scalar.get(), c.text, &result);
  ASSERT_EQ(result, 0);
  std::string buffer(c.capacity, '#');
  int size = c.capacity;
  scalar_getStringToBuffer(scalar.get(), buffer.data(), &size, &result);
  EXPECT_EQ(result, c.result);
  if (c.result == 0) {
    EXPECT_STREQ(buffer.c_str(), c.printed);
    EXPECT_EQ(size, static_cast<int>(strlen(c.printed)));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Capacities, ScalarPrintToBuffer,
    testing::Values(BufferCase{"int", "5", 12, 0, "5"}, BufferCase{"int", "5", 11, -2, nullptr},
                    BufferCase{"int", "-2147483648", 12, 0, "-2147483648"},
                    BufferCase{"string", "abc", 4, 0, "abc"},
                    BufferCase{"string", "abc", 3, -2, nullptr},
                    BufferCase{"yes_no", "yes", 3, -2, nullptr},
                    BufferCase{"ip", "1.2.3.4", 16, 0, "1.2.3.4"},
                    BufferCase{"ip", "1.2.3.4", 15, -2, nullptr},
                    BufferCase{"eth_addr", "1:2:3:4:5:6", 17, -2, nullptr},
                    BufferCase{"ipaddr", "1.2.3.4", 15, -2, nullptr},
                    BufferCase{"ipaddr", "::1", 45, -2, nullptr},
                    BufferCase{"ipaddr", "::1%lo", 46, 0, "::1%lo"},
                    // The interface name is left out when it does not fit.
                    BufferCase{"ipaddr", "255.255.255.255%lo", 16, 0, "255.255.255.255"},
                    BufferCase{"ipaddr", "255.255.255.255%lo", 19, 0, "255.255.255.255%lo"}));

struct BytesCase {
  const char* type;
  std::string bytes;
  int result;
};

class ScalarSetFromBytes : public testing::TestWithParam<BytesCase> {};

TEST_P(ScalarSetFromBytes, ChecksSizeAndContent) {
  const BytesCase& c = GetParam();
  UniqueScalar scalar = make(c.type);
  std::string before = text_of(scalar.get());
  int result = 1;
  auto* bytes = reinterpret_cast<const unsigned char*>(c.bytes.data());
  scalar_setFromBytes(scalar.get(), bytes, static_cast<int>(c.bytes.size()), &result);
  EXPECT_EQ(result, c.result);
  if (c.result == 0) {
    ASSERT_EQ(scalar->size, static_cast<int>(c.bytes.size()));
    EXPECT_EQ(memcmp(scalar->buffer, c.bytes.data(), c.bytes.size()), 0);
  } else {
    EXPECT_EQ(text_of(scalar.get()), before);
  }
}

INSTANTIATE_TEST_SUITE_P(Types, ScalarSetFromBytes,
                         testing::Values(BytesCase{"string", std::string("ab\0", 3), 0},
                                         BytesCase{"string", "ab", -1}, BytesCase{"string", "", -1},
                                         BytesCase{"int", std::string(4, '\1'), 0},
                                         BytesCase{"int", std::string(3, '\1'), -1},
                                         BytesCase{"ip", std::string(5, '\1'), -1},
                                         BytesCase{"eth_addr", std::string(6, '\1'), 0},
                                         BytesCase{"ipaddr", std::string(24, '\0'), 0},
                                         BytesCase{"ipaddr", std::string(23, '\0'), -1},
                                         BytesCase{"cenum_on_off", std::string("on\0", 3), 0},
                                         BytesCase{"cenum_on_off", std::string("On\0", 3), -1},
                                         BytesCase{"cenum_on_off", "on", -1},
                                         BytesCase{"cenum_on_off", std::string("on\0\0", 4), -1}));

}  // namespace
