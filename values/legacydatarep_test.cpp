#include "values/legacydatarep.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

UniqueData custom(const char* type, const char* text) {
  UniqueData data(legacy_drep_createData());
  EXPECT_EQ(legacy_drep_initializeScalar(data.get(), SCALAR_CUSTOM, type), 0);
  EXPECT_EQ(legacy_drep_setCustomFromString(data.get(), text, nullptr), 0);
  return data;
}

UniqueData container(bool hash) {
  UniqueData data(legacy_drep_createData());
  if (hash) {
    EXPECT_EQ(legacy_drep_initializeHash(data.get()), 0);
  } else {
    EXPECT_EQ(legacy_drep_initializeList(data.get()), 0);
  }
  return data;
}

std::string dump(const Data* data) {
  testing::internal::CaptureStdout();
  legacy_drep_printData(data);
  return testing::internal::GetCapturedStdout();
}

// Keys of a hash in walk order.
std::string keys_of(const Data* hash) {
  std::string keys;
  const char* key = nullptr;
  for (Data* v = legacy_drep_getNextToInHash(hash, nullptr, &key); v != nullptr;
       v = legacy_drep_getNextToInHash(hash, v, &key)) {
    keys += key;
  }
  return keys;
}

// { b: [ ip 1.2.3.4, {} ], a: string "x y" }
UniqueData sample_tree() {
  UniqueData list = container(false);
  legacy_drep_addToList(list.get(), custom("ip", "1.2.3.4").release());
  legacy_drep_addToList(list.get(), container(true).release());
  UniqueData hash = container(true);
  legacy_drep_setHashValue(hash.get(), list.release(), "b");
  legacy_drep_setHashValue(hash.get(), custom("string", "x y").release(), "a");
  return hash;
}

TEST(DataDump, IndentsNestedValues) {
  UniqueData tree = sample_tree();
  UniqueData number(legacy_drep_createData());
  legacy_drep_initializeScalar(number.get(), SCALAR_INT, nullptr);
  legacy_drep_setInt(number.get(), -5);
  legacy_drep_addToList(legacy_drep_getHashValue(tree.get(), "b"), number.release());
  EXPECT_EQ(dump(tree.get()),
            "DATA_HASH:\n"
            "  key: 'b'\n"
            "    DATA_LIST:\n"
            "      DATA_SCALAR->SCALAR_CUSTOM: 1.2.3.4\n"
            "      DATA_HASH:\n"
            "      DATA_SCALAR->SCALAR_INT: -5\n"
            "\n"
            "  key: 'a'\n"
            "    DATA_SCALAR->SCALAR_CUSTOM: x y\n"
            "\n");
  UniqueData none(legacy_drep_createData());
  EXPECT_EQ(dump(none.get()), "DATA_NONE\n");
  EXPECT_EQ(dump(nullptr), "");
}

TEST(DataCopy, IsDeepAndKeepsOrderAndFlag) {
  UniqueData tree = sample_tree();
  const char quote = '"';
  Data* a = legacy_drep_getHashValue(tree.get(), "a");
  legacy_drep_setCustomFromString(a, "z", &quote);
  UniqueData copy(legacy_drep_copyData(tree.get()));
  EXPECT_EQ(dump(copy.get()), dump(tree.get()));
  EXPECT_EQ(keys_of(copy.get()), "ba");
  Data* copiedA = legacy_drep_getHashValue(copy.get(), "a");
  EXPECT_NE(copiedA, a);
  char flag = 0;
  free(legacy_drep_getCustomString(copiedA, &flag));
  EXPECT_EQ(flag, '"');
  // A never-set "ipaddr" has no text form; copying it must not end the process.
  UniqueData ipaddr(legacy_drep_createData());
  legacy_drep_initializeScalar(ipaddr.get(), SCALAR_CUSTOM, "ipaddr");
  UniqueData ipaddrCopy(legacy_drep_copyData(ipaddr.get()));
  EXPECT_EQ(memcmp(ipaddrCopy->custom->buffer, ipaddr->custom->buffer, SCALAR_IPADDR_SIZE), 0);
}

TEST(DataList, TailAndWalkSurviveDeletion) {
  UniqueData list = container(false);
  Data* items[3];
  for (Data*& item : items) {
    item = custom("int", "1").release();
    legacy_drep_addToList(list.get(), item);
  }
  EXPECT_EQ(legacy_drep_getNextToInList(list.get(), items[0]), items[1]);
  EXPECT_EQ(legacy_drep_deleteListItem(list.get(), items[1]), 0);
  EXPECT_EQ(legacy_drep_getNextToInList(list.get(), items[0]), items[2]);
  EXPECT_EQ(legacy_drep_deleteListItem(list.get(), items[2]), 0);  // the tail
  Data* added = custom("int", "4").release();
  legacy_drep_addToList(list.get(), added);
  EXPECT_EQ(legacy_drep_getFirstOfList(list.get()), items[0]);
  EXPECT_EQ(legacy_drep_getNextToInList(list.get(), items[0]), added);
  EXPECT_EQ(legacy_drep_getNextToInList(list.get(), added), nullptr);
  UniqueData stranger = custom("int", "1");
  EXPECT_EQ(legacy_drep_getNextToInList(list.get(), stranger.get()), nullptr);
  EXPECT_EQ(legacy_drep_deleteListItem(list.get(), stranger.get()), 0);  // not ours: kept
}

