#include "tests/support/sandbox.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>

#include "tests/support/shellcommand.h"
#include "tests/support/textfile.h"

namespace tessard::test {

namespace {

using Clock = std::chrono::steady_clock;

std::string errno_string(const std::string& what) {
  return what + ": " + strerror(errno);
}

// "<PRI>Mmm dd hh:mm:ss ident[pid]: message"
LogLine parse_syslog(const std::string& text) {
  LogLine line;
  int pri = atoi(text.c_str() + 1);
  line.priority = pri & 7;
  line.facility = pri >> 3;
  size_t start = text.find('>') + 1 + 16, bracket = text.find('[', start),
         colon = text.find("]: ", start);
  if (start > text.size() || bracket == std::string::npos || colon == std::string::npos) {
    line.message = text.substr(text.find('>') + 1);
    return line;
  }
  line.ident = text.substr(start, bracket - start);
  line.pid = atoi(text.c_str() + bracket + 1);
  line.message = text.substr(colon + 3);
  return line;
}

sockaddr_un unix_address(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
  return address;
}

// The mount namespace is per process: every test of the process shares it and mounts its own
// layers on top, removing them again at the end of the test.
bool enter_private_namespace(std::string* error) {
  static std::string failure = unshare(CLONE_NEWNS) != 0 ? errno_string("unshare(CLONE_NEWNS)")
                               : mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0
                                   ? errno_string("making / private")
                                   : "";
  if (!failure.empty()) *error = "cannot make a private mount namespace (" + failure + ")";
  return failure.empty();
}

bool make_dir(const std::string& path, std::string* error) {
  if (mkdir(path.c_str(), 0755) == 0 || errno == EEXIST) return true;
  *error = errno_string("mkdir " + path);
  return false;
}

// The source and build trees may lie below /tmp or /run (a checkout in /tmp, say). A fresh tmpfs
// there would hide the daemon binary and the test files, so such trees are bound back at their
// own paths inside the new tmpfs.
bool mount_tmpfs_keeping_trees(const std::string& target, std::string* error) {
  std::vector<std::pair<std::string, int>> kept;
  std::istringstream list(TESSARD_KEEP_DIRS);
  for (std::string dir; std::getline(list, dir, ':');) {
    if (dir.starts_with(target + "/")) {
      kept.emplace_back(dir, open(dir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    }
  }
  bool ok = mount("tmpfs", target.c_str(), "tmpfs", 0, "mode=1777") == 0;
  if (!ok) *error = errno_string("tmpfs on " + target);
  for (const auto& [dir, fd] : kept) {
    std::string source = "/proc/self/fd/" + std::to_string(fd);
    if (ok && (system(("mkdir -p '" + dir + "'").c_str()) != 0 ||
               mount(source.c_str(), dir.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0)) {
      *error = errno_string("binding back " + dir);
      ok = false;
    }
    close(fd);
  }
  return ok;
}

}  // namespace

bool LogCapture::Start(const std::string& path, std::string* error) {
  unlink(path.c_str());
  fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = unix_address(path);
  if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    *error = errno_string("binding " + path);
    return false;
  }
  chmod(path.c_str(), 0666);
  int size = 4 << 20;
  setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
  stop_ = false;
  thread_ = std::thread([this] {
    char buffer[8192];
    while (!stop_) {
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, 50) <= 0) continue;
      std::lock_guard<std::mutex> hold(pause_);
      ssize_t got = recv(fd_, buffer, sizeof(buffer), MSG_DONTWAIT);
      if (got <= 0 || buffer[0] != '<') continue;
      std::lock_guard<std::mutex> lock(mutex_);
      lines_.push_back(parse_syslog(std::string(buffer, got)));
    }
  });
  return true;
}

void LogCapture::Stop() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

int LogCapture::Count(const std::string& needle) {
  std::lock_guard<std::mutex> lock(mutex_);
  int count = 0;
  for (const LogLine& line : lines_) count += line.message.find(needle) != std::string::npos;
  return count;
}

bool LogCapture::WaitFor(const std::string& needle, int timeout_ms, LogLine* found, int pid) {
  auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  do {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      for (const LogLine& line : lines_) {
        if ((pid == 0 || line.pid == pid) && line.message.find(needle) != std::string::npos) {
          if (found != nullptr) *found = line;
          return true;
        }
      }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  } while (Clock::now() < deadline);
  return false;
}

bool SandboxTest::MountAll(std::string* error) {
  for (std::string top : {"etc", "usr", "dev"}) {
    std::string upper = dir_ + "/" + top + "-upper", work = dir_ + "/" + top + "-work";
    if (!make_dir(upper, error) || !make_dir(work, error)) return false;
    std::string options = "lowerdir=/" + top + ",upperdir=" + upper + ",workdir=" + work;
    if (mount("overlay", ("/" + top).c_str(), "overlay", 0, options.c_str()) != 0) {
      *error = errno_string("overlay on /" + top);
      return false;
    }
    mounted_.push_back("/" + top);
  }
  for (const char* target : {"/run", "/tmp"}) {
    if (!mount_tmpfs_keeping_trees(target, error)) return false;
    mounted_.push_back(target);
  }
  return make_dir("/run/tessard", error);
}

void SandboxTest::SetUp() {
  std::string error;
  ASSERT_TRUE(enter_private_namespace(&error)) << error << "; run as root";
  std::string pattern = TESSARD_SANDBOX_BASE "/sbXXXXXX";
  ASSERT_TRUE(make_dir(TESSARD_SANDBOX_BASE, &error)) << error;
  ASSERT_NE(mkdtemp(pattern.data()), nullptr) << errno_string("mkdtemp");
  dir_ = pattern;
  ASSERT_TRUE(MountAll(&error)) << error;
  std::ofstream passwd("/etc/passwd", std::ios::app), group("/etc/group", std::ios::app);
  int uid = 2001;
  for (const char* name : {kAlice, kBob, kCarol, kDave, kSysop}) {
    passwd << name << ":x:" << uid << ":" << uid << "::/tmp:/bin/sh\n";
    group << name << ":x:" << uid++ << ":\n";
  }
  group << "admin:x:3001:alice\noperator:x:3002:bob,alice\nviewer:x:3003:carol,bob\n"
        << "system:x:3004:sysop\nstaff:x:3005:alice,bob\n";
  ASSERT_TRUE(log_.Start("/dev/log", &error)) << error;
}

void SandboxTest::StartSystemBus() {
  // An address inherited from whoever runs the tests would lead the daemon to another bus.
  unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
  std::string error;
  ASSERT_TRUE(make_dir("/run/dbus", &error)) << error;
  ASSERT_TRUE(system_bus_.start(&error, kSystemBusSocket)) << error;
  ASSERT_TRUE(bus_.connect(system_bus_.address(), "org.tessard.Recorder", &error)) << error;
}

void SandboxTest::TearDown() {
  StopDaemon();
  system_bus_.stop();
  log_.Stop();
  for (auto it = mounted_.rbegin(); it != mounted_.rend(); ++it) umount2(it->c_str(), MNT_DETACH);
  mounted_.clear();
  if (!dir_.empty() && getenv("TESSARD_KEEP_SANDBOX") == nullptr &&
      system(("rm -rf '" + dir_ + "'").c_str()) != 0) {
    ADD_FAILURE() << "could not remove " << dir_;
  }
}

// Forks with the log collector held (see LogCapture::Pause); the child runs `child` and must not
// return.
pid_t SandboxTest::Spawn(const std::function<void()>& child) {
  log_.Pause();
  pid_t pid = fork();
  if (pid == 0) {
    child();
    _exit(127);
  }
  log_.Resume();
  return pid;
}

pid_t SandboxTest::StartDaemon(const std::vector<std::string>& args,
                               const std::vector<int>& passed_fds) {
  std::string out = dir_ + "/daemon.stdout", err = dir_ + "/daemon.stderr";
  pid_t pid = Spawn([&] {
    dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644), 1);
    dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644), 2);
    // Out of the way first, then into place from descriptor 3 on.
    std::vector<int> high;
    for (int fd : passed_fds) high.push_back(fcntl(fd, F_DUPFD, 100));
    for (size_t i = 0; i < high.size(); i++) dup2(high[i], 3 + static_cast<int>(i));
    for (int fd = 3 + static_cast<int>(high.size()); fd < 1024; fd++) close(fd);
    if (!passed_fds.empty()) {
      setenv("LISTEN_FDS", std::to_string(passed_fds.size()).c_str(), 1);
      setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
    }
    // The daemon ends through exit() with its tree still allocated.
    setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
    std::vector<char*> argv = {const_cast<char*>(TESSARD_BINARY)};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
  });
  if (pid > 0) daemon_pid_ = pid;
  return pid;
}

