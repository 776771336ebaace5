// Crash consistency: a daemon under a stream of acknowledged SETs with immediate write (sync 10)
// is killed with SIGKILL at random moments and started again. After every kill each backing file
// must parse and hold the last acknowledged value or a later one sent to it, and whatever the
// killed daemon left behind must not keep the next one from starting. TESSARD_CRASHTEST_KILLS sets
// the number of kills (scripts/crashtest N); CI runs 30.
#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <tessard/tessclient.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>

#include "tests/support/clientcalls.h"
#include "tests/support/sandbox.h"

namespace tessard::test {
namespace {

struct Backed {
  const char* path;  // parameter below root
  const char* file;
  const char* text;  // the file before the first SET, holding "init"
};

// One parameter in a file of each parser that holds a free-form value.
constexpr Backed kBacked[] = {
    {"Crash.Standard.Value", "/etc/crash/standard.conf", "# standard\nvalue init\nother 1\n"},
    {"Crash.Shell.Value", "/etc/crash/ifcfg", "# shell\nVALUE='init'\nOTHER='1'\n"},
    {"Crash.Resolv.Search", "/etc/crash/resolv.conf", "search init\nnameserver 10.0.0.1\n"},
    {"Crash.Single.Value", "/etc/crash/hostname", "init\n"},
    {"Crash.Standard2.Value", "/etc/crash/standard2.conf", "value = init\n[s]\nother = 1\n"},
};
constexpr int kParams = sizeof kBacked / sizeof kBacked[0];

constexpr const char* kConfig = R"(group Crash {
  accessControl = "system:3"
  group Standard { file = "/etc/crash/standard.conf" parser = "Standardparser"
    param Value { mount = "Standard{Root}{value}" } }
  group Shell { file = "/etc/crash/ifcfg" parser = "ShellParser"
    param Value { mount = "Shell{VALUE}" } }
  group Resolv { file = "/etc/crash/resolv.conf" parser = "Resolvparser"
    param Search { mount = "Resolv{Search}" } }
  group Single { file = "/etc/crash/hostname" parser = "SinglevalueParser"
    param Value { mount = "Singlevalue{}" } }
  group Standard2 { file = "/etc/crash/standard2.conf" parser = "Standard2parser"
    param Value { mount = "Standard2{Root}{value}" } }
}
)";

int kills_wanted() {
  const char* text = getenv("TESSARD_CRASHTEST_KILLS");
  return text != nullptr && atoi(text) > 0 ? atoi(text) : 30;
}

// SETs "v<n>" with n counting up from `next`, parameter n % kParams, until a request fails (the
// daemon died). acked[p] holds the highest n acknowledged for parameter p.
void write_until_killed(std::atomic<int>* next, std::atomic<int>* acked) {
  for (;;) {
    int n = (*next)++;
    if (Set(kBacked[n % kParams].path, "v" + std::to_string(n), 10) != TESSCLIENT_OK) return;
    acked[n % kParams] = n;
  }
}

int leftover_files() {
  int count = 0;
  DIR* dir = opendir("/etc/crash");
  while (dirent* entry = dir != nullptr ? readdir(dir) : nullptr) {
    std::string name = entry->d_name;
    bool backing = false;
    for (const Backed& b : kBacked) backing |= std::string(b.file).ends_with("/" + name);
    count += name != "." && name != ".." && !backing;
  }
  if (dir != nullptr) closedir(dir);
  return count;
}

class CrashConsistencyTest : public SandboxTest {};

TEST_F(CrashConsistencyTest, KilledDaemonKeepsEveryAcknowledgedWrite) {
  ASSERT_EQ(mkdir("/etc/crash", 0755), 0);
  WriteFile("/etc/tessard.conf", kConfig);
  for (const Backed& b : kBacked) WriteFile(b.file, b.text);
  std::mt19937 random(std::random_device{}());
  std::atomic<int> next{0};
  std::atomic<int> acked[kParams];
  for (auto& a : acked) a = -1;
  int kills = kills_wanted(), torn_or_old = 0, leftovers = 0;
  for (int kill_no = 0; kill_no < kills && !HasFailure(); ++kill_no) {
    pid_t pid = StartServing({"/etc/tessard.conf", "0"});
    ASSERT_FALSE(HasFailure()) << "start after kill " << kill_no;
    for (int p = 0; p < kParams; ++p) {
      std::string value = Get(kBacked[p].path);
      int n = value.starts_with("v") ? atoi(value.c_str() + 1) : -1;
      bool fine = value == "init" ? acked[p] < 0
                                  : value == "v" + std::to_string(n) && n % kParams == p &&
                                        n >= acked[p] && n < next;
      torn_or_old += !fine;
      EXPECT_TRUE(fine) << kBacked[p].path << " = \"" << value << "\" after kill " << kill_no
                        << ", last acknowledged v" << acked[p] << "; file:\n"
                        << ReadFile(kBacked[p].file);
    }
    std::thread writer(write_until_killed, &next, acked);
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 150000));
    kill(pid, SIGKILL);
    writer.join();
    ASSERT_EQ(WaitExit(pid), 128 + SIGKILL);
    leftovers += leftover_files() > 0;
  }
  printf(
      "crash test: %d kills, %d SETs sent, %d values torn, empty or older, %d kills left a "
      "temporary file behind\n",
      kills, next.load(), torn_or_old, leftovers);
}

}  // namespace
}  // namespace tessard::test
