// A private world for running the real tessard binary.
//
// Each test process enters a mount namespace of its own, in which every test lays overlays over
// /etc, /usr and /dev (upper layers in the test's directory) and fresh tmpfs mounts over /run and
// /tmp. The daemon therefore uses its real fixed paths while the host never changes. Test users
// and groups are added to the overlaid /etc/passwd and /etc/group, and a datagram socket at
// /dev/log records every syslog line. A test may also give the daemon a system bus of its own.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/testbus.h"
#include "tests/support/textfile.h"

namespace tessard::test {

struct LogLine {
  int priority = 0, facility = 0, pid = 0;  // priority: the syslog level alone
  std::string ident, message;
};

// Users of every sandbox, uids 2001 to 2005 in this order (each also the gid of the user's own
// group), in the groups admin (alice), operator (bob, alice), viewer (carol, bob), system (sysop)
// and staff (alice, bob); dave is in none.
inline constexpr const char *kAlice = "alice", *kBob = "bob", *kCarol = "carol", *kDave = "dave",
                            *kSysop = "sysop";

// Collects syslog datagrams on a background thread so a chatty daemon never blocks.
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
  int fd_ = -1;
  std::atomic<bool> stop_{false};
  std::thread thread_;
  std::mutex mutex_, pause_;
  std::vector<LogLine> lines_;
};

class SandboxTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Starts tessard with `args`. Descriptors in `passed_fds` are placed at 3, 4, ... with
  // LISTEN_FDS/LISTEN_PID set, as systemd does for socket activation.
  pid_t StartDaemon(const std::vector<std::string>& args, const std::vector<int>& passed_fds = {});
  // Starts the daemon and waits for "Starting server."; fails the test on time-out.
  pid_t StartServing(const std::vector<std::string>& args);
  // Writes the master configuration file and starts serving it.
  pid_t Serve(const std::string& config, std::vector<std::string> more_args = {});
  // Starts the command line of `unit_dir`/tessard.service as systemd starts it, under
  // systemd-socket-activate on the address of tessard.socket, and checks that `tessctl` reads the
  // example device's time zone from that daemon.
  void ServeExampleThroughUnits(const std::string& unit_dir, const std::string& tessctl);
  // The exit status, 128+signal, or -1 on time-out.
  int WaitExit(pid_t pid, int timeout_ms = 10000);
  void StopDaemon();

  // Runs tessctl with each of `commands` (shell words) in turn as `user` (root when null), for at
  // most 10 s each: "<exit status>|<standard output and error>" of each, joined.
  static std::string CtlAs(const char* user, const std::vector<std::string>& commands);
  template <typename... Commands>
  static std::string Ctl(const Commands&... commands) {
    return CtlAs(nullptr, {commands...});
  }

  static void WriteFile(const std::string& path, const std::string& content);
  static std::string ReadFile(const std::string& path) { return read_text(path); }
  static bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

  // Connects to the daemon's socket (or `path`), or listens on `path`; the descriptor or -1.
  static int Connect(const std::string& path = "/run/tessard/tessardsocket") {
    return Socket(path, false);
  }
  static int Listen(const std::string& path) { return Socket(path, true); }
  // A request frame of `type`; a GET of `path` in text form by root.
  static std::vector<unsigned char> Frame(int type, const std::vector<unsigned char>& payload);
  static std::vector<unsigned char> GetFrame(const std::string& path);
  static bool Send(int fd, const std::vector<unsigned char>& bytes);
  // Reads one reply frame (header included): 0 when one came, -1 when none came within
  // `timeout_ms`, -2 when the daemon closed the connection.
  static int ReadReply(int fd, std::vector<unsigned char>* reply, int timeout_ms = 5000);

  // Starts a dbus-daemon at kSystemBusSocket (the daemon's default system bus) and a recorder of
  // its signals (bus()); before the daemon starts. Both stop at TearDown.
  void StartSystemBus();
  testbus::Recorder& bus() { return bus_; }
  static constexpr char kSystemBusSocket[] = "/run/dbus/system_bus_socket";

  LogCapture& log() { return log_; }
  const std::string& dir() const { return dir_; }
  pid_t daemon_pid() const { return daemon_pid_; }

 private:
  static int Socket(const std::string& path, bool listening);
  pid_t Spawn(const std::function<void()>& child);
  bool MountAll(std::string* error);

  std::string dir_;
  std::vector<std::string> mounted_;
  LogCapture log_;
  testbus::PrivateBus system_bus_;
  testbus::Recorder bus_;
  pid_t daemon_pid_ = -1;
};

}  // namespace tessard::test
