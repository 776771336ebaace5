// Dynamic groups in the real daemon: the data directories at start-up, and groups created, deleted
// and synchronised through client requests.
#include <sys/stat.h>
#include <tessard/tessclient.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "tests/support/clientcalls.h"
#include "tests/support/sandbox.h"

namespace tessard::test {
namespace {

class DynamicGroupsDaemonTest : public SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    if (HasFatalFailure()) return;
    WriteFile("/etc/tessard.conf", "group Net { }\n");
  }
};

// How each directory is made is dynamic_test's; here the daemon's own umask and its reaction to
// a directory that cannot be made.
TEST_F(DynamicGroupsDaemonTest, StartUpMakesTheDataDirectoriesUnderItsOwnUmask) {
  mode_t inherited = umask(077);
  StartServing({"/etc/tessard.conf", "0"});
  umask(inherited);
  struct stat st {};
  ASSERT_EQ(stat("/etc/dynamic/param", &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0755u) << "0775 under the daemon's umask 022";
}

TEST_F(DynamicGroupsDaemonTest, ParameterDirectoryThatCannotBeMadeEndsStartUp) {
  ASSERT_EQ(symlink("/nowhere/at/all", "/etc/dynamic"), 0);
  pid_t pid = StartDaemon({"/etc/tessard.conf", "0"});
  EXPECT_EQ(WaitExit(pid), 255);
  EXPECT_TRUE(log().WaitFor("Initialization of the dynamic directories failed.", 1000));
}

constexpr const char* kConfig = R"(accessControl = "admin:0xF"
group Net {
  group Interface { maxGroups = "4" }
}
)";

// The group template lies in the primary directory, the parameter template in the fallback one.
// Its accessControl rules the creation (template) and the deletion (the group's option).
constexpr const char* kGroupTemplate =
    "group REPLACE_GROUP {\n"
    "  accessControl = \"admin:0xF\"\n"
    "  file = \"REPLACE_FILE\"\n"
    "  parser = \"Standardparser\"\n"
    "  param Address {\n"
    "    mount = \"Standard{REPLACE}{address}\"\n"
    "    type = \"string\"\n"
    "  }\n"
    "}\n";
constexpr const char* kParamTemplate = "[REPLACE]\naddress 10.0.0.REPLACE_NBR\n";

constexpr const char* kGroupFile = "/etc/dynamic/param/net_interface.conf";
constexpr const char* kParamFile = "/etc/dynamic/net_interface.conf";
constexpr const char* kPendingGroupFile = "/tmp/net_interface_temp_grp";
constexpr int kAny = TESSCLIENT_ANY_NUMBER;

class DynamicGroupRequestsTest : public DynamicGroupsDaemonTest {
 protected:
  void SetUp() override {
    DynamicGroupsDaemonTest::SetUp();
    if (HasFatalFailure()) return;
    WriteFile("/etc/tessard.conf", kConfig);
    ASSERT_EQ(system("mkdir -p /usr/etc/sysconfig/template /etc/sysconfig/template"), 0);
    WriteFile("/usr/etc/sysconfig/template/Eth_grp.conf", kGroupTemplate);
    WriteFile("/etc/sysconfig/template/Eth_par.conf", kParamTemplate);
  }

  // The group files are read back at start-up as an extra configuration directory.
  void Serve() { StartServing({"/etc/tessard.conf", "0", "-d", "/etc/dynamic/param"}); }

  // Creates a group under root.Net.Interface; the name, or "<status N>".
  static std::string Create(int number, int sync = 0) {
    TessClient* client = nullptr;
    if (tessclient_connect(nullptr, &client) != 0) return "<no connection>";
    char* name = nullptr;
    int status = tessclient_create_group(client, "root.Net.Interface", "Eth", number, sync, &name);
    std::string result = status == TESSCLIENT_OK ? name : "<status " + std::to_string(status) + ">";
    free(name);
    tessclient_close(client);
    return result;
  }

  // The names of the group headers of a group file, in file order.
  static std::vector<std::string> Headers(const std::string& text) {
    std::vector<std::string> names;
    for (size_t at = text.find("\ngroup "); at != std::string::npos;
         at = text.find("\ngroup ", at + 1)) {
      size_t start = at + 7;
      names.push_back(text.substr(start, text.find(' ', start) - start));
    }
    return names;
  }
};

