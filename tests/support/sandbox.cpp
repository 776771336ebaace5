#include "tests/support/sandbox.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>

#include "tests/support/textfile.h"

namespace tessard::test {

namespace {

using Clock = std::chrono::steady_clock;

std::string errno_string(const char* what) {
  return std::string(what) + ": " + strerror(errno);
}

bool parse_syslog(const char* data, size_t size, LogLine* line) {
  std::string text(data, size);
  if (text.empty() || text[0] != '<') return false;
  size_t close = text.find('>');
  if (close == std::string::npos) return false;
  int pri = atoi(text.c_str() + 1);
  line->priority = pri & 7;
  line->facility = pri >> 3;
  // "<PRI>Mmm dd hh:mm:ss ident[pid]: message"
  size_t ident_start = close + 1 + 16;
  size_t bracket = text.find('[', ident_start);
  size_t colon = text.find("]: ", ident_start);
  if (ident_start > text.size() || bracket == std::string::npos || colon == std::string::npos) {
    line->message = text.substr(close + 1);
    return true;
  }
  line->ident = text.substr(ident_start, bracket - ident_start);
  line->pid = atoi(text.c_str() + bracket + 1);
  line->message = text.substr(colon + 3);
  return true;
}

// The mount namespace is per process; every test of this process shares it and mounts its own
// layers on top, removing them again at the end of the test.
bool enter_private_namespace(std::string* error) {
  static int state = 0;  // 0 not tried, 1 entered, -1 failed
  static std::string failure;
  if (state == 0) {
    if (unshare(CLONE_NEWNS) != 0) {
      failure = errno_string("unshare(CLONE_NEWNS)");
      state = -1;
    } else if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
      failure = errno_string("making / private");
      state = -1;
    } else {
      state = 1;
    }
  }
  if (state < 0) *error = "cannot make a private mount namespace (" + failure + "); run as root";
  return state > 0;
}

bool make_dir(const std::string& path, std::string* error) {
  if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) {
    *error = errno_string(("mkdir " + path).c_str());
    return false;
  }
  return true;
}

}  // namespace

bool LogCapture::Start(const std::string& path, std::string* error) {
  unlink(path.c_str());
  fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
  if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    *error = errno_string(("binding " + path).c_str());
    return false;
  }
  chmod(path.c_str(), 0666);
  int size = 4 << 20;
  setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
  if (pipe2(stop_pipe_, O_CLOEXEC) != 0) {
    *error = errno_string("pipe");
    return false;
  }
  thread_ = std::thread([this] { Run(); });
  return true;
}

void LogCapture::Run() {
  char buffer[8192];
  for (;;) {
    pollfd fds[2] = {{fd_, POLLIN, 0}, {stop_pipe_[0], POLLIN, 0}};
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (fds[0].revents & POLLIN) {
      std::lock_guard<std::mutex> hold(pause_);
      ssize_t got = recv(fd_, buffer, sizeof(buffer), 0);
      LogLine line;
      if (got > 0 && parse_syslog(buffer, got, &line)) {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back(std::move(line));
      }
      continue;
    }
    if (fds[1].revents) return;
  }
}

void LogCapture::Stop() {
  if (thread_.joinable()) {
    (void)!write(stop_pipe_[1], "x", 1);
    thread_.join();
  }
  for (int* fd : {&fd_, &stop_pipe_[0], &stop_pipe_[1]}) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
  }
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