void SandboxTest::ServeExampleThroughUnits(const std::string& unit_dir,
                                           const std::string& tessctl) {
  std::string script = "cd '" + unit_dir +
                       "' && exec systemd-socket-activate -E ASAN_OPTIONS=detect_leaks=0 -l "
                       "$(sed -n 's/^ListenStream=//p' tessard.socket) "
                       "$(sed -n 's/^ExecStart=//p' tessard.service)";
  pid_t pid = daemon_pid_ = Spawn([&] { execl("/bin/sh", "sh", "-c", script.c_str(), nullptr); });
  ASSERT_GT(pid, 0);
  for (int i = 0; i < 500 && !Exists("/run/tessard/tessardsocket"); i++) usleep(10000);
  std::string out;
  EXPECT_EQ(run_command("timeout 10 " + tessctl + " get root.System.Time.TimeZone", &out), 0)
      << out;
  EXPECT_EQ(out, "Europe/Berlin\n");
  EXPECT_TRUE(log_.WaitFor("Starting server.", 5000, nullptr, pid))
      << "the activated daemon is not the one that served";
  EXPECT_EQ(log_.Count("Failed creating listen socket"), 0);
}

pid_t SandboxTest::StartServing(const std::vector<std::string>& args) {
  pid_t pid = StartDaemon(args);
  EXPECT_TRUE(pid > 0 && log_.WaitFor("Starting server.", 15000, nullptr, pid))
      << "daemon did not reach the server loop; stderr: " << ReadFile(dir_ + "/daemon.stderr");
  return pid;
}

