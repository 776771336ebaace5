// Loading the parameter tree at start-up: the master configuration file, the -d directories and
// the tree printouts of -print0 and -print1, seen from outside the real daemon.
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/sandbox.h"

namespace tessard::test {
namespace {

constexpr const char* kConfig = "/etc/tessard.conf";

class ConfigLoadTest : public SandboxTest {
 protected:
  std::string Stdout() { return ReadFile(dir() + "/daemon.stdout"); }
};

// Directories are read recursively and through links; the eleventh -d is refused.
TEST_F(ConfigLoadTest, PrintsTheTreeLoadedFromFileAndTenDirectories) {
  WriteFile(kConfig,
            "# the device\n"
            "group Network { parser = Standardparser file = \"/etc/net.conf\"\n"
            "  param IPAddress { type = ip mount = \"Standard{Root}{IPAddress}\" }\n"
            "  group Interface { param Name { mount = \"Standard{Root}{Name}\" } }\n"
            "}\n");
  ASSERT_EQ(system("mkdir -p /etc/d0/sub /etc/elsewhere"), 0);
  WriteFile("/etc/d0/sub/a.conf", "group Alpha { param x { file = \"/etc/a\" } }\n");
  WriteFile("/etc/elsewhere/b.conf", "group beta { param y { } }\n");
  ASSERT_EQ(symlink("/etc/elsewhere/b.conf", "/etc/d0/link.conf"), 0);
  std::vector<std::string> args{kConfig, "0", "-print0", "-print1", "-d", "/etc/d0/"};
  std::string tree = "[root]\n  [Alpha]\n    x: file=/etc/a \n  [beta]\n    y: \n";
  for (int i = 1; i <= 10; i++) {
    std::string dir = "/etc/d" + std::to_string(i);
    ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    WriteFile(dir + "/g.conf", "group G" + std::to_string(i) + " { }\n");
    args.insert(args.end(), {"-d", dir});
    if (i < 10) tree += "  [G" + std::to_string(i) + "]\n";
  }
  tree +=
      "  [Network]\n"
      "    IPAddress: parser=Standardparser file=/etc/net.conf type=ip "
      "mount=Standard{Root}{IPAddress} \n"
      "    [Interface]\n"
      "      Name: parser=Standardparser file=/etc/net.conf mount=Standard{Root}{Name} \n";
  StartServing(args);
  StopDaemon();
  EXPECT_EQ(Stdout(), "To many -d parameters\n" + tree + tree);
  EXPECT_EQ(log().Count("To many -d parameters"), 1);
}

// An empty master file cannot be mapped, a directory is missing, a last -d has no value, and a
// grammar error is logged: the daemon serves what it could load.
TEST_F(ConfigLoadTest, BrokenConfigurationStillServes) {
  WriteFile(kConfig, "");
  ASSERT_EQ(mkdir("/etc/more", 0755), 0);
  WriteFile("/etc/more/extra.conf", "group Extra { type = 10 }\n");
  StartServing({kConfig, "0", "-d", "/etc/more", "-d", "/etc/missing", "-print0", "-d"});
  EXPECT_EQ(log().Count("Error initializing the Mapping Database."), 1);
  EXPECT_EQ(log().Count("Failed to opendir(/etc/missing)"), 1);
  EXPECT_EQ(log().Count("/etc/more/extra.conf: Expected option value."), 1);
  EXPECT_EQ(log().Count("Last error fatal. Exit."), 0);
  EXPECT_EQ(Stdout(), "[root]\n  [Extra]\n");
}

}  // namespace
}  // namespace tessard::test
