// A private world for running the real tessard binary.
//
// Each test gets a mount namespace of its own (entered once per test process) in which /etc, /usr
// and /dev are overlays whose upper layers live in the test's temporary directory, and /run and
// /tmp are fresh tmpfs mounts. The daemon therefore uses its real fixed paths while the host never
// changes. Test users and groups are added to the overlaid /etc/passwd and /etc/group, and a
// datagram socket at /dev/log records every syslog line with its priority and pid. A test may
// also give the daemon a system bus of its own, with a monitor that records what is sent on it.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/testbus.h"

namespace tessard::test {

struct LogLine {
  int priority = 0;  // syslog level (LOG_ERR, LOG_INFO, ...), facility removed
  int facility = 0;  // facility code (LOG_LOCAL6 >> 3 for the daemon)
  int pid = 0;
  std::string ident;
  std::string message;
};

struct TestUser {
  const char* name;
  uid_t uid;
  gid_t gid;
};

// Users that exist inside every sandbox. Supplementary groups are listed in kTestGroups.
inline constexpr TestUser kAlice{"alice", 2001, 2001};  // admin
inline constexpr TestUser kBob{"bob", 2002, 2002};      // operator
inline constexpr TestUser kCarol{"carol", 2003, 2003};  // viewer
inline constexpr TestUser kDave{"dave", 2004, 2004};    // no extra group
inline constexpr TestUser kSysop{"sysop", 2005, 2005};  // member of "system"

// Collects syslog datagrams on a background thread so a chatty daemon never blocks on a full
// socket queue.
class LogCapture {
 public:
  bool Start(const std::string& path, std::string* error);
  void Stop();
  // Waits until a line whose message contains `needle` (from `pid`, or any pid when 0) arrives.
  bool WaitFor(const std::string& needle, int timeout_ms, LogLine* found = nullptr, int pid = 0);
  int Count(const std::string& needle);
  // Holds the collector between two datagrams, so that a fork() meanwhile copies no lock it
  // holds (the child of a threaded process could otherwise hang in malloc).
  void Pause() { pause_.lock(); }
  void Resume() { pause_.unlock(); }

 private:
  void Run();
  int fd_ = -1;
  int stop_pipe_[2] = {-1, -1};
  std::thread thread_;
  std::mutex mutex_;
  std::mutex pause_;
  std::vector<LogLine> lines_;
};

class SandboxTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Starts tessard with `args` (argv[0] is added). Extra descriptors in `passed_fds` are placed at
  // 3, 4, ... with LISTEN_FDS/LISTEN_PID set, as systemd does for socket activation.
  pid_t StartDaemon(const std::vector<std::string>& args, const std::vector<int>& passed_fds = {},
                    const std::map<std::string, std::string>& env = {});
  // Starts `command` as systemd starts a socket-activated service: under systemd-socket-activate
  // listening on `listen`. The activated process is the daemon, stopped at TearDown. Waits for
  // the socket; returns the pid, or -1 after failing the test.
  pid_t StartActivated(const std::string& listen, const std::vector<std::string>& command);
  // The words of the "Key=" line of the unit file at `path`; empty when there is none.
  static std::vector<std::string> UnitLine(const std::string& path, const std::string& key);
  // Starts the daemon and waits for "Starting server.". Fails the test on time-out.
  pid_t StartServing(const std::vector<std::string>& args,
                     const std::map<std::string, std::string>& env = {});
  // Waits for the process to end; returns its exit status, 128+signal, or -1 on time-out.
  int WaitExit(pid_t pid, int timeout_ms = 10000);
  void StopDaemon();

  // Runs `body` in a child that has become `user` (setgroups, setgid, setuid); returns the child's
  // exit status, or -1 when the child failed to change identity.
  int RunAs(const TestUser& user, const std::function<int()>& body);

  static void WriteFile(const std::string& path, const std::string& content, mode_t mode = 0644);
  static std::string ReadFile(const std::string& path);
  static bool Exists(const std::string& path);

  // Connects to the daemon's socket (or `path`); returns the descriptor or -1.
  static int Connect(const std::string& path = "/run/tessard/tessardsocket");

  // A request frame: the length prefix, `type` and `payload`; a GET of `path` in text form by root.
  static std::vector<unsigned char> Frame(int type, const std::vector<unsigned char>& payload);
  static std::vector<unsigned char> GetFrame(const std::string& path);
  // Writes all of `bytes` at once; false when the socket took less.
  static bool Send(int fd, const std::vector<unsigned char>& bytes);
  // Reads one reply frame (header included). 0 when a reply came, -1 when none came within
  // `timeout_ms`, -2 when the daemon closed the connection.
  static int ReadReply(int fd, std::vector<unsigned char>* reply, int timeout_ms = 5000);

  // Starts the daemon's system bus: a dbus-daemon that allows everything, listening on
  // kSystemBusSocket in the sandbox's /run, the daemon's default system bus address; and a
  // monitor recording every signal and method call on it (bus()). Call it before the daemon
  // starts. Fails the test when either cannot start; both stop at TearDown.
  void StartSystemBus();
  testbus::Recorder& bus() { return *bus_recorder_; }
  static constexpr char kSystemBusSocket[] = "/run/dbus/system_bus_socket";

  LogCapture& log() { return log_; }
  const std::string& dir() const { return dir_; }
  pid_t daemon_pid() const { return daemon_pid_; }

 private:
  bool MountAll(std::string* error);
  void UnmountAll();
  void AddUsers();

  std::string dir_;
  std::vector<std::string> mounted_;
  LogCapture log_;
  testbus::PrivateBus system_bus_;
  std::unique_ptr<testbus::Recorder> bus_recorder_;
  pid_t daemon_pid_ = -1;
};

}  // namespace tessard::test
