#include "parsers/singlevalueparser.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/parsertest_support.h"

namespace {

using tessard::test::client_sets;
using tessard::test::read_file;
using tessard::test::value_text;
using tessard::test::write_file;

struct SingleValueCase {
  const char* name;
  const char* text;
  const char* value;     // what the file holds
  const char* new_text;  // the file after the value was changed to "cam-02"
};

void PrintTo(const SingleValueCase& c, std::ostream* os) {
  *os << c.name;
}

class SingleValueTest : public tessard::test::ParserTest,
                        public ::testing::WithParamInterface<SingleValueCase> {
 protected:
  Param* value_param() {
    return param("p", file("hostname"), "Singlevalue{}", "SinglevalueParser");
  }
};

TEST_P(SingleValueTest, ReadsTheLastValueLineAndReplacesOnlyIt) {
  const SingleValueCase& c = GetParam();
  write_file(file("hostname"), c.text);
  Param* p = value_param();
  ASSERT_EQ(invoke(p, 1), 0);
  EXPECT_EQ(value_text(p), c.value);
  client_sets(p, "cam-02");
  ASSERT_EQ(invoke(p, 0), 0);
  EXPECT_EQ(read_file(file("hostname")), c.new_text);
  EXPECT_EQ(p->status, PARAMSTATUS_STORED);
  group_ = new_group();
  Param* again = value_param();
  ASSERT_EQ(invoke(again, 1), 0);
  EXPECT_EQ(value_text(again), "cam-02");
}

INSTANTIATE_TEST_SUITE_P(
    Singlevalue, SingleValueTest,
    ::testing::Values(
        SingleValueCase{"OneLine", "cam2100-00042\n", "cam2100-00042", "cam-02\n"},
        SingleValueCase{"CommentsAndBlankLinesAround",
                        "# Host name of the unit\n\n  \t\ncam2100-00042\n\n# kept\n",
                        "cam2100-00042", "# Host name of the unit\n\n  \t\ncam-02\n\n# kept\n"},
        SingleValueCase{"LastOfSeveralLines", "old one\n# between\nthe value  \n", "the value  ",
                        "old one\n# between\ncam-02\n"},
        SingleValueCase{"NoLineEnd", "value", "value", "cam-02"},
        SingleValueCase{"CarriageReturn", "value\r\n", "value", "cam-02\r\n"},
        // The first line is taken as it stands: its leading blanks, even a "#".
        SingleValueCase{"LeadingBlanks", "  spaced value\n", "  spaced value", "cam-02\n"},
        SingleValueCase{"CommentLinesOnly", "# only\n# comments\n", "# only",
                        "cam-02\n# comments\n"},
        // A "#" after blanks does not start a comment.
        SingleValueCase{"IndentedHash", "v\n  # not a comment\n", "# not a comment",
                        "v\n  cam-02\n"},
        SingleValueCase{"EmptyFile", "", "", "cam-02"},
        SingleValueCase{"BlankLinesOnly", "\n\n", "", "cam-02\n\n"}),
    [](const ::testing::TestParamInfo<SingleValueCase>& info) { return info.param.name; });

TEST_F(SingleValueTest, RandomBytesNeverCrashAndRewriteStably) {
  EXPECT_GT(random_rounds(singlevalueparser_parse, "ab #\n\r\t\x01\xe9",
                          param("p", "", "Singlevalue{}", nullptr), "cam 02"),
            1000);
}

}  // namespace
