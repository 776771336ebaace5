// scripts/demo run without a terminal, on the binaries of this build: the tour must complete.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/shellcommand.h"

namespace tessard::test {
namespace {

TEST(DemoTest, TourCompletesWithoutATerminal) {
  std::string command = std::string("env TESSARD_DEMO_BUILD_DIR='") + TESSARD_BUILD_DIR +
                        "' TESSARD_DEMO_NO_BUILD=1 ASAN_OPTIONS=detect_leaks=0 '" +
                        TESSARD_SOURCE_DIR + "/scripts/demo' </dev/null";
  std::string output;
  ASSERT_EQ(run_command(command, &output), 0) << output;
  for (const char* step : {"1. The parameter tree of the example device", "2. Reading values",
                           "3. alice (admin) sets the time zone", "4. Rules and limits",
                           "5. Dynamic groups: alice creates an event rule and deletes it again",
                           "6. D-Bus messages seen on the system bus",
                           "7. tessard-check: the configuration checked without a daemon",
                           "8. tessctl explain: why a parameter behaves as it does",
                           "The tour is complete: every step behaved as shown."}) {
    EXPECT_NE(output.find(step), std::string::npos) << "missing step: " << step;
  }
  EXPECT_NE(output.find("+timezone \"UTC\""), std::string::npos) << "the set's diff is shown";
  EXPECT_EQ(output.find("Your turn"), std::string::npos) << "no shell without a terminal";
}

}  // namespace
}  // namespace tessard::test
