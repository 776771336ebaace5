// The Debian packages installed into the sandbox's root: the service unit's command line, started
// as systemd starts it on the socket unit's address (systemd-socket-activate), serves the
// packaged example device, and the installed tessctl reads a parameter from it.
// debian/tests/sandbox runs it with the built packages' paths in TESSARD_PACKAGES.
#include <gtest/gtest.h>
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
  // The words of a "Key=" line of an installed unit.
  static std::vector<std::string> unit_words(const std::string& unit, const std::string& key) {
    std::vector<std::string> words = UnitLine("/usr/lib/systemd/system/" + unit, key);
    return words.empty() ? UnitLine("/lib/systemd/system/" + unit, key) : words;
  }
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
  pid_t pid = StartActivated(listen[0], exec);
  ASSERT_GT(pid, 0);

  out.clear();
  EXPECT_EQ(run_command("timeout 10 /usr/bin/tessctl get root.System.Time.TimeZone", &out), 0)
      << out;
  EXPECT_EQ(out, "Europe/Berlin\n");
  EXPECT_TRUE(log().WaitFor("Starting server.", 5000, nullptr, pid))
      << "the activated daemon is not the one that served";
}

}  // namespace
}  // namespace tessard::test
