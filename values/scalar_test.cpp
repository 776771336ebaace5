#include "values/scalar.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace {

// A scalar held as a value record holds it.
struct Held {
  CustomScalar value{};
  ~Held() { scalar_release(&value); }
  CustomScalar* get() { return &value; }
};

std::unique_ptr<Held> make(const char* type) {
  auto scalar = std::make_unique<Held>();
  EXPECT_EQ(scalar_initialize(scalar->get(), type), 0) << type;
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
  auto scalar = make("string");
  for (size_t length : {15, 16, 40, 3, 15, 17, 16, 0, 90}) {
    std::string text(length, static_cast<char>('a' + length % 26));
    int result = -1;
    scalar_setFromString(scalar->get(), text.c_str(), &result);
    ASSERT_EQ(result, 0);
    EXPECT_EQ(text_of(scalar->get()), text) << length;
  }
}

// The fields of a table row written as "a|b|c".
std::vector<std::string> fields(const std::string& row) {
  std::vector<std::string> out(1);
  for (char c : row) c == '|' ? out.emplace_back() : out.back() += c;
  return out;
}

// A refused text leaves the value at the type's default (the first entry, zero or empty; a
// never-set "ipaddr" has family 0, which has no text form); an accepted one prints as given.
// Enumerations share one parser: entries match exactly, case and whole text.
TEST(ScalarParse, AcceptsOrRefusesText) {
  // type|text|printed text, with "=" and the default when the text is refused
  for (const char* row :
       {"int|12abc|12", "int|abc|0", "int| -7|-7", "int|99999999999|2147483647",
        "ip|1.2.3.4 and more|1.2.3.4", "ip|255.255.255.255|255.255.255.255",
        "ip|256.0.0.1|=0.0.0.0", "ip|1.2.3|=0.0.0.0", "eth_addr|AA:bb:0c:1:2:3|aa:bb:0c:01:02:03",
        "eth_addr|ff:ff:ff:ff:ff:ff|ff:ff:ff:ff:ff:ff", "eth_addr|100:0:0:0:0:0|=00:00:00:00:00:00",
        "cenum_on_off|ON|=off", "compression|very high|very high", "compression|very|=min",
        "ipaddr|fe80::1%lo|fe80::1%lo", "ipaddr|10.0.0.1%lo|10.0.0.1%lo",
        "ipaddr|fe80::1%nosuchif9|fe80::1", "ipaddr|1.2.3.400|=<-1>", "ipaddr|1.2.3.4:80|=<-1>"}) {
    std::vector<std::string> f = fields(row);
    auto scalar = make(f[0].c_str());
    int result = 1;
    scalar_setFromString(scalar->get(), f[1].c_str(), &result);
    EXPECT_EQ(result, f[2][0] == '=' ? -1 : 0) << row;
    EXPECT_EQ(text_of(scalar->get()), f[2][0] == '=' ? f[2].substr(1) : f[2]) << row;
  }
}

// Type names are exact. An "ipaddr" forgets the interface of its earlier value.
TEST(ScalarTypes, LookUpIsExactAndIpaddrForgetsAnOldInterface) {
  for (const char* name : {"IP", "ip ", "enum"}) {
    Held unknown;
    EXPECT_EQ(scalar_initialize(unknown.get(), name), -1) << name;
  }
  int result = 0;
  auto scalar = make("ipaddr");
  scalar_setFromString(scalar->get(), "fe80::1%lo", &result);
  scalar_setFromString(scalar->get(), "::2", &result);
  EXPECT_EQ(text_of(scalar->get()), "::2");
}

// Replies are sent from a fixed buffer when the text and its end fit, with the size printed.
TEST(ScalarPrintToBuffer, NeedsRoomForTheTextAndItsEnd) {
  auto scalar = make("string");
  int result = -1;
  scalar_setFromString(scalar->get(), "abc", &result);
  char buffer[4];
  for (int capacity : {4, 3}) {
    int size = capacity;
    scalar_getStringToBuffer(scalar->get(), buffer, &size, &result);
    EXPECT_EQ(result == 0 ? buffer + std::to_string(size) : std::to_string(result),
              capacity == 4 ? "abc3" : "-2");
  }
}

}  // namespace
