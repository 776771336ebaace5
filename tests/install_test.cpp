// cmake --install into a temporary prefix: every piece a device builder needs lands there, and the
// C example builds against the installed client library through pkg-config.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include "tests/support/shellcommand.h"

namespace tessard::test {
namespace {

class InstallTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = std::string(TESSARD_BUILD_DIR) + "/installXXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr) << "mkdtemp under " << TESSARD_BUILD_DIR;
    prefix_ = pattern;
    std::string out;
    ASSERT_EQ(
        run_command("cmake --install '" TESSARD_BUILD_DIR "' --prefix '" + prefix_ + "'", &out), 0)
        << out;
  }

  void TearDown() override {
    if (!prefix_.empty() && system(("rm -rf '" + prefix_ + "'").c_str()) != 0) {
      ADD_FAILURE() << "could not remove " << prefix_;
    }
  }

  std::string prefix_;
};

TEST_F(InstallTest, PutsEveryPieceUnderThePrefix) {
  struct Piece {
    std::string path;
    bool executable;
  };
  const std::string libdir = TESSARD_LIBDIR;
  const Piece pieces[] = {
      {"sbin/tessard", true},
      {"bin/tessctl", true},
      {"bin/tessard-check", true},
      {"share/bash-completion/completions/tessctl", false},
      {libdir + "/libtessard_client.a", false},
      {libdir + "/pkgconfig/tessard-client.pc", false},
      {"include/tessard/tessclient.h", false},
      {"lib/systemd/system/tessard.service", false},
      {"lib/systemd/system/tessard.socket", false},
      {"lib/tmpfiles.d/tessard.conf", false},
      {"share/tessard/example-device/etc/tessard/tessard.conf", false},
      {"share/tessard/example-device/usr/libexec/tessard/uptime", true},
  };
  for (const Piece& piece : pieces) {
    struct stat st {};
    ASSERT_EQ(stat((prefix_ + "/" + piece.path).c_str(), &st), 0) << piece.path << " is missing";
    EXPECT_TRUE(S_ISREG(st.st_mode)) << piece.path;
    EXPECT_EQ((st.st_mode & 0111) != 0, piece.executable) << piece.path;
  }
}

// Rendered as a reader's man renders them; groff names every construct it cannot lay out.
TEST_F(InstallTest, ManualPagesRenderWithoutWarnings) {
  for (const char* page :
       {"man8/tessard.8", "man1/tessctl.1", "man1/tessard-check.1", "man5/tessard.conf.5"}) {
    const std::string path = prefix_ + "/share/man/" + page;
    std::string out;
    EXPECT_EQ(run_command("(man --warnings -E UTF-8 -l '" + path + "' >/dev/null)", &out), 0)
        << page;
    EXPECT_EQ(out, "") << page;
  }
}

TEST_F(InstallTest, CExampleBuildsWithPkgConfig) {
  const std::string program = prefix_ + "/tessget";
  const std::string build = "export PKG_CONFIG_PATH='" + prefix_ +
                            "/" TESSARD_LIBDIR "/pkgconfig'; cc " TESSARD_EXAMPLE_CFLAGS
                            " '" TESSARD_SOURCE_DIR
                            "/examples/client/tessget.c' $(pkg-config --cflags --libs "
                            "tessard-client) -o '" +
                            program + "'";
  std::string out;
  ASSERT_EQ(run_command(build, &out), 0) << build << "\n" << out;

  // No daemon listens at this path: the program reports it and exits with its status 3.
  out.clear();
  EXPECT_EQ(
      run_command("TESSARD_SOCKET='" + prefix_ + "/nosocket' '" + program + "' root.a.b", &out), 3);
  EXPECT_NE(out.find("tessget: cannot reach tessard"), std::string::npos) << out;
  out.clear();
  EXPECT_EQ(run_command("'" + program + "'", &out), 2) << out;
}

}  // namespace
}  // namespace tessard::test