TEST(DataHash, ReplacesInPlaceAndDeletesFirstMatch) {
  UniqueData hash = container(true);
  for (const char* key : {"c", "a", "b"}) {
    legacy_drep_setHashValue(hash.get(), custom("string", key).release(), key);
  }
  Data* replacement = custom("string", "new").release();
  EXPECT_EQ(legacy_drep_setHashValue(hash.get(), replacement, "a"), replacement);
  EXPECT_EQ(keys_of(hash.get()), "cab");
  EXPECT_EQ(legacy_drep_getHashValue(hash.get(), "a"), replacement);
  EXPECT_EQ(legacy_drep_deleteHashValue(hash.get(), "b"), 0);
  EXPECT_EQ(legacy_drep_deleteHashValue(hash.get(), "missing"), 0);
  legacy_drep_setHashValue(hash.get(), custom("string", "d").release(), "d");
  EXPECT_EQ(keys_of(hash.get()), "cad");
  EXPECT_EQ(legacy_drep_getHashValue(hash.get(), nullptr), nullptr);
  UniqueData list = container(false);
  EXPECT_EQ(legacy_drep_setHashValue(list.get(), hash.get(), "x"), nullptr);
  EXPECT_EQ(legacy_drep_deleteHashValue(list.get(), "x"), -1);
}

TEST(DataScalar, KindsRefuseTheWrongOperations) {
  UniqueData number(legacy_drep_createData());
  EXPECT_EQ(legacy_drep_initializeScalar(number.get(), SCALAR_INT, nullptr), 0);
  EXPECT_STREQ(legacy_drep_getTypeName(number.get()), "INT");
  EXPECT_EQ(legacy_drep_initializeScalar(number.get(), SCALAR_INT, nullptr), -1);
  EXPECT_EQ(legacy_drep_initializeHash(number.get()), -1);
  EXPECT_EQ(legacy_drep_setString(number.get(), "x"), -1);
  EXPECT_EQ(legacy_drep_setInt(number.get(), 7), 0);
  EXPECT_EQ(legacy_drep_getInt(number.get()), 7);

  UniqueData text(legacy_drep_createData());
  legacy_drep_initializeScalar(text.get(), SCALAR_STRING, nullptr);
  EXPECT_EQ(legacy_drep_getString(text.get()), nullptr);
  EXPECT_EQ(legacy_drep_setString(text.get(), "hello"), 0);
  EXPECT_EQ(legacy_drep_setString(text.get(), "a longer text"), 0);
  EXPECT_STREQ(legacy_drep_getString(text.get()), "a longer text");
  EXPECT_EQ(legacy_drep_getInt(text.get()), 0);

  UniqueData unknown(legacy_drep_createData());
  EXPECT_EQ(legacy_drep_initializeScalar(unknown.get(), SCALAR_CUSTOM, "IP"), -1);
  EXPECT_EQ(unknown->type, DATA_NONE);
  UniqueData onOff = custom("cenum_on_off", "on");
  EXPECT_STREQ(legacy_drep_getTypeName(onOff.get()), "cenum_on_off");
  const char flag = '\'';
  EXPECT_EQ(legacy_drep_setCustomFromString(onOff.get(), "ON", &flag), -1);
  EXPECT_EQ(onOff->customFlag, 0);  // a refused text stores no flag either
  char buffer[20];
  EXPECT_EQ(legacy_drep_getCustomStringToBuffer(onOff.get(), buffer, sizeof buffer), 0);
  EXPECT_STREQ(buffer, "on");
  EXPECT_EQ(legacy_drep_getCustomStringToBuffer(onOff.get(), buffer, 2), -2);
}

using DataDeathTest = testing::Test;

