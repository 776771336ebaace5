// tessctl against the running daemon, run as users of the sandbox: explain working out the
// caller's groups, and the bash completion asking the daemon. Each command's output and exit
// statuses are tools/tessctl_test's; the other whole-daemon tests make their requests with it.
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/sandbox.h"
#include "tests/support/shellcommand.h"

namespace tessard::test {
namespace {

// Everybody reads Net and admin also writes it; Secret is admin's alone; Pass is write-only.
constexpr char kConfig[] = R"(group Net {
  accessControl = ":1;admin:3"
  parser = Standardparser
  file = "/etc/net.conf"
  param Host { mount = "Standard{Root}{host}" }
  param Secret { mount = "Standard{Root}{secret}" accessControl = "admin:3" }
  group Eth0 { param Mtu { mount = "Standard{eth0}{mtu}" } }
}
group Sys { param Pass { parser = Standardparser file = "/etc/net.conf" mount = "Standard{sys}{pass}"
  type = "writeonly:password:maxlen=8" accessControl = "admin:2" } }
)";
constexpr char kNetFile[] =
    "# network\nhost cam1\nsecret s3cret\n[eth0]\nmtu 1500\n[sys]\npass x\n";

class TessctlDaemonTest : public SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    if (HasFatalFailure()) return;
    WriteFile("/etc/net.conf", kNetFile);
    Serve(kConfig);
  }
};

// explain works out the caller's groups: sysop's rights come from its group "system" alone.
TEST_F(TessctlDaemonTest, ExplainsByTheCallersGroups) {
  std::string explained = CtlAs(kSysop, {"explain Sys.Pass"});
  EXPECT_TRUE(explained.starts_with("0|root.Sys.Pass\n")) << explained;
  EXPECT_NE(explained.find("\n  read           yes, as a member of system\n"
                           "  write          yes, as a member of system\n"),
            std::string::npos)
      << explained;
}

// The completion function driven as bash drives it: the words typed so far, the last being
// completed, and the candidates it offers, asked of the daemon one group at a time.
TEST_F(TessctlDaemonTest, CompletesCommandsOptionsAndPaths) {
  const std::pair<std::vector<std::string>, std::string> completions[] = {
      {{"ex"}, "explain\n"},
      {{"--j"}, "--json\n"},
      {{"get", ""}, "Net.\nSys.\n"},
      {{"--quiet", "get", "Net."}, "Net.Eth0.\nNet.Host\nNet.Secret\n"},
      {{"get", "root.net.e"}, "root.Net.Eth0.\n"},
      {{"list", "Net."}, "Net.Eth0.\n"},
      {{"option", "Net.Host", "acc"}, "accessControl\n"},
  };
  for (const auto& [typed, expected] : completions) {
    std::string words = "'" TESSCTL_BINARY "'", out;
    for (const std::string& word : typed) words += " '" + word + "'";
    std::string script = "source '" TESSCTL_COMPLETION "'; COMP_WORDS=(" + words +
                         "); COMP_CWORD=" + std::to_string(typed.size()) +
                         "; _tessctl; printf '%s\\n' \"${COMPREPLY[@]}\" | sed '/^$/d'";
    std::ofstream("/tmp/complete") << script;
    EXPECT_EQ(
        run_command("setpriv --reuid=dave --regid=dave --init-groups bash /tmp/complete", &out), 0);
    EXPECT_EQ(out, expected) << words;
  }
}

}  // namespace
}  // namespace tessard::test