namespace {

// The source and build trees may lie below /tmp or /run (a checkout in /tmp, say). A fresh tmpfs
// there would hide the daemon binary and the test files, so such trees are bound back at their
// own paths inside the new tmpfs.
struct KeptDir {
  std::string path;
  int fd;
};

std::vector<KeptDir> open_kept_dirs(const std::string& below) {
  std::vector<KeptDir> kept;
  std::string list = TESSARD_KEEP_DIRS;
  size_t start = 0;
  while (start <= list.size()) {
    size_t end = list.find(':', start);
    if (end == std::string::npos) end = list.size();
    std::string dir = list.substr(start, end - start);
    start = end + 1;
    if (dir.compare(0, below.size() + 1, below + "/") != 0) continue;
    int fd = open(dir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) kept.push_back({dir, fd});
  }
  return kept;
}

bool bind_kept_dirs(const std::vector<KeptDir>& kept, std::string* error) {
  for (const KeptDir& dir : kept) {
    std::string command = "mkdir -p '" + dir.path + "'";
    std::string source = "/proc/self/fd/" + std::to_string(dir.fd);
    if (system(command.c_str()) != 0 ||
        mount(source.c_str(), dir.path.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
      *error = errno_string(("binding back " + dir.path).c_str());
      return false;
    }
  }
  return true;
}

}  // namespace

bool SandboxTest::MountAll(std::string* error) {
  for (const char* top : {"etc", "usr", "dev"}) {
    std::string upper = dir_ + "/" + top + "-upper";
    std::string work = dir_ + "/" + top + "-work";
    if (!make_dir(upper, error) || !make_dir(work, error)) return false;
    std::string target = std::string("/") + top;
    std::string options = "lowerdir=" + target + ",upperdir=" + upper + ",workdir=" + work;
    if (mount("overlay", target.c_str(), "overlay", 0, options.c_str()) != 0) {
      *error = errno_string(("overlay on " + target).c_str());
      return false;
    }
    mounted_.push_back(target);
  }
  for (const char* target : {"/run", "/tmp"}) {
    std::vector<KeptDir> kept = open_kept_dirs(target);
    bool ok = mount("tmpfs", target, "tmpfs", 0, "mode=1777") == 0;
    if (!ok) *error = errno_string((std::string("tmpfs on ") + target).c_str());
    if (ok) mounted_.push_back(target);
    ok = ok && bind_kept_dirs(kept, error);
    for (const KeptDir& dir : kept) close(dir.fd);
    if (!ok) return false;
  }
  return make_dir("/run/tessard", error);
}

void SandboxTest::UnmountAll() {
  for (auto it = mounted_.rbegin(); it != mounted_.rend(); ++it) umount2(it->c_str(), MNT_DETACH);
  mounted_.clear();
}

void SandboxTest::AddUsers() {
  std::ofstream passwd("/etc/passwd", std::ios::app);
  std::ofstream group("/etc/group", std::ios::app);
  for (const TestUser& u : {kAlice, kBob, kCarol, kDave, kSysop}) {
    passwd << u.name << ":x:" << u.uid << ":" << u.gid << "::/tmp:/bin/sh\n";
    group << u.name << ":x:" << u.gid << ":\n";
  }
  group << "admin:x:3001:alice\n"
        << "operator:x:3002:bob,alice\n"
        << "viewer:x:3003:carol,bob\n"
        << "system:x:3004:sysop\n"
        << "staff:x:3005:alice,bob\n";
}

void SandboxTest::SetUp() {
  std::string error;
  ASSERT_TRUE(enter_private_namespace(&error)) << error;
  std::string base = TESSARD_SANDBOX_BASE;
  ASSERT_TRUE(make_dir(base, &error)) << error;
  std::string pattern = base + "/sbXXXXXX";
  ASSERT_NE(mkdtemp(pattern.data()), nullptr) << errno_string("mkdtemp");
  dir_ = pattern;
  ASSERT_TRUE(MountAll(&error)) << error;
  AddUsers();
  ASSERT_TRUE(log_.Start("/dev/log", &error)) << error;
}

void SandboxTest::StartSystemBus() {
  // An address inherited from whoever runs the tests would lead the daemon to another bus.
  unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
  std::string error;
  ASSERT_TRUE(make_dir("/run/dbus", &error)) << error;
  ASSERT_TRUE(system_bus_.start(&error, kSystemBusSocket)) << error;
  bus_recorder_ = std::make_unique<testbus::Recorder>();
  ASSERT_TRUE(bus_recorder_->monitor(system_bus_.address(), &error)) << error;
}

void SandboxTest::TearDown() {
  StopDaemon();
  bus_recorder_.reset();
  system_bus_.stop();
  log_.Stop();
  UnmountAll();
  if (!dir_.empty() && getenv("TESSARD_KEEP_SANDBOX") == nullptr) {
    std::string command = "rm -rf '" + dir_ + "'";
    if (system(command.c_str()) != 0) ADD_FAILURE() << "could not remove " << dir_;
  }
}

pid_t SandboxTest::StartDaemon(const std::vector<std::string>& args,
                               const std::vector<int>& passed_fds,
                               const std::map<std::string, std::string>& env) {
  std::string binary = TESSARD_BINARY;
  std::string out = dir_ + "/daemon.stdout";
  std::string err = dir_ + "/daemon.stderr";
  log_.Pause();
  pid_t pid = fork();
  if (pid != 0) {
    log_.Resume();
    if (pid > 0) daemon_pid_ = pid;
    return pid;
  }
  int out_fd = open(out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  int err_fd = open(err.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  dup2(out_fd, 1);
  dup2(err_fd, 2);
  // Move the passed sockets out of the way first, then into place from descriptor 3 on.
  std::vector<int> high;
  for (int fd : passed_fds) high.push_back(fcntl(fd, F_DUPFD, 100));
  for (size_t i = 0; i < high.size(); i++) dup2(high[i], 3 + static_cast<int>(i));
  for (int fd = 3 + static_cast<int>(high.size()); fd < 1024; fd++) close(fd);
  if (!passed_fds.empty()) {
    setenv("LISTEN_FDS", std::to_string(passed_fds.size()).c_str(), 1);
    setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
  }
  // The daemon ends through exit() with its tree still allocated; leaks at exit are expected.
  setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
  for (const auto& [name, value] : env) setenv(name.c_str(), value.c_str(), 1);
  std::vector<char*> argv;
  argv.push_back(binary.data());
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  execv(binary.c_str(), argv.data());
  _exit(127);
}

pid_t SandboxTest::StartActivated(const std::string& listen,
                                  const std::vector<std::string>& command) {
  std::vector<std::string> args = {"systemd-socket-activate", "-l", listen, "-E",
                                   "ASAN_OPTIONS=detect_leaks=0"};
  args.insert(args.end(), command.begin(), command.end());
  log_.Pause();
  pid_t pid = fork();
  if (pid == 0) {
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  log_.Resume();
  if (pid > 0) daemon_pid_ = pid;
  for (int i = 0; i < 500 && pid > 0 && !Exists(listen); i++) usleep(10000);
  if (pid > 0 && Exists(listen)) return pid;
  ADD_FAILURE() << "systemd-socket-activate did not listen on " << listen;
  return -1;
}

std::vector<std::string> SandboxTest::UnitLine(const std::string& path, const std::string& key) {
  std::string text = ReadFile(path);
  size_t at = text.find("\n" + key + "=");
  if (at == std::string::npos) return {};
  at += key.size() + 2;
  std::istringstream line(text.substr(at, text.find('\n', at) - at));
  std::vector<std::string> words;
  for (std::string word; line >> word;) words.push_back(word);
  return words;
}

pid_t SandboxTest::StartServing(const std::vector<std::string>& args,
                                const std::map<std::string, std::string>& env) {
  pid_t pid = StartDaemon(args, {}, env);
  EXPECT_GT(pid, 0);
  EXPECT_TRUE(log_.WaitFor("Starting server.", 15000, nullptr, pid))
      << "daemon did not reach the server loop; stderr: " << ReadFile(dir_ + "/daemon.stderr");
  return pid;
}

int SandboxTest::WaitExit(pid_t pid, int timeout_ms) {
  auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  do {
    int status = 0;
    pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid) {
      if (pid == daemon_pid_) daemon_pid_ = -1;
      if (WIFEXITED(status)) return WEXITSTATUS(status);
      if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    }
    if (r < 0) return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  } while (Clock::now() < deadline);
  return -1;
}

void SandboxTest::StopDaemon() {
  if (daemon_pid_ <= 0) return;
  pid_t pid = daemon_pid_;
  kill(pid, SIGTERM);
  if (WaitExit(pid, 5000) < 0) {
    kill(pid, SIGKILL);
    WaitExit(pid, 5000);
  }
  daemon_pid_ = -1;
}

int SandboxTest::RunAs(const TestUser& user, const std::function<int()>& body) {
  log_.Pause();
  pid_t pid = fork();
  if (pid != 0) log_.Resume();
  if (pid == 0) {
    alarm(60);  // a child that hangs fails its test instead of stalling the run
    if (initgroups(user.name, user.gid) != 0 || setgid(user.gid) != 0 || setuid(user.uid) != 0) {
      _exit(255);
    }
    _exit(body());
  }
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status) == 255 ? -1 : WEXITSTATUS(status);
}

void SandboxTest::WriteFile(const std::string& path, const std::string& content, mode_t mode) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  out.close();
  ASSERT_TRUE(out.good()) << "cannot write " << path;
  chmod(path.c_str(), mode);
}

std::string SandboxTest::ReadFile(const std::string& path) {
  return read_text(path);
}

bool SandboxTest::Exists(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0;
}

int SandboxTest::Connect(const std::string& path) {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
  if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
    return fd;
  }
  if (fd >= 0) close(fd);
  return -1;
}

