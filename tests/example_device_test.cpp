// The example device of examples/device, installed into the sandbox and served through the systemd
// units (the demo's test walks through the example itself).
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>

#include <cstdlib>
#include <filesystem>
#include <sstream>
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
class ExampleDeviceUnitsTest : public SandboxTest {
 protected:
  void TearDown() override {
    if (activator_ > 0) {
      kill(activator_, SIGTERM);
      if (WaitExit(activator_, 5000) < 0) kill(activator_, SIGKILL);
      WaitExit(activator_, 5000);
    }
    SandboxTest::TearDown();
  }

  // The words of a "Key=" line of a unit file.
  static std::vector<std::string> unit_words(const std::string& unit, const std::string& key) {
    std::string text = ReadFile(std::string(TESSARD_SOURCE_DIR) + "/systemd/" + unit);
    size_t at = text.find("\n" + key + "=");
    if (at == std::string::npos) return {};
    at += key.size() + 2;
    std::istringstream line(text.substr(at, text.find('\n', at) - at));
    std::vector<std::string> words;
    for (std::string word; line >> word;) words.push_back(word);
    return words;
  }

  pid_t activator_ = -1;
};

TEST_F(ExampleDeviceUnitsTest, SocketActivatedServiceServesTheExample) {
  install_example();
  std::vector<std::string> exec = unit_words("tessard.service", "ExecStart");
  std::vector<std::string> listen = unit_words("tessard.socket", "ListenStream");
  ASSERT_GE(exec.size(), 3u);
  ASSERT_EQ(listen.size(), 1u);
  ASSERT_EQ(exec[1], "/etc/tessard/tessard.conf") << "the service does not read the example";
  std::error_code error;
  fs::copy_file(DaemonBinary(), exec[0], fs::copy_options::overwrite_existing, error);
  ASSERT_FALSE(error) << "installing " << exec[0] << ": " << error.message();

  std::string out;
  EXPECT_EQ(
      run_command(std::string("systemd-analyze verify ") + TESSARD_SOURCE_DIR +
                      "/systemd/tessard.socket " + TESSARD_SOURCE_DIR + "/systemd/tessard.service",
                  &out),
      0)
      << out;
  EXPECT_EQ(out, "");

  activator_ = fork();
  if (activator_ == 0) {
    std::vector<std::string> args = {"systemd-socket-activate", "-l", listen[0], "-E",
                                     "ASAN_OPTIONS=detect_leaks=0"};
    args.insert(args.end(), exec.begin(), exec.end());
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  ASSERT_GT(activator_, 0);
  for (int i = 0; i < 500 && !Exists(listen[0]); i++) usleep(10000);
  ASSERT_TRUE(Exists(listen[0])) << "systemd-socket-activate did not listen on " << listen[0];

  out.clear();
  EXPECT_EQ(
      run_command(std::string("timeout 10 ") + TESSCTL_BINARY + " get root.System.Time.TimeZone",
                  &out),
      0)
      << out;
  EXPECT_EQ(out, "Europe/Berlin\n");
  EXPECT_TRUE(log().WaitFor("Starting server.", 5000, nullptr, activator_))
      << "the activated daemon is not the one that served";
  EXPECT_EQ(log().Count("Failed creating listen socket"), 0);
}

}  // namespace
}  // namespace tessard::test
