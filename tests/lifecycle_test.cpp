// Start-up, pid file, signals and the listening socket of the real daemon.
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

#include "tests/support/sandbox.h"

namespace tessard::test {
namespace {

constexpr const char* kPidFile = "/run/tessard/tessard.pid";
constexpr const char* kSocket = "/run/tessard/tessardsocket";

class LifecycleTest : public SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    if (HasFatalFailure()) return;
    WriteFile("/etc/tessard.conf", "group Network { }\n");
  }

  // A pid that belongs to no process: a child that has already been reaped.
  static pid_t DeadPid() {
    pid_t pid = fork();
    if (pid == 0) _exit(0);
    waitpid(pid, nullptr, 0);
    return pid;
  }

  static int ListeningSocket(const std::string& path) {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) return -1;
    if (listen(fd, 5) != 0) return -1;
    return fd;
  }

  // Sends a frame whose length prefix is below the minimum: the daemon must drop the client.
  static bool DaemonDropsShortFrame(int fd) {
    const unsigned char frame[] = {0x02, 0x00};
    if (write(fd, frame, sizeof(frame)) != 2) return false;
    char byte;
    return read(fd, &byte, 1) == 0;
  }
};

TEST_F(LifecycleTest, UsageWithOnePositionalArgumentExits255AndLeavesPidFile) {
  WriteFile(kPidFile, "777\n");
  pid_t pid = StartDaemon({"/etc/tessard.conf"});
  EXPECT_EQ(WaitExit(pid), 255);
  LogLine line;
  ASSERT_TRUE(log().WaitFor("Usage: tessard <configfile> <port>", 1000, &line));
  EXPECT_EQ(line.message,
            "Usage: tessard <configfile> <port> [-d <dir>] [-d <dir2>] [-daemon] [-upgrade] "
            "[-casesensitive] [-print0] [-print1][-blockdbusonstart]");
  EXPECT_EQ(line.priority, LOG_ERR);
  EXPECT_EQ(ReadFile(kPidFile), "777\n");
}

TEST_F(LifecycleTest, LogsUnderItsIdentWithPidAndFacility) {
  pid_t pid = StartServing({"/etc/tessard.conf", "abc"});
  LogLine line;
  ASSERT_TRUE(log().WaitFor("Starting.", 1000, &line, pid));
  EXPECT_EQ(line.ident, "tessard");
  EXPECT_EQ(line.pid, pid);
  EXPECT_EQ(line.facility, LOG_LOCAL6 >> 3);
  EXPECT_EQ(line.priority, LOG_INFO);
  EXPECT_TRUE(Exists(kSocket)) << "an unvalidated port still gives a serving daemon";
}

TEST_F(LifecycleTest, LivePidInPidFileRefusesSecondInstance) {
  WriteFile(kPidFile, std::to_string(getpid()) + "\n");
  pid_t pid = StartDaemon({"/etc/tessard.conf", "0"});
  EXPECT_EQ(WaitExit(pid), 1);
  LogLine line;
  ASSERT_TRUE(log().WaitFor("Already running", 1000, &line, pid));
  EXPECT_EQ(line.priority, LOG_INFO);
  EXPECT_FALSE(Exists(kSocket)) << "refused before the socket is made";
  EXPECT_EQ(ReadFile(kPidFile), std::to_string(getpid()) + "\n");
}

TEST_F(LifecycleTest, PidFileIsOverwrittenWithoutTruncation) {
  // Longer than any pid: the daemon's shorter pid leaves the old tail behind.
  std::string old = std::to_string(DeadPid()) + "000000\n";
  WriteFile(kPidFile, old);
  pid_t pid = StartServing({"/etc/tessard.conf", "0"});
  std::string mine = std::to_string(pid) + "\n";
  EXPECT_EQ(ReadFile(kPidFile), mine + old.substr(mine.size()));
}

TEST_F(LifecycleTest, SigtermEndsWithStatusZeroAndRemovesPidFile) {
  pid_t pid = StartServing({"/etc/tessard.conf", "0"});
  ASSERT_TRUE(Exists(kPidFile));
  kill(pid, SIGTERM);
  EXPECT_EQ(WaitExit(pid), 0);
  EXPECT_FALSE(Exists(kPidFile));
  EXPECT_TRUE(Exists(kSocket)) << "the socket file is left on exit";
}

TEST_F(LifecycleTest, LockedPidFileIsFatal) {
  std::string recorded = std::to_string(DeadPid());
  WriteFile(kPidFile, recorded + "\n");
  int holder = open(kPidFile, O_RDONLY);
  ASSERT_EQ(flock(holder, LOCK_EX), 0);
  pid_t pid = StartDaemon({"/etc/tessard.conf", "0"});
  EXPECT_EQ(WaitExit(pid), 1);
  close(holder);
  EXPECT_TRUE(
      log().WaitFor("Can't lock, lock is held by pid " + recorded + ".", 1000, nullptr, pid));
  EXPECT_TRUE(log().WaitFor("Could not write pid.", 1000, nullptr, pid));
  EXPECT_FALSE(Exists(kPidFile)) << "the exit handler runs on a fatal error";
}

TEST_F(LifecycleTest, StaleSocketFileIsReplaced) {
  int stale = ListeningSocket(kSocket);
  ASSERT_GE(stale, 0);
  close(stale);
  ASSERT_LT(Connect(), 0) << "nobody listens on the stale socket";
  StartServing({"/etc/tessard.conf", "0"});
  int fd = Connect();
  ASSERT_GE(fd, 0);
  EXPECT_TRUE(DaemonDropsShortFrame(fd));
  close(fd);
}

TEST_F(LifecycleTest, ServesOnTheOneSocketPassedBySystemd) {
  int passed = ListeningSocket("/run/activated.sock");
  ASSERT_GE(passed, 0);
  pid_t pid = StartDaemon({"/etc/tessard.conf", "0"}, {passed});
  close(passed);
  ASSERT_TRUE(log().WaitFor("Starting server.", 15000, nullptr, pid));
  EXPECT_FALSE(Exists(kSocket)) << "no socket file is made under socket activation";
  int fd = Connect("/run/activated.sock");
  ASSERT_GE(fd, 0);
  EXPECT_TRUE(DaemonDropsShortFrame(fd));
  close(fd);
}

TEST_F(LifecycleTest, TwoPassedSocketsAreFatal) {
  int first = ListeningSocket("/run/a.sock");
  int second = ListeningSocket("/run/b.sock");
  pid_t pid = StartDaemon({"/etc/tessard.conf", "0"}, {first, second});
  close(first);
  close(second);
  EXPECT_EQ(WaitExit(pid), 1);
  LogLine fatal;
  LogLine last;
  ASSERT_TRUE(log().WaitFor("Too many file descriptors received!", 1000, &fatal, pid));
  ASSERT_TRUE(log().WaitFor("Last error fatal. Exit.", 1000, &last, pid));
  EXPECT_EQ(fatal.priority, LOG_ERR);
  EXPECT_EQ(last.priority, LOG_ERR);
  EXPECT_FALSE(Exists(kPidFile)) << "fatal before the pid file is written";
}

}  // namespace
}  // namespace tessard::test
