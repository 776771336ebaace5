// cmake --install into a temporary prefix: every piece a device builder needs lands there, the
// manual pages render, and the C example builds against the installed client library through
// pkg-config.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include "tests/support/shellcommand.h"

namespace tessard::test {
namespace {

TEST(InstallTest, InstalledPiecesServeADeviceBuilder) {
  std::string prefix = TESSARD_BUILD_DIR "/installXXXXXX", out;
  ASSERT_NE(mkdtemp(prefix.data()), nullptr) << "mkdtemp under " << TESSARD_BUILD_DIR;
  ASSERT_EQ(run_command("cmake --install '" TESSARD_BUILD_DIR "' --prefix '" + prefix + "'", &out),
            0)
      << out;
  // Each piece, marked with "*" when it must be executable.
  for (std::string path :
       {"sbin/tessard*", "bin/tessctl*", "bin/tessard-check*",
        "share/bash-completion/completions/tessctl", TESSARD_LIBDIR "/libtessard_client.a",
        TESSARD_LIBDIR "/pkgconfig/tessard-client.pc", "include/tessard/tessclient.h",
        "lib/systemd/system/tessard.service", "lib/systemd/system/tessard.socket",
        "lib/tmpfiles.d/tessard.conf", "share/tessard/example-device/etc/tessard/tessard.conf",
        "share/tessard/example-device/usr/libexec/tessard/uptime*"}) {
    bool executable = path.ends_with("*");
    if (executable) path.pop_back();
    struct stat st {};
    EXPECT_EQ(stat((prefix + "/" + path).c_str(), &st), 0) << path << " is missing";
    EXPECT_TRUE(S_ISREG(st.st_mode)) << path;
    EXPECT_EQ((st.st_mode & 0111) != 0, executable) << path;
  }
  // Rendered as a reader's man renders them; groff names every construct it cannot lay out.
  for (const char* page :
       {"man8/tessard.8", "man1/tessctl.1", "man1/tessard-check.1", "man5/tessard.conf.5"}) {
    std::string warnings;
    EXPECT_EQ(run_command(
                  "(man --warnings -E UTF-8 -l '" + prefix + "/share/man/" + page + "' >/dev/null)",
                  &warnings),
              0);
    EXPECT_EQ(warnings, "") << page;
  }
  // Without a daemon at the given path the program reports it and exits 3; without arguments, 2.
  const std::string program = prefix + "/tessget";
  std::string unreachable, usage;
  EXPECT_EQ(run_command("export PKG_CONFIG_PATH='" + prefix +
                            "/" TESSARD_LIBDIR "/pkgconfig'; cc " TESSARD_EXAMPLE_CFLAGS
                            " '" TESSARD_SOURCE_DIR "/examples/client/tessget.c' $(pkg-config "
                            "--cflags --libs tessard-client) -o '" +
                            program + "'",
                        &out),
            0)
      << out;
  EXPECT_EQ(run_command("TESSARD_SOCKET=/nonexistent '" + program + "' root.a.b", &unreachable), 3);
  EXPECT_NE(unreachable.find("tessget: cannot reach tessard"), std::string::npos) << unreachable;
  EXPECT_EQ(run_command("'" + program + "'", &usage), 2) << usage;
  EXPECT_EQ(system(("rm -rf '" + prefix + "'").c_str()), 0);
}

}  // namespace
}  // namespace tessard::test
