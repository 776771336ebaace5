// The Debian packages installed into the sandbox's root: the service unit's command line, started
// as systemd starts it on the socket unit's address, serves the packaged example device, and the
// installed tessctl reads a parameter from it. debian/tests/sandbox runs it with the built
// packages' paths in TESSARD_PACKAGES.
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string>

#include "tests/support/sandbox.h"
#include "tests/support/shellcommand.h"

namespace tessard::test {
namespace {

class PackageTest : public SandboxTest {};

// Unpacked in /tmp and copied over the overlaid /usr and /etc, so that the host's root directory
// itself is never touched.
TEST_F(PackageTest, InstalledUnitsServeThePackagedExample) {
  const char* packages = getenv("TESSARD_PACKAGES");
  ASSERT_NE(packages, nullptr) << "TESSARD_PACKAGES names no .deb to install";
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
  bool usr_lib = Exists("/usr/lib/systemd/system/tessard.service");
  ServeExampleThroughUnits(usr_lib ? "/usr/lib/systemd/system" : "/lib/systemd/system",
                           "/usr/bin/tessctl");
}

}  // namespace
}  // namespace tessard::test
