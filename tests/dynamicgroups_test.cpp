// Dynamic groups in the real daemon: the data directories made at start-up.
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "tests/harness/sandbox.h"

namespace tessard::test {
namespace {

class DynamicGroupsDaemonTest : public SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    if (HasFatalFailure()) return;
    WriteFile("/etc/tessard.conf", "group Net { }\n");
  }
};

TEST_F(DynamicGroupsDaemonTest, StartUpMakesBothDataDirectories) {
  StartServing({"/etc/tessard.conf", "0"});
  struct stat st {};
  ASSERT_EQ(stat("/etc/dynamic/param", &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_EQ(st.st_mode & 0777, 0755u) << "0775 under the daemon's umask 022";
}

TEST_F(DynamicGroupsDaemonTest, RegularFileAsParameterDirectoryIsAcceptedAndStartUpGoesOn) {
  WriteFile("/etc/dynamic", "not a directory");
  StartServing({"/etc/tessard.conf", "0"});
  LogLine line;
  ASSERT_TRUE(log().WaitFor("trouble creating the group dir", 1000, &line));
  EXPECT_EQ(line.message,
            "create_directory, trouble creating the group dir '/etc/dynamic/param': Not a "
            "directory");
  EXPECT_EQ(line.priority, LOG_ERR);
  EXPECT_EQ(log().Count("parameter dir"), 0);
}

TEST_F(DynamicGroupsDaemonTest, ParameterDirectoryThatCannotBeMadeEndsStartUp) {
  ASSERT_EQ(symlink("/nowhere/at/all", "/etc/dynamic"), 0);
  pid_t pid = StartDaemon({"/etc/tessard.conf", "0"});
  EXPECT_EQ(WaitExit(pid), 255);
  EXPECT_EQ(log().Count("create_directory, trouble creating the parameter dir '/etc/dynamic': "
                        "File exists"),
            1);
  EXPECT_EQ(log().Count("Initialization of the dynamic directories failed."), 1);
  EXPECT_EQ(log().Count("group dir"), 0) << "the group directory is not tried";
}

}  // namespace
}  // namespace tessard::test
