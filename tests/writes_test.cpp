// SET and SNC against the running daemon: what reaches the backing file and when, value checks,
// and who may write.
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
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

  static ino_t Inode(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
  }

  static std::string FileWith(const std::string& from, const std::string& to) {
    std::string text = kFile;
    text.replace(text.find(from), from.size(), to);
    return text;
  }
};

TEST_F(WritesTest, SyncByteZeroStoresInMemoryUntilSnc) {
  Serve();
  EXPECT_EQ(Set("Settings.Name", "lobby", 0), TESSCLIENT_OK);
  EXPECT_EQ(Get("Settings.Name"), "lobby");
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

TEST_F(WritesTest, EqualValueWritesNothing) {
  Serve();
  ino_t before = Inode(kPath);
  EXPECT_EQ(Set("Settings.Name", "camera1", 10), TESSCLIENT_OK);
  EXPECT_EQ(Inode(kPath), before);
}

TEST_F(WritesTest, SignalOnlySyncLeavesTheChangePending) {
  Serve();
  EXPECT_EQ(Set("Settings.Label", "back", 0), TESSCLIENT_OK);
  EXPECT_EQ(Set("Settings.Label", "side", 0), TESSCLIENT_OK);
  EXPECT_EQ(Sync(1), TESSCLIENT_OK);
  EXPECT_EQ(ReadFile(kPath), kFile);
  EXPECT_EQ(Sync(0), TESSCLIENT_OK);
  EXPECT_EQ(ReadFile(kPath), FileWith("label front", "label side"));
}

TEST_F(WritesTest, OutOfRangeSyncModesChangeNothing) {
  Serve();
  EXPECT_EQ(Set("Settings.Name", "lobby", 0), TESSCLIENT_OK);
  EXPECT_EQ(Sync(5), TESSCLIENT_OK);
  LogLine line;
  ASSERT_TRUE(log().WaitFor("map_sync signalOnly=5 out of range", 1000, &line));
  EXPECT_EQ(line.priority, LOG_ERR);
  EXPECT_EQ(Sync(9), TESSCLIENT_OK);
  EXPECT_EQ(ReadFile(kPath), kFile);
  EXPECT_EQ(log().Count("signalOnly="), 1);
}

TEST_F(WritesTest, ReadOnlyParameterRefusesAndStoresNothing) {
  Serve();
  EXPECT_EQ(Set("Settings.Serial", "XYZ", 10), TESSCLIENT_READ_ONLY);
  EXPECT_EQ(Get("Settings.Serial"), "ABC123");
}

TEST_F(WritesTest, ReadOnlyParameterAnswersSuccessWhenUpgrading) {
  Serve({"-upgrade"});
  EXPECT_EQ(Set("Settings.Serial", "XYZ", 10), TESSCLIENT_OK);
  EXPECT_EQ(Get("Settings.Serial"), "ABC123");
  EXPECT_EQ(ReadFile(kPath), kFile);
}

TEST_F(WritesTest, IntegerRangeClampsWithItsMessage) {
  Serve();
  EXPECT_EQ(Set("Settings.Level", "150", 10), TESSCLIENT_OK);
  EXPECT_EQ(Get("Settings.Level"), "100");
  EXPECT_TRUE(log().WaitFor(
      "Attempted to set int value to Level that was out the specified range. Value truncated.",
      1000));
  EXPECT_EQ(ReadFile(kPath), FileWith("level 50", "level 100"));
}

TEST_F(WritesTest, LoadedValuesAreHeldToTheirRange) {
  Serve();
  EXPECT_EQ(Get("Settings.Clamped"), "10");
  EXPECT_TRUE(log().WaitFor("Clamped received a value out of range when defined.", 1000));
  EXPECT_EQ(ReadFile(kPath), kFile) << "only the value in memory is corrected";
}

struct TextCase {
  const char* path;
  const char* sent;
  int status;
  const char* stored;
};

class TextCheckTest : public WritesTest, public ::testing::WithParamInterface<TextCase> {};

// Longer than a shell value can be read back.
const std::string kLongShellValue(1024, 'x');

TEST_P(TextCheckTest, ChecksTheValueAgainstItsType) {
  Serve();
  EXPECT_EQ(Set(GetParam().path, GetParam().sent, 10), GetParam().status);
  EXPECT_EQ(Get(GetParam().path), GetParam().stored);
}

INSTANTIATE_TEST_SUITE_P(
    Values, TextCheckTest,
    ::testing::Values(TextCase{"Settings.Mode", "manual", TESSCLIENT_OK, "Manual"},
                      TextCase{"Settings.Mode", "OFF", TESSCLIENT_OK, "Off"},
                      TextCase{"Settings.Mode", "Manual mode", TESSCLIENT_FAILED, "Auto"},
                      TextCase{"Settings.Mode", "Standby", TESSCLIENT_FAILED, "Auto"},
                      TextCase{"Settings.Label", "abcdefgh", TESSCLIENT_OK, "abcdefgh"},
                      TextCase{"Settings.Label", "abcdefghi", TESSCLIENT_FAILED, "front"},
                      TextCase{"Settings.Nothing", "x", TESSCLIENT_FAILED, "<status 16>"},
                      // Values the backing format cannot hold: they would write other entries.
                      TextCase{"Host.Search", "ex.com\nnameserver 6.6.6.6", TESSCLIENT_NO_MEMORY,
                               "ex.com"},
                      TextCase{"Host.Name", "cam\nevil", TESSCLIENT_NO_MEMORY, "cam"},
                      TextCase{"Host.Shell", kLongShellValue.c_str(), TESSCLIENT_NO_MEMORY, "n"},
                      TextCase{"Settings.Name", "two\nlines", TESSCLIENT_OK, "two\nlines"}));

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
struct WriterCase {
  const TestUser* user;
  const char* path;
  int status;
};

class WriterTest : public WritesTest, public ::testing::WithParamInterface<WriterCase> {};

TEST_P(WriterTest, WritesOnlyWithTheWriteBit) {
  Serve();
  std::string path = GetParam().path;
  int status = RunAs(*GetParam().user, [&path] { return Set(path, "changed", 0); });
  EXPECT_EQ(status, GetParam().status);
}

INSTANTIATE_TEST_SUITE_P(
    Rules, WriterTest,
    ::testing::Values(WriterCase{&kBob, "Settings.Name", TESSCLIENT_OK},
                      WriterCase{&kCarol, "Settings.Name", TESSCLIENT_ACCESS_REFUSED},
                      WriterCase{&kDave, "Settings.Name", TESSCLIENT_ACCESS_REFUSED},
                      WriterCase{&kSysop, "Settings.Name", TESSCLIENT_OK},
                      WriterCase{&kAlice, "Settings.StaffOnly", TESSCLIENT_OK},
                      WriterCase{&kCarol, "Settings.StaffOnly", TESSCLIENT_ACCESS_REFUSED}));

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
