// Dynamic groups in the real daemon: the data directories at start-up, and groups created, deleted
// and synchronised through client requests. How each file is rewritten is dynamic_test's.
#include <sys/stat.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "tests/support/sandbox.h"

namespace tessard::test {
namespace {

using Names = std::vector<std::string>;

// The group template lies in the primary directory, the parameter template in the fallback one.
constexpr const char* kGroupTemplate =
    "group REPLACE_GROUP {\n  accessControl = \"admin:0xF\"\n  file = \"REPLACE_FILE\"\n"
    "  parser = \"Standardparser\"\n  param Address { mount = \"Standard{REPLACE}{address}\" "
    "}\n}\n";
constexpr const char* kGroupFile = "/etc/dynamic/param/net_interface.conf";
constexpr const char* kParamFile = "/etc/dynamic/net_interface.conf";

class DynamicGroupsDaemonTest : public SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    if (HasFatalFailure()) return;
    WriteFile(
        "/etc/tessard.conf",
        "accessControl = \"admin:0xF\"\ngroup Net { group Interface { maxGroups = \"4\" } }\n");
    ASSERT_EQ(system("mkdir -p /usr/etc/sysconfig/template /etc/sysconfig/template"), 0);
    WriteFile("/usr/etc/sysconfig/template/Eth_grp.conf", kGroupTemplate);
    WriteFile("/etc/sysconfig/template/Eth_par.conf", "[REPLACE]\naddress 10.0.0.REPLACE_NBR\n");
  }

  // The group files are read back at start-up as an extra configuration directory.
  void Serve() { StartServing({"/etc/tessard.conf", "0", "-d", "/etc/dynamic/param"}); }

  // The names of the group headers of a group file, in file order.
  static Names Headers(const std::string& path) {
    std::string text = ReadFile(path);
    Names names;
    for (size_t at = text.find("\ngroup "); at != std::string::npos;
         at = text.find("\ngroup ", at + 1)) {
      names.push_back(text.substr(at + 7, text.find(' ', at + 7) - at - 7));
    }
    return names;
  }
};

// How each directory is made is dynamic_test's; here the daemon's own umask and its reaction to
// a directory that cannot be made.
TEST_F(DynamicGroupsDaemonTest, StartUpMakesTheDataDirectoriesUnderItsOwnUmask) {
  mode_t inherited = umask(077);
  Serve();
  umask(inherited);
  struct stat st {};
  ASSERT_EQ(stat("/etc/dynamic/param", &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0755u) << "0775 under the daemon's umask 022";
  StopDaemon();
  ASSERT_EQ(system("rm -rf /etc/dynamic && ln -s /nowhere/at/all /etc/dynamic"), 0);
  EXPECT_EQ(WaitExit(StartDaemon({"/etc/tessard.conf", "0"})), 255);
  EXPECT_TRUE(log().WaitFor("Initialization of the dynamic directories failed.", 1000));
}

// Created groups are readable at once and written at the next sync; a restarted daemon reads
// them back, and its numbering sees them.
TEST_F(DynamicGroupsDaemonTest, CreatedGroupsLiveOnInTheFilesAfterASync) {
  const std::string create = "create --sync 0 root.Net.Interface Eth";
  Serve();
  EXPECT_EQ(Ctl(create, "--number 3 " + create), "0|I0\n0|I3\n");
  EXPECT_EQ(Ctl("get root.Net.Interface.I3.Address", "sync"), "0|10.0.0.3\n0|");
  EXPECT_EQ(Headers(kGroupFile), (Names{"Net", "Interface", "I0", "I3"}));
  StopDaemon();
  Serve();
  EXPECT_EQ(Ctl("get root.Net.Interface.I0.Address", create), "0|10.0.0.0\n0|I1\n");
}

TEST_F(DynamicGroupsDaemonTest, DeletionDropsBlockSectionsAndDependentFiles) {
  Serve();
  ASSERT_EQ(Ctl("create root.Net.Interface Eth", "create root.Net.Interface Eth"), "0|I0\n0|I1\n");
  WriteFile(kParamFile,
            ReadFile(kParamFile) + "[Net.Interface.I0.x]\nextra 1\n[Net.Interface.I01]\nkept 2\n");
  const std::string gone[] = {"param/net_interface_i0.conf", "net_interface_i0_sub.conf",
                              "net_interface_i01.conf"};  // a plain prefix match
  for (const std::string& name : gone) WriteFile("/etc/dynamic/" + name, "x\n");
  WriteFile("/etc/dynamic/net_interface_i1.conf", "x\n");
  ASSERT_EQ(Ctl("delete root.Net.Interface.I0"), "0|");
  EXPECT_EQ(Headers(kGroupFile), (Names{"Net", "Interface", "I1"}));
  EXPECT_EQ(ReadFile(kParamFile),
            "#Created by tessard\n[Net.Interface.I1]\naddress 10.0.0.1\n"
            "[Net.Interface.I01]\nkept 2\n");
  for (const std::string& name : gone) EXPECT_FALSE(Exists("/etc/dynamic/" + name)) << name;
  EXPECT_TRUE(Exists("/etc/dynamic/net_interface_i1.conf"));
  EXPECT_EQ(Ctl("--quiet get root.Net.Interface.I0.Address", "--quiet delete root"), "16|1|");
  EXPECT_TRUE(log().WaitFor("Deleteing 'root' is FORBIDDEN!", 1000));
}

}  // namespace
}  // namespace tessard::test