std::vector<unsigned char> SandboxTest::Frame(int type, const std::vector<unsigned char>& payload) {
  size_t length = payload.size() + 3;
  std::vector<unsigned char> frame(length);
  frame[0] = static_cast<unsigned char>(length & 0xFF);
  frame[1] = static_cast<unsigned char>(length >> 8);
  frame[2] = static_cast<unsigned char>(type);
  std::copy(payload.begin(), payload.end(), frame.begin() + 3);
  return frame;
}

// Form 0 (text), sub-form 2, case byte, uid 0, gid 0, quiet byte, counted path.
std::vector<unsigned char> SandboxTest::GetFrame(const std::string& path) {
  std::vector<unsigned char> payload = {0, 2, 0, 0, 0, 0, 0, 0};
  payload.push_back(path.size() & 0xFF);
  payload.push_back(path.size() >> 8);
  payload.insert(payload.end(), path.begin(), path.end());
  return Frame(0, payload);
}

bool SandboxTest::Send(int fd, const std::vector<unsigned char>& bytes) {
  return write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
}

namespace {

// Reads exactly `count` bytes unless the deadline passes (-1) or the peer closes (-2).
int read_until(int fd, unsigned char* out, size_t count, Clock::time_point deadline) {
  size_t done = 0;
  while (done < count) {
    int left = static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count());
    pollfd pfd{fd, POLLIN, 0};
    if (left <= 0 || poll(&pfd, 1, left) <= 0) return -1;
    ssize_t got = read(fd, out + done, count - done);
    if (got <= 0) return -2;
    done += got;
  }
  return 0;
}

}  // namespace

int SandboxTest::ReadReply(int fd, std::vector<unsigned char>* reply, int timeout_ms) {
  auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  reply->assign(4, 0);
  int r = read_until(fd, reply->data(), 4, deadline);
  if (r != 0) return r;
  size_t total = (*reply)[0] | ((*reply)[1] << 8) | ((*reply)[2] << 16);
  if (total < 4) return -2;
  reply->resize(total);
  return read_until(fd, reply->data() + 4, total - 4, deadline);
}

}  // namespace tessard::test
