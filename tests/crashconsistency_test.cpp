// Crash consistency: a daemon under a stream of acknowledged SETs with immediate write (sync 10)
// is killed with SIGKILL at random moments and started again. After every kill each backing file
// must parse and hold the last acknowledged value or a later one sent to it, and whatever the
// killed daemon left behind must not keep the next one from starting. TESSARD_CRASHTEST_KILLS sets
// the number of kills (scripts/crashtest N); CI runs 30.
#include <signal.h>
#include <sys/stat.h>
#include <tessard/tessclient.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>

#include "tests/support/sandbox.h"

namespace tessard::test {
namespace {

// One parameter in a file of each parser that holds a free-form value: its path below root, its
// file, and the file before the first SET, holding "init".
constexpr const char* kBacked[][3] = {
    {"Crash.Standard.Value", "/etc/crash/standard.conf", "# standard\nvalue init\nother 1\n"},
    {"Crash.Shell.Value", "/etc/crash/ifcfg", "# shell\nVALUE='init'\nOTHER='1'\n"},
    {"Crash.Resolv.Search", "/etc/crash/resolv.conf", "search init\nnameserver 10.0.0.1\n"},
    {"Crash.Single.Value", "/etc/crash/hostname", "init\n"},
    {"Crash.Standard2.Value", "/etc/crash/standard2.conf", "value = init\n[s]\nother = 1\n"},
};
constexpr int kParams = std::size(kBacked);

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

// A SET with immediate write on a connection of its own: the status, -1 without a connection.
int Set(const std::string& path, const std::string& value) {
  TessClient* client = nullptr;
  if (tessclient_connect(nullptr, &client) != 0) return -1;
  int status = tessclient_set(client, path.c_str(), value.c_str(), 10);
  tessclient_close(client);
  return status;
}

class CrashConsistencyTest : public SandboxTest {};

TEST_F(CrashConsistencyTest, KilledDaemonKeepsEveryAcknowledgedWrite) {
  ASSERT_EQ(mkdir("/etc/crash", 0755), 0);
  for (const auto& b : kBacked) WriteFile(b[1], b[2]);
  const char* wanted = getenv("TESSARD_CRASHTEST_KILLS");
  int kills = wanted != nullptr && atoi(wanted) > 0 ? atoi(wanted) : 30;
  std::mt19937 random(std::random_device{}());
  // SETs "v<n>" go to parameter n % kParams, n counting up; acked[p] is the highest n
  // acknowledged for parameter p.
  std::atomic<int> next{0}, acked[kParams];
  for (auto& a : acked) a = -1;
  for (int kill_no = 0; kill_no < kills && !HasFailure(); ++kill_no) {
    pid_t pid = Serve(kConfig);
    ASSERT_FALSE(HasFailure()) << "start after kill " << kill_no;
    for (int p = 0; p < kParams; ++p) {
      std::string value = Ctl("get " + std::string(kBacked[p][0]));
      value = value.starts_with("0|") ? value.substr(2, value.size() - 3) : value;
      int n = value.starts_with("v") ? atoi(value.c_str() + 1) : -1;
      EXPECT_TRUE(value == "init" ? acked[p] < 0
                                  : value == "v" + std::to_string(n) && n % kParams == p &&
                                        n >= acked[p] && n < next)
          << kBacked[p][0] << " = \"" << value << "\" after kill " << kill_no
          << ", last acknowledged v" << acked[p] << "; file:\n"
          << ReadFile(kBacked[p][1]);
    }
    std::thread writer([&] {
      for (int n = next++; Set(kBacked[n % kParams][0], "v" + std::to_string(n)) == TESSCLIENT_OK;
           n = next++) {
        acked[n % kParams] = n;
      }
    });
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 150000));
    kill(pid, SIGKILL);
    writer.join();
    ASSERT_EQ(WaitExit(pid), 128 + SIGKILL);
  }
  printf("crash test: %d kills, %d SETs sent\n", kills, next.load());
}

}  // namespace
}  // namespace tessard::test
