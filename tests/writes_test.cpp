// SET and SNC against the running daemon: what reaches the backing file and when, and who may
// write. The value checks of SET are server/clientserver_requests_test's.
#include <fcntl.h>
#include <sys/wait.h>
#include <tessard/tessclient.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "tests/support/clientcalls.h"
#include "tests/support/sandbox.h"

namespace tessard::test {
namespace {

constexpr const char* kConfig = R"(group Settings {
  accessControl = ":1;operator:3;viewer:1"
  parser = Standardparser
  file = "/etc/settings.conf"
  param Name { mount = "Standard{Root}{name}" }
  param Level { mount = "Standard{Root}{level}" }
  param StaffOnly { mount = "Standard{Root}{staff}" accessControl = "staff:2" }
}
)";

constexpr const char* kFile = "# device settings\nname camera1\nlevel 50\n\nstaff s1\n";

constexpr const char* kPath = "/etc/settings.conf";

class WritesTest : public SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    if (HasFatalFailure()) return;
    WriteFile("/etc/tessard.conf", kConfig);
    WriteFile(kPath, kFile);
  }

  void Serve() { StartServing({"/etc/tessard.conf", "0"}); }

  static std::string FileWith(const std::string& from, const std::string& to) {
    std::string text = kFile;
    text.replace(text.find(from), from.size(), to);
    return text;
  }
};

// A signal-only SNC leaves the change pending; a full one writes it.
TEST_F(WritesTest, SyncByteZeroStoresInMemoryUntilSnc) {
  Serve();
  EXPECT_EQ(Set("Settings.Name", "lobby", 0), TESSCLIENT_OK);
  EXPECT_EQ(Get("Settings.Name"), "lobby");
  EXPECT_EQ(Sync(1), TESSCLIENT_OK);
  EXPECT_EQ(ReadFile(kPath), kFile);
  EXPECT_EQ(Sync(0), TESSCLIENT_OK);
  EXPECT_EQ(ReadFile(kPath), FileWith("name camera1", "name lobby"));
}

TEST_F(WritesTest, SyncByteTenRewritesAtomicallyKeepingOtherBytes) {
  Serve();
  // The file as it was stays readable through a descriptor opened before: replaced by rename,
  // not rewritten in place. (Inode numbers do not tell on the sandbox's overlay, which may give
  // the new file the number of the old one while that is still open.)
  int before = open(kPath, O_RDONLY | O_CLOEXEC);
  ASSERT_GE(before, 0);
  EXPECT_EQ(Set("Settings.Name", "front door", 10), TESSCLIENT_OK);
  EXPECT_EQ(ReadFile(kPath), FileWith("name camera1", "name \"front door\""));
  std::string old(strlen(kFile) + 1, '\0');
  old.resize(std::max<ssize_t>(pread(before, old.data(), old.size(), 0), 0));
  close(before);
  EXPECT_EQ(old, kFile) << "replaced by rename, not rewritten in place";
  EXPECT_FALSE(Exists(std::string(kPath) + ".temp"));
}

TEST_F(WritesTest, ReadingAGroupFileAgainKeepsAPendingChange) {
  Serve();
  // Re-declaring the group reads its backing file without writing it, while Name waits for a sync.
  WriteFile("/etc/dynamic/param/settings.conf", "group Settings { }\n");
  EXPECT_EQ(Set("Settings.Name", "lobby", 0), TESSCLIENT_OK);
  TessClient* client = nullptr;
  ASSERT_EQ(tessclient_connect(nullptr, &client), 0);
  EXPECT_EQ(tessclient_read_file(client, "/etc/dynamic/param/settings.conf"), TESSCLIENT_OK);
  tessclient_close(client);
  ASSERT_EQ(waitpid(daemon_pid(), nullptr, WNOHANG), 0) << "the daemon has ended";
  EXPECT_EQ(Get("Settings.Name"), "lobby");
  EXPECT_EQ(Get("Settings.Level"), "50");
  EXPECT_EQ(Sync(0), TESSCLIENT_OK);
  EXPECT_EQ(ReadFile(kPath), FileWith("name camera1", "name lobby"));
}

// Who may write, by group membership: alice (admin, operator, staff), bob (operator, viewer,
// staff), carol (viewer), dave (no group), sysop (system).
TEST_F(WritesTest, WritesOnlyWithTheWriteBit) {
  Serve();
  struct {
    const TestUser* user;
    const char* path;
    int status;
  } const cases[] = {{&kBob, "Settings.Name", TESSCLIENT_OK},
                     {&kCarol, "Settings.Name", TESSCLIENT_ACCESS_REFUSED},
                     {&kDave, "Settings.Name", TESSCLIENT_ACCESS_REFUSED},
                     {&kSysop, "Settings.Name", TESSCLIENT_OK},
                     {&kAlice, "Settings.StaffOnly", TESSCLIENT_OK},
                     {&kCarol, "Settings.StaffOnly", TESSCLIENT_ACCESS_REFUSED}};
  for (const auto& c : cases) {
    std::string path = c.path;
    EXPECT_EQ(RunAs(*c.user, [&path] { return Set(path, "changed", 0); }), c.status)
        << c.user->name << " " << path;
  }
}

TEST_F(WritesTest, StaffMayWriteButNotReadAndQuietRefusalsAreNotLogged) {
  Serve();
  int status = RunAs(kAlice, [] {
    TessClient* client = nullptr;
    if (tessclient_connect(nullptr, &client) != 0) return 100;
    char* value = nullptr;
    int loud = tessclient_get(client, "Settings.StaffOnly", &value);
    tessclient_set_quiet(client, 1);
    int quiet = tessclient_get(client, "Settings.StaffOnly", &value);
    tessclient_close(client);
    return loud == TESSCLIENT_ACCESS_REFUSED && quiet == TESSCLIENT_ACCESS_REFUSED ? 0 : 1;
  });
  EXPECT_EQ(status, 0);
  ASSERT_TRUE(log().WaitFor("Authorization failure: client UID=2001", 1000));
  usleep(200 * 1000);
  EXPECT_EQ(log().Count("Authorization failure"), 1) << "the quiet request logs nothing";
}

}  // namespace
}  // namespace tessard::test
