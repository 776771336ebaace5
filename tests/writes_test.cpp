// SET and SNC against the running daemon: what reaches the backing file and when, value checks,
// and who may write.
#include <fcntl.h>
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
  param Level { mount = "Standard{Root}{level}" type = "int:min=0,max=100" }
  param Serial { mount = "Standard{Root}{serial}" type = "readonly:string" }
  param Mode { mount = "Standard{Root}{mode}" type = "enum:Auto,Manual|Manual mode,Off" }
  param Label { mount = "Standard{Root}{label}" type = "string:maxlen=8" }
  param Clamped { mount = "Standard{Root}{clamped}" type = "int:min=0,max=10" }
  param StaffOnly { mount = "Standard{Root}{staff}" accessControl = "staff:2" }
  param Unset { mount = "Standard{Root}{unset}" }
}
group Host {
  accessControl = ":3"
  param Name { parser = SinglevalueParser file = "/etc/hostname" mount = "Singlevalue{}" }
  param Search { parser = Resolvparser file = "/etc/resolv.conf" mount = "Resolv{Search}" }
  param Shell { parser = ShellParser file = "/etc/ifcfg" mount = "Shell{NAME}" }
}
)";

constexpr const char* kFile =
    "# device settings\n"
    "name camera1\n"
    "level 50\n"
    "\n"
    "serial ABC123\n"
    "mode Auto\n"
    "label front\n"
    "clamped 15\n"
    "staff s1\n";

constexpr const char* kPath = "/etc/settings.conf";

class WritesTest : public SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    if (HasFatalFailure()) return;
    WriteFile("/etc/tessard.conf", kConfig);
    WriteFile(kPath, kFile);
    WriteFile("/etc/hostname", "cam\n");
    WriteFile("/etc/resolv.conf", "search ex.com\n");
    WriteFile("/etc/ifcfg", "NAME='n'\n");
  }

  void Serve(const std::vector<std::string>& extra = {}) {
    std::vector<std::string> args = {"/etc/tessard.conf", "0"};
    args.insert(args.end(), extra.begin(), extra.end());
    StartServing(args);
  }

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

TEST_F(WritesTest, ReadOnlyParameterAnswersSuccessWhenUpgrading) {
  Serve({"-upgrade"});
  EXPECT_EQ(Set("Settings.Serial", "XYZ", 10), TESSCLIENT_OK);
  EXPECT_EQ(Get("Settings.Serial"), "ABC123");
  EXPECT_EQ(ReadFile(kPath), kFile);
}

// Path, value sent, status, value afterwards; in this order, on one daemon.
struct ValueCase {
  const char* path;
  std::string sent;
  int status;
  const char* stored;
};

TEST_F(WritesTest, ChecksTheValueAgainstItsTypeAndItsFile) {
  Serve();
  const ValueCase cases[] = {
      {"Settings.Serial", "XYZ", TESSCLIENT_READ_ONLY, "ABC123"},
      {"Settings.Mode", "Manual mode", TESSCLIENT_FAILED, "Auto"},
      {"Settings.Mode", "Standby", TESSCLIENT_FAILED, "Auto"},
      {"Settings.Mode", "manual", TESSCLIENT_OK, "Manual"},
      {"Settings.Mode", "OFF", TESSCLIENT_OK, "Off"},
      {"Settings.Label", "abcdefghi", TESSCLIENT_FAILED, "front"},
      {"Settings.Label", "abcdefgh", TESSCLIENT_OK, "abcdefgh"},
      {"Settings.Level", "150", TESSCLIENT_OK, "100"},
      {"Settings.Nothing", "x", TESSCLIENT_FAILED, "<status 16>"},
      // Values the backing format cannot hold: they would write other entries.
      {"Host.Search", "ex.com\nnameserver 6.6.6.6", TESSCLIENT_NO_MEMORY, "ex.com"},
      {"Host.Name", "cam\nevil", TESSCLIENT_NO_MEMORY, "cam"},
      {"Host.Shell", std::string(1024, 'x'), TESSCLIENT_NO_MEMORY, "n"},
  };
  for (const ValueCase& c : cases) {
    EXPECT_EQ(Set(c.path, c.sent, 10), c.status) << c.path << " = " << c.sent;
    EXPECT_EQ(Get(c.path), c.stored) << c.path << " = " << c.sent;
  }
  EXPECT_TRUE(log().WaitFor(
      "Attempted to set int value to Level that was out the specified range. Value truncated.",
      1000));
  std::string file = ReadFile(kPath);
  EXPECT_NE(file.find("\nlevel 100\n"), std::string::npos) << file;
}

TEST_F(WritesTest, SerialisedValueOfAnotherKindAnswersTwo) {
  Serve();
  TessClient* client = nullptr;
  ASSERT_EQ(tessclient_connect(nullptr, &client), 0);
  const unsigned char scalar[] = {0x0F, 0x00, 0x06, 0x00, 's', 't', 'r', 'i',
                                  'n',  'g',  0x03, 0x00, 'a', 'b', 'c'};
  EXPECT_EQ(tessclient_set_bytes(client, "Settings.Name", scalar, sizeof(scalar), 10),
            TESSCLIENT_NO_MEMORY);
  const unsigned char lying[] = {0x0F, 0x00, 0x06, 0x00, 's', 't', 'r', 'i', 'n', 'g', 0x09, 0x00};
  EXPECT_EQ(tessclient_set_bytes(client, "Settings.Name", lying, sizeof(lying), 10),
            TESSCLIENT_FAILED)
      << "a value whose lengths point past the request is refused";
  const unsigned char hash[] = {0x08, 0x00, 0x04, 0x00, 'H', 'A', 'S', 'H'};
  EXPECT_EQ(tessclient_set_bytes(client, "Settings.Unset", hash, sizeof(hash), 10),
            TESSCLIENT_NO_MEMORY)
      << "no backing file takes a hash";
  tessclient_close(client);
  EXPECT_TRUE(Alive(daemon_pid()));
  EXPECT_TRUE(
      log().WaitFor("serveSetRequest: Set request with unsupported or wrong data type for "
                    "root.Settings.Name.",
                    1000));
  EXPECT_EQ(Get("Settings.Name"), "camera1");
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
  ASSERT_TRUE(Alive(daemon_pid()));
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
