// The example device of examples/device, installed into the sandbox and served through the systemd
// units (the demo's test walks through the example itself).
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "tests/support/sandbox.h"
#include "tests/support/shellcommand.h"

namespace tessard::test {
namespace {

namespace fs = std::filesystem;

// Copies the example's etc/ and usr/ over the sandbox's overlays.
void install_example() {
  for (const char* top : {"etc", "usr"}) {
    std::error_code error;
    fs::copy(fs::path(TESSARD_EXAMPLE_DIR) / top, fs::path("/") / top,
             fs::copy_options::recursive | fs::copy_options::overwrite_existing, error);
    ASSERT_FALSE(error) << "installing the example's " << top << ": " << error.message();
  }
}

// The units of systemd/ with the example configuration: systemd-analyze accepts them, and the
// service's command line started through socket activation on the socket unit's address serves
// the example device.
class ExampleDeviceUnitsTest : public SandboxTest {};

TEST_F(ExampleDeviceUnitsTest, SocketActivatedServiceServesTheExample) {
  install_example();
  const std::string units = std::string(TESSARD_SOURCE_DIR) + "/systemd/";
  std::vector<std::string> exec = UnitLine(units + "tessard.service", "ExecStart");
  std::vector<std::string> listen = UnitLine(units + "tessard.socket", "ListenStream");
  ASSERT_GE(exec.size(), 3u);
  ASSERT_EQ(listen.size(), 1u);
  ASSERT_EQ(exec[1], "/etc/tessard/tessard.conf") << "the service does not read the example";
  std::error_code error;
  fs::copy_file(TESSARD_BINARY, exec[0], fs::copy_options::overwrite_existing, error);
  ASSERT_FALSE(error) << "installing " << exec[0] << ": " << error.message();

  std::string out;
  EXPECT_EQ(
      run_command("systemd-analyze verify " + units + "tessard.socket " + units + "tessard.service",
                  &out),
      0)
      << out;
  EXPECT_EQ(out, "");

  pid_t pid = StartActivated(listen[0], exec);
  ASSERT_GT(pid, 0);
  out.clear();
  EXPECT_EQ(
      run_command(std::string("timeout 10 ") + TESSCTL_BINARY + " get root.System.Time.TimeZone",
                  &out),
      0)
      << out;
  EXPECT_EQ(out, "Europe/Berlin\n");
  EXPECT_TRUE(log().WaitFor("Starting server.", 5000, nullptr, pid))
      << "the activated daemon is not the one that served";
  EXPECT_EQ(log().Count("Failed creating listen socket"), 0);
}

}  // namespace
}  // namespace tessard::test
