// scripts/demo run without a terminal, on the binaries of this build: the tour must complete (the
// script checks every step itself and stops at the first that misbehaves).
#include <gtest/gtest.h>

#include <string>

#include "tests/support/shellcommand.h"

namespace tessard::test {
namespace {

TEST(DemoTest, TourCompletesWithoutATerminal) {
  std::string output;
  ASSERT_EQ(run_command("env TESSARD_DEMO_BUILD_DIR='" TESSARD_BUILD_DIR
                        "' TESSARD_DEMO_NO_BUILD=1 ASAN_OPTIONS=detect_leaks=0 '" TESSARD_SOURCE_DIR
                        "/scripts/demo' </dev/null",
                        &output),
            0)
      << output;
  EXPECT_NE(output.find("The tour is complete: every step behaved as shown."), std::string::npos);
  EXPECT_NE(output.find("+timezone \"UTC\""), std::string::npos) << "the set's diff is shown";
  EXPECT_EQ(output.find("Your turn"), std::string::npos) << "no shell without a terminal";
}

}  // namespace
}  // namespace tessard::test
