// The example device of examples/device, installed into the sandbox and served through the systemd
// units of systemd/ (the demo's test walks through the example itself).
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/support/sandbox.h"
#include "tests/support/shellcommand.h"

namespace tessard::test {
namespace {

namespace fs = std::filesystem;

class ExampleDeviceUnitsTest : public SandboxTest {};

// systemd-analyze accepts the units, and the service started as they say serves the example.
TEST_F(ExampleDeviceUnitsTest, SocketActivatedServiceServesTheExample) {
  const std::string units = TESSARD_SOURCE_DIR "/systemd";
  std::error_code error;
  const auto options = fs::copy_options::recursive | fs::copy_options::overwrite_existing;
  for (const char* top : {"etc", "usr"}) {
    fs::copy(fs::path(TESSARD_EXAMPLE_DIR) / top, fs::path("/") / top, options, error);
    ASSERT_FALSE(error) << "installing the example's " << top << ": " << error.message();
  }
  fs::copy_file(TESSARD_BINARY, "/usr/sbin/tessard", options, error);
  ASSERT_FALSE(error) << "installing the daemon: " << error.message();
  std::string out;
  EXPECT_EQ(run_command(
                "systemd-analyze verify " + units + "/tessard.socket " + units + "/tessard.service",
                &out),
            0)
      << out;
  EXPECT_EQ(out, "");
  ServeExampleThroughUnits(units, TESSCTL_BINARY);
}

}  // namespace
}  // namespace tessard::test