pid_t SandboxTest::Serve(const std::string& config, std::vector<std::string> more_args) {
  WriteFile("/etc/tessard.conf", config);
  more_args.insert(more_args.begin(), {"/etc/tessard.conf", "0"});
  return StartServing(more_args);
}

int SandboxTest::WaitExit(pid_t pid, int timeout_ms) {
  auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  do {
    int status = 0;
    if (pid_t r = waitpid(pid, &status, WNOHANG); r != 0) {
      daemon_pid_ = pid == daemon_pid_ ? -1 : daemon_pid_;
      return r < 0 ? -1 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  } while (Clock::now() < deadline);
  return -1;
}

void SandboxTest::StopDaemon() {
  if (pid_t pid = daemon_pid_; pid > 0 && kill(pid, SIGTERM) == 0 && WaitExit(pid, 5000) < 0) {
    kill(pid, SIGKILL);
    WaitExit(pid, 5000);
  }
  daemon_pid_ = -1;
}

std::string SandboxTest::CtlAs(const char* user, const std::vector<std::string>& commands) {
  std::string as = user ? "setpriv --reuid=" + std::string(user) + " --regid=" + user +
                              " --init-groups "
                        : "",
              results;
  for (const std::string& command : commands) {
    std::string out;
    int status = run_command("timeout 10 " + as + TESSCTL_BINARY " " + command, &out);
    results += std::to_string(status) + "|" + out;
  }
  return results;
}

void SandboxTest::WriteFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  ASSERT_TRUE(out << content) << "cannot write " << path;
}

int SandboxTest::Socket(const std::string& path, bool listening) {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = unix_address(path);
  auto* at = reinterpret_cast<sockaddr*>(&address);
  if (fd >= 0 && (listening ? bind(fd, at, sizeof address) == 0 && listen(fd, 5) == 0
                            : connect(fd, at, sizeof address) == 0)) {
    return fd;
  }
  if (fd >= 0) close(fd);
  return -1;
}

// The length prefix (16 bits) counts itself and the type byte.
std::vector<unsigned char> SandboxTest::Frame(int type, const std::vector<unsigned char>& payload) {
  size_t length = payload.size() + 3;
  // Built in place: an optimising compiler misreads an insert after a three-byte start.
  std::vector<unsigned char> frame(length);
  frame[0] = static_cast<unsigned char>(length & 0xFF);
  frame[1] = static_cast<unsigned char>(length >> 8);
  frame[2] = static_cast<unsigned char>(type);
  std::copy(payload.begin(), payload.end(), frame.begin() + 3);
  return frame;
}

// Form 0 (text), sub-form 2, case byte, uid 0, gid 0, quiet byte, counted path.
std::vector<unsigned char> SandboxTest::GetFrame(const std::string& path) {
  unsigned char low = path.size() & 0xFF, high = path.size() >> 8;
  std::vector<unsigned char> payload = {0, 2, 0, 0, 0, 0, 0, 0, low, high};
  payload.insert(payload.end(), path.begin(), path.end());
  return Frame(0, payload);
}

bool SandboxTest::Send(int fd, const std::vector<unsigned char>& bytes) {
  return write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
}

int SandboxTest::ReadReply(int fd, std::vector<unsigned char>* reply, int timeout_ms) {
  auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  reply->assign(4, 0);
  // The header's 24-bit length is known once its first 4 bytes are in.
  for (size_t done = 0; done < reply->size();) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd p{fd, POLLIN, 0};
    if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) <= 0) return -1;
    ssize_t got = read(fd, reply->data() + done, reply->size() - done);
    if (got <= 0) return -2;
    done += got;
    size_t total = (*reply)[0] | ((*reply)[1] << 8) | ((*reply)[2] << 16);
    if (done == 4 && reply->size() == 4) {
      if (total < 4) return -2;
      reply->resize(total);
    }
  }
  return 0;
}

}  // namespace tessard::test
