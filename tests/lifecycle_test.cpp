// Start-up, pid file, signals and the listening socket of the real daemon.
#include <sys/file.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>

#include "tests/support/sandbox.h"

namespace tessard::test {
namespace {

constexpr const char* kConf = "/etc/tessard.conf";
constexpr const char* kPidFile = "/run/tessard/tessard.pid";
constexpr const char* kSocket = "/run/tessard/tessardsocket";

class LifecycleTest : public SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    if (!HasFatalFailure()) WriteFile(kConf, "group Network { }\n");
  }

  // A pid that belongs to no process: a child that has already been reaped.
  static std::string DeadPid() {
    pid_t pid = fork();
    if (pid == 0) _exit(0);
    waitpid(pid, nullptr, 0);
    return std::to_string(pid);
  }
};

TEST_F(LifecycleTest, RefusedStartsExitWithTheirStatusBeforeServing) {
  WriteFile(kPidFile, "777\n");
  EXPECT_EQ(WaitExit(StartDaemon({kConf})), 255);
  LogLine line;
  ASSERT_TRUE(log().WaitFor("Usage: tessard", 1000, &line));
  EXPECT_EQ(line.message,
            "Usage: tessard <configfile> <port> [-d <dir>] [-d <dir2>] [-daemon] [-upgrade] "
            "[-casesensitive] [-print0] [-print1][-blockdbusonstart]");
  EXPECT_EQ(line.priority, LOG_ERR);
  EXPECT_EQ(ReadFile(kPidFile), "777\n");

  std::string self = std::to_string(getpid()) + "\n";
  WriteFile(kPidFile, self);
  EXPECT_EQ(WaitExit(StartDaemon({kConf, "0"})), 1);
  EXPECT_TRUE(log().WaitFor("Already running", 1000));
  EXPECT_EQ(ReadFile(kPidFile), self);
  EXPECT_FALSE(Exists(kSocket)) << "refused before the socket is made";

  unlink(kPidFile);
  int first = Listen("/run/a.sock"), second = Listen("/run/b.sock");
  EXPECT_EQ(WaitExit(StartDaemon({kConf, "0"}, {first, second})), 1);
  close(first);
  close(second);
  EXPECT_TRUE(log().WaitFor("Too many file descriptors received!", 1000));
  EXPECT_TRUE(log().WaitFor("Last error fatal. Exit.", 1000));
  EXPECT_FALSE(Exists(kPidFile)) << "fatal before the pid file is written";

  std::string dead = DeadPid();
  WriteFile(kPidFile, dead + "\n");
  int holder = open(kPidFile, O_RDONLY);
  ASSERT_EQ(flock(holder, LOCK_EX), 0);
  EXPECT_EQ(WaitExit(StartDaemon({kConf, "0"})), 1);
  close(holder);
  EXPECT_TRUE(log().WaitFor("Can't lock, lock is held by pid " + dead + ".", 1000));
  EXPECT_TRUE(log().WaitFor("Could not write pid.", 1000));
  EXPECT_FALSE(Exists(kPidFile)) << "the exit handler runs on a fatal error";
}

// The pid file is overwritten without truncation: a longer old one leaves its tail behind. A stale
// socket file is replaced.
TEST_F(LifecycleTest, ServesUntilSigtermThenExitsZeroRemovingThePidFile) {
  std::string old = DeadPid() + "000000\n";
  WriteFile(kPidFile, old);
  close(Listen(kSocket));
  pid_t pid = StartServing({kConf, "abc"});  // an unvalidated port still gives a serving daemon
  LogLine line;
  ASSERT_TRUE(log().WaitFor("Starting.", 1000, &line, pid));
  EXPECT_EQ(line.ident, "tessard");
  EXPECT_EQ(line.facility, LOG_LOCAL6 >> 3);
  EXPECT_EQ(line.priority, LOG_INFO);
  std::string mine = std::to_string(pid) + "\n";
  EXPECT_EQ(ReadFile(kPidFile), mine + old.substr(mine.size()));
  int fd = Connect();  // served: a length prefix below the minimum drops the client
  char byte;
  EXPECT_TRUE(fd >= 0 && Send(fd, {0x02, 0x00}) && read(fd, &byte, 1) == 0);
  close(fd);
  kill(pid, SIGTERM);
  EXPECT_EQ(WaitExit(pid), 0);
  EXPECT_FALSE(Exists(kPidFile));
  EXPECT_TRUE(Exists(kSocket)) << "the socket file is left on exit";
}

}  // namespace
}  // namespace tessard::test