// Each misuse ends the process with status 1 after logging its message and the closing line.
TEST_F(DataDeathTest, TypeMisuseEndsTheProcess) {
  UniqueData hash = container(true);
  UniqueData number(legacy_drep_createData());
  legacy_drep_initializeScalar(number.get(), SCALAR_INT, nullptr);
  UniqueData none(legacy_drep_createData());
  auto exits = testing::ExitedWithCode(1);
  const std::string last = "\nlog<3>: Last error fatal\\. Exit\\.";  // both at LOG_ERR
  EXPECT_EXIT(legacy_drep_initializeList(hash.get()), exits,
              "initializeList: Datatype was not DATA_NONE!" + last);
  EXPECT_EXIT(legacy_drep_addToList(hash.get(), nullptr), exits,
              "addToList: Datatype was not DATA_LIST!" + last);
  EXPECT_EXIT(legacy_drep_getNextToInHash(number.get(), nullptr, nullptr), exits,
              "getNextToInHash: Datatype was not DATA_HASH!" + last);
  EXPECT_EXIT(legacy_drep_getHashValue(number.get(), "k"), exits,
              "Not hash in legacy_drep_getHashValue!" + last);
  EXPECT_EXIT(legacy_drep_getCustomString(number.get(), nullptr), exits,
              "Scalar was not a custom!" + last);
  EXPECT_EXIT(legacy_drep_setCustomFromString(number.get(), "1", nullptr), exits,
              "Scalar was not a custom!" + last);
  EXPECT_EXIT(legacy_drep_copyData(number.get()), exits,
              "Only SCALAR_CUSTOM supported in help_copyScalar!" + last);
  EXPECT_EXIT(legacy_drep_initializeScalar(none.get(), 9, nullptr), exits,
              "Strange kind of scalar!" + last);
  UniqueData ipaddr(legacy_drep_createData());
  legacy_drep_initializeScalar(ipaddr.get(), SCALAR_CUSTOM, "ipaddr");
  EXPECT_EXIT(legacy_drep_getCustomString(ipaddr.get(), nullptr), exits,
              "Failed to get string from custom\\." + last);
}

std::string field(const std::string& text) {
  return std::string{static_cast<char>(text.size() & 0xff), static_cast<char>(text.size() >> 8)} +
         text;
}

TEST(IntegerField, ReadsExactlyOneInteger) {
  struct Case {
    std::string text;
    int value;
    int error;
  } cases[] = {{"42", 42, 0},       {"42A", 0, 2}, {"12x", 0, 2},
               {"", 0, 2},          {" 7", 7, 0},  {"7 ", 0, 2},
               {"-13", -13, 0},     {"-", 0, 2},   {"2147483647", INT_MAX, 0},
               {"2147483648", 0, 2}};
  for (const Case& c : cases) {
    std::string bytes = field(c.text);
    int error = -9;
    auto* raw = reinterpret_cast<const unsigned char*>(bytes.data());
    EXPECT_EQ(legacy_drep_byteToInt(raw, &error), c.value) << c.text;
    EXPECT_EQ(error, c.error) << c.text;
    EXPECT_EQ(legacy_drep_byteToIntChecked(raw, bytes.size() - 1, &error), 0) << c.text;
    EXPECT_EQ(error, 2);
  }
}

struct RangeCase {
  const char* constraint;
  int value;
  int result;
  int corrected;
};

class RangeCheck : public testing::TestWithParam<RangeCase> {};

TEST_P(RangeCheck, MovesToTheNearestAllowedValue) {
  const RangeCase& c = GetParam();
  int value = c.value;
  EXPECT_EQ(legacy_drep_checkRange(c.constraint, &value), c.result);
  EXPECT_EQ(value, c.corrected);
}

INSTANTIATE_TEST_SUITE_P(
    Constraints, RangeCheck,
    testing::Values(RangeCase{"range=1,5-7,10-", 3, -1, 5},  // tie goes up
                    RangeCase{"range=1,5-7,10-", 8, -1, 7}, RangeCase{"range=1,5-7,10-", 0, -1, 1},
                    RangeCase{"range=1,5-7,10-", 12, 0, 12},
                    RangeCase{"range=1,5-7,10-", INT_MAX, 0, INT_MAX},
                    RangeCase{"range=1,5-7,10-", -100, -1, 1},
                    RangeCase{"range=1, 5 - 7", 9, -1, 7}, RangeCase{"range= 5 -7", 6, 0, 6},
                    RangeCase{"range=-10--5", -3, -1, -5}, RangeCase{"range=x", 3, -1, INT_MAX},
                    RangeCase{"range=1-3,x", 5, -1, 3}, RangeCase{"int:range=2", 2, 0, 2},
                    RangeCase{"min=5", 1000000, 0, 1000000}, RangeCase{"min=5", 4, -1, 5},
                    RangeCase{"int:maxlength=3,min=0,max=100", 101, -1, 100},
                    RangeCase{"int:maxlength=3,min=0,max=100", -1, -1, 0},
                    RangeCase{"int:maxlength=3", 5000, 0, 5000},  // not a max=
                    RangeCase{"maxlength=3,min=0", 5000, 0, 5000}, RangeCase{"max=10", 11, -1, 10},
                    RangeCase{"max=10", INT_MIN, 0, INT_MIN}, RangeCase{"", 7, 0, 7}));

}  // namespace
