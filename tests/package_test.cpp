// The Debian packages installed into the sandbox's root: the service unit's command line, started
// as systemd starts it on the socket unit's address (systemd-socket-activate), serves the
// packaged example device, and the installed tessctl reads a parameter from it.
// debian/tests/sandbox runs it with the built packages' paths in TESSARD_PACKAGES.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/sandbox.h"
#include "tests/support/shellcommand.h"

namespace tessard::test {
namespace {

class PackageTest : public SandboxTest {
 protected:
  void TearDown() override {
    if (activator_ > 0) {
      kill(activator_, SIGTERM);
      if (WaitExit(activator_, 5000) < 0) kill(activator_, SIGKILL);
      WaitExit(activator_, 5000);
    }
    SandboxTest::TearDown();
  }

  // The words of a "Key=" line of an installed unit.
  static std::vector<std::string> unit_words(const std::string& unit, const std::string& key) {
    std::string text = ReadFile("/usr/lib/systemd/system/" + unit);
    if (text.empty()) text = ReadFile("/lib/systemd/system/" + unit);
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

TEST_F(PackageTest, InstalledUnitsServeThePackagedExample) {
  const char* packages = getenv("TESSARD_PACKAGES");
  ASSERT_NE(packages, nullptr) << "TESSARD_PACKAGES names no .deb to install";
  // Unpacked in /tmp and copied over the overlaid /usr and /etc, so that the host's root
  // directory itself is never touched.
  std::string out;
  std::istringstream debs(packages);
  for (std::string deb; debs >> deb;) {
    ASSERT_EQ(run_command("rm -rf /tmp/root && dpkg-deb -x '" + deb + "' /tmp/root && " +
                              "for top in etc usr; do [ ! -d /tmp/root/$top ] || " +
                              "cp -a /tmp/root/$top/. /$top/; done",
                          &out),
              0)
        << deb << ": " << out;
  }
  ASSERT_EQ(run_command("systemd-tmpfiles --create /usr/lib/tmpfiles.d/tessard.conf && "
                        "cp -a /usr/share/tessard/example-device/. /",
                        &out),
            0)
      << out;

  std::vector<std::string> exec = unit_words("tessard.service", "ExecStart");
  std::vector<std::string> listen = unit_words("tessard.socket", "ListenStream");
  ASSERT_GE(exec.size(), 1u) << "no ExecStart in the installed service";
  ASSERT_EQ(listen.size(), 1u) << "no single ListenStream in the installed socket";
  activator_ = fork();
  if (activator_ == 0) {
    std::vector<std::string> args = {"systemd-socket-activate", "-l", listen[0]};
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
  EXPECT_EQ(run_command("timeout 10 /usr/bin/tessctl get root.System.Time.TimeZone", &out), 0)
      << out;
  EXPECT_EQ(out, "Europe/Berlin\n");
  EXPECT_TRUE(log().WaitFor("Starting server.", 5000, nullptr, activator_))
      << "the activated daemon is not the one that served";
}

}  // namespace
}  // namespace tessard::test
