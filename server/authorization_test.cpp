#include "server/authorization.h"

#include <gtest/gtest.h>

#include <string>

#include "server/clientserver.h"

namespace {

struct RuleCase {
  std::string text;
  int bit;
  int status;
};

void PrintTo(const RuleCase& c, std::ostream* os) {
  *os << '"' << c.text << "\" bit " << c.bit;
}

class AccessRuleTest : public ::testing::TestWithParam<RuleCase> {};

// The claimed gid's group is "admin"; group names of other entries are looked up in the user cache,
// where uid 0 has none of them.
TEST_P(AccessRuleTest, DecidesByTheFirstMatchingEntryWithTheBit) {
  ASSERT_EQ(populateUserCache(), 0);
  EXPECT_EQ(evaluateAccessControl(GetParam().text.c_str(), 0, "admin", GetParam().bit),
            GetParam().status);
}

INSTANTIATE_TEST_SUITE_P(
    Rules, AccessRuleTest,
    ::testing::Values(RuleCase{":1", ACCESS_READ, STATUS_OK},
                      RuleCase{":1", ACCESS_WRITE, STATUS_ACCESS_REFUSED},
                      RuleCase{"admin:2", ACCESS_WRITE, STATUS_OK},
                      RuleCase{"admin:2", ACCESS_READ, STATUS_ACCESS_REFUSED},
                      RuleCase{"admin:x", ACCESS_READ, STATUS_ACCESS_REFUSED},
                      RuleCase{":1;admin:x", ACCESS_READ, STATUS_OK},
                      RuleCase{":1;admin:x", ACCESS_WRITE, STATUS_ACCESS_REFUSED},
                      RuleCase{"admin: 3", ACCESS_WRITE, STATUS_OK},
                      RuleCase{"admin:3 ;", ACCESS_WRITE, STATUS_OK},
                      RuleCase{"admin:3\t", ACCESS_WRITE, STATUS_OK},
                      RuleCase{"admin:3,", ACCESS_WRITE, STATUS_ACCESS_REFUSED},
                      RuleCase{"admin:0xC", ACCESS_CREATE, STATUS_OK},
                      RuleCase{"admin:", ACCESS_READ, STATUS_ACCESS_REFUSED},
                      RuleCase{"admin", ACCESS_READ, STATUS_ACCESS_REFUSED},
                      RuleCase{"", ACCESS_READ, STATUS_ACCESS_REFUSED},
                      RuleCase{"Admin:f", ACCESS_READ, STATUS_ACCESS_REFUSED},
                      RuleCase{"operator:f;admin:1", ACCESS_READ, STATUS_OK},
                      RuleCase{"admin:1;admin:2", ACCESS_WRITE, STATUS_OK},
                      RuleCase{"operator:x;:4", ACCESS_DELETE, STATUS_OK},
                      RuleCase{"admin:1;", ACCESS_WRITE, STATUS_ACCESS_REFUSED}));

TEST(UserCache, RootHasItsPrimaryGroup) {
  ASSERT_EQ(populateUserCache(), 0);
  EXPECT_EQ(uid_in_group(0, "root"), 1);
  EXPECT_EQ(uid_in_group(0, "no-such-group"), 0);
  EXPECT_EQ(uid_in_group(4000000000U, "root"), 0) << "unknown uid";
}

}  // namespace