using Names = std::vector<std::string>;

// Numbering itself (the gap before a higher sibling) is dynamic_test's.
TEST_F(DynamicGroupRequestsTest, CreatedGroupIsReadableAtOnceAndItsFilesChangeAtTheNextSync) {
  Serve();
  EXPECT_EQ(Create(kAny), "I0");
  EXPECT_EQ(ReadFile(kGroupFile), "#Created by tessard\n") << "only the pending file changed";
  EXPECT_EQ(Headers(ReadFile(kPendingGroupFile)), (Names{"Net", "Interface", "I0"}))
      << "the first group of a parent gets the whole nesting";
  EXPECT_EQ(Create(2), "I2") << "the second creation works on the pending files";
  EXPECT_EQ(Get("root.Net.Interface.I2.Address"), "10.0.0.2") << "readable before any sync";
  ASSERT_EQ(Sync(0), TESSCLIENT_OK);
  EXPECT_FALSE(Exists(kPendingGroupFile));
  EXPECT_EQ(Headers(ReadFile(kGroupFile)), (Names{"Net", "Interface", "I0", "I2"}));
  EXPECT_TRUE(log().WaitFor("Created new group 'I2' for 'root.Net.Interface'.", 1000));
}

TEST_F(DynamicGroupRequestsTest, DeletionDropsBlockSectionsAndDependentFiles) {
  Serve();
  ASSERT_EQ(Create(kAny, 10), "I0");
  ASSERT_EQ(Create(kAny, 10), "I1");
  WriteFile(kParamFile,
            ReadFile(kParamFile) + "[Net.Interface.I0.x]\nextra 1\n[Net.Interface.I01]\nkept 2\n");
  for (const char* path :
       {"/etc/dynamic/param/net_interface_i0.conf", "/etc/dynamic/net_interface_i0_sub.conf",
        "/etc/dynamic/net_interface_i01.conf", "/etc/dynamic/net_interface_i1.conf"}) {
    WriteFile(path, "x\n");
  }
  ASSERT_EQ(Delete("root.Net.Interface.I0", 10), TESSCLIENT_OK);
  EXPECT_EQ(Headers(ReadFile(kGroupFile)), (Names{"Net", "Interface", "I1"}));
  EXPECT_EQ(ReadFile(kParamFile),
            "#Created by tessard\n[Net.Interface.I1]\naddress 10.0.0.1\n"
            "[Net.Interface.I01]\nkept 2\n");
  EXPECT_FALSE(Exists("/etc/dynamic/param/net_interface_i0.conf"));
  EXPECT_FALSE(Exists("/etc/dynamic/net_interface_i0_sub.conf"));
  EXPECT_FALSE(Exists("/etc/dynamic/net_interface_i01.conf")) << "a plain prefix match";
  EXPECT_TRUE(Exists("/etc/dynamic/net_interface_i1.conf"));
  EXPECT_EQ(Get("root.Net.Interface.I0.Address"), "<status 16>");
  EXPECT_EQ(Get("root.Net.Interface.I1.Address"), "10.0.0.1");

  EXPECT_EQ(Delete("root"), TESSCLIENT_FAILED);
  EXPECT_TRUE(log().WaitFor("Deleteing 'root' is FORBIDDEN!", 1000));
}

TEST_F(DynamicGroupRequestsTest, RestartedDaemonReadsTheSameGroupsFromTheFiles) {
  Serve();
  ASSERT_EQ(Create(kAny), "I0");
  ASSERT_EQ(Create(3), "I3");
  ASSERT_EQ(Sync(0), TESSCLIENT_OK);
  StopDaemon();
  Serve();
  EXPECT_EQ(Get("root.Net.Interface.I0.Address"), "10.0.0.0");
  EXPECT_EQ(Get("root.Net.Interface.I3.Address"), "10.0.0.3");
  EXPECT_EQ(Create(kAny), "I1") << "numbering sees the groups read back";
}

}  // namespace
}  // namespace tessard::test
