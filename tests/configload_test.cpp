// Loading the parameter tree at start-up: the master configuration file, the -d directories and
// the tree printouts of -print0 and -print1, seen from outside the real daemon.
#include <syslog.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/sandbox.h"

namespace tessard::test {
namespace {

constexpr const char* kConfig = "/etc/tessard.conf";

class ConfigLoadTest : public SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    if (HasFatalFailure()) return;
    WriteFile(kConfig,
              "# the device\n"
              "group Network { parser = Standardparser file = \"/etc/net.conf\"\n"
              "  param IPAddress { type = ip mount = \"Standard{Root}{IPAddress}\" }\n"
              "  group Interface { param Name { mount = \"Standard{Root}{Name}\" } }\n"
              "}\n");
    WriteFile("/etc/net.conf", "IPAddress 10.0.0.1\nName eth0\n");
  }

  std::string Stdout() { return ReadFile(dir() + "/daemon.stdout"); }
};

TEST_F(ConfigLoadTest, PrintsTheTreeLoadedFromFileAndDirectories) {
  ASSERT_EQ(system("mkdir -p /etc/extra/sub /etc/elsewhere"), 0);
  WriteFile("/etc/extra/sub/a.conf", "group Alpha { param x { file = \"/etc/a\" } }\n");
  WriteFile("/etc/elsewhere/b.conf", "group beta { param y { } }\n");
  ASSERT_EQ(symlink("/etc/elsewhere/b.conf", "/etc/extra/link.conf"), 0);
  StartServing({kConfig, "0", "-d", "/etc/extra/", "-print0", "-print1"});
  StopDaemon();
  std::string tree =
      "[root]\n"
      "  [Alpha]\n"
      "    x: file=/etc/a \n"
      "  [beta]\n"
      "    y: \n"
      "  [Network]\n"
      "    IPAddress: parser=Standardparser file=/etc/net.conf type=ip "
      "mount=Standard{Root}{IPAddress} \n"
      "    [Interface]\n"
      "      Name: parser=Standardparser file=/etc/net.conf mount=Standard{Root}{Name} \n";
  EXPECT_EQ(Stdout(), tree + tree);
}

TEST_F(ConfigLoadTest, TakesTenDirectoriesAndReportsTheEleventh) {
  std::vector<std::string> args{kConfig, "0"};
  for (int i = 0; i < 11; i++) {
    std::string dir = "/etc/d" + std::to_string(i);
    ASSERT_EQ(system(("mkdir -p " + dir).c_str()), 0);
    WriteFile(dir + "/g.conf", "group G" + std::to_string(i) + " { }\n");
    args.insert(args.end(), {"-d", dir});
  }
  args.push_back("-print0");
  StartServing(args);
  StopDaemon();
  std::string out = Stdout();
  EXPECT_NE(out.find("To many -d parameters\n"), std::string::npos);
  EXPECT_NE(out.find("  [G9]\n"), std::string::npos);
  EXPECT_EQ(out.find("  [G10]\n"), std::string::npos);
  EXPECT_EQ(log().Count("To many -d parameters"), 1);
}

TEST_F(ConfigLoadTest, BrokenConfigurationStillServes) {
  WriteFile(kConfig, "");  // cannot be mapped
  WriteFile("/etc/extra.conf", "group Extra { }\n");
  ASSERT_EQ(system("mkdir -p /etc/more && cp /etc/extra.conf /etc/more/"), 0);
  StartServing({kConfig, "0", "-d", "/etc/more", "-d", "/etc/missing", "-print0", "-d"});
  EXPECT_EQ(log().Count("Error initializing the Mapping Database."), 1);
  EXPECT_EQ(log().Count("Failed to opendir(/etc/missing)"), 1);
  EXPECT_EQ(Stdout(), "[root]\n  [Extra]\n");
}

TEST_F(ConfigLoadTest, GrammarErrorIsLoggedAndStartUpGoesOn) {
  WriteFile(kConfig, "group Network { type = 10 }\n");
  StartServing({kConfig, "0", "-print1"});
  StopDaemon();
  EXPECT_EQ(log().Count("/etc/tessard.conf: Expected option value."), 1);
  EXPECT_EQ(log().Count("Last error fatal. Exit."), 0);
  EXPECT_EQ(Stdout(), "[root]\n  [Network]\n");
}

}  // namespace
}  // namespace tessard::test
