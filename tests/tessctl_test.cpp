// tessctl against the running daemon, run as users of the sandbox: a set and a get carried through,
// a refusal by the caller's rights, explain working out the caller's groups, and the bash
// completion asking the daemon. Each command's output and exit statuses are tools/tessctl_test's.
#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/sandbox.h"

namespace tessard::test {
namespace {

constexpr const char* kOutFile = "/tmp/tessctl.out";
constexpr const char* kErrFile = "/tmp/tessctl.err";
// A daemon that never answers must fail the test, not hang it.
constexpr unsigned kTimeLimitSeconds = 10;

// Everybody reads Net and admin also writes it; Secret is admin's alone; Pass is write-only.
constexpr char kConfig[] = R"(group Net {
  accessControl = ":1;admin:3"
  parser = Standardparser
  file = "/etc/net.conf"
  param Host { mount = "Standard{Root}{host}" }
  param Secret { mount = "Standard{Root}{secret}" accessControl = "admin:3" }
  group Eth0 { param Mtu { mount = "Standard{eth0}{mtu}" } }
}
group Sys {
  accessControl = ":1;admin:3"
  param Pass {
    parser = Standardparser file = "/etc/net.conf" mount = "Standard{sys}{pass}"
    type = "writeonly:password:maxlen=8" accessControl = "admin:2"
  }
}
)";

constexpr char kNetFile[] =
    "# network\nhost cam1\nsecret s3cret\n[eth0]\nmtu 1500\n[sys]\npass hidden\n";

struct Outcome {
  int exit = -1;
  std::string out;
  std::string err;
};

bool operator==(const Outcome& a, const Outcome& b) {
  return a.exit == b.exit && a.out == b.out && a.err == b.err;
}

void PrintTo(const Outcome& o, std::ostream* os) {
  *os << (o.exit < 0 ? "killed or no child" : "exit " + std::to_string(o.exit)) << ", out \""
      << o.out << "\", err \"" << o.err << "\"";
}

class TessctlDaemonTest : public SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    if (HasFatalFailure()) return;
    WriteFile("/etc/net.conf", kNetFile);
    WriteFile("/etc/tessard.conf", kConfig);
    StartServing({"/etc/tessard.conf", "0"});
  }

  // Runs `argv` as `user` with its output in kOutFile and kErrFile; the exit status is -1 when it
  // was killed (by the time limit).
  Outcome RunProgram(const TestUser& user, const std::vector<std::string>& argv) {
    unlink(kOutFile);
    unlink(kErrFile);
    int exit = RunAs(user, [&] {
      int out = open(kOutFile, O_WRONLY | O_CREAT | O_EXCL, 0644);
      int err = open(kErrFile, O_WRONLY | O_CREAT | O_EXCL, 0644);
      if (out < 0 || err < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) return 254;
      std::vector<char*> args;
      for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
      args.push_back(nullptr);
      alarm(kTimeLimitSeconds);
      execv(args[0], args.data());
      return 253;
    });
    return {exit, ReadFile(kOutFile), ReadFile(kErrFile)};
  }

  Outcome Tessctl(const TestUser& user, std::vector<std::string> args) {
    args.insert(args.begin(), TESSCTL_BINARY);
    return RunProgram(user, args);
  }
};

// A set and a get carried through, a refusal by the caller's rights, and explain working out
// sysop's rights from its group "system" itself.
TEST_F(TessctlDaemonTest, CarriesRequestsAsTheCallingUser) {
  EXPECT_EQ(Tessctl(kAlice, {"set", "Net.Host", "cam2"}), (Outcome{0, "", ""}));
  std::string changed = kNetFile;
  EXPECT_EQ(ReadFile("/etc/net.conf"), changed.replace(changed.find("cam1"), 4, "cam2"));
  EXPECT_EQ(Tessctl(kCarol, {"get", "Net.Host"}), (Outcome{0, "cam2\n", ""}));
  EXPECT_EQ(Tessctl(kBob, {"get", "Net.Secret"}),
            (Outcome{3, "", "tessctl: root.Net.Secret: access refused\n"}));
  EXPECT_EQ(Tessctl(kSysop, {"explain", "Sys.Pass"}),
            (Outcome{0,
                     "root.Sys.Pass\n"
                     "  value          ***** (write-only)\n"
                     "  type           writeonly:password:maxlen=8: a password of at most 8 "
                     "characters\n"
                     "  flags          writeonly\n"
                     "  read           yes, as a member of system\n"
                     "  write          yes, as a member of system\n"
                     "  accessControl  admin:2\n"
                     "  file           /etc/net.conf\n"
                     "  parser         Standardparser\n"
                     "  mount          Standard{sys}{pass}\n"
                     "  on change      nothing is announced\n",
                     ""}));
}

// The completion function driven as bash drives it: the words typed so far, the last being
// completed, and the candidates it offers, asked of the daemon one group at a time.
TEST_F(TessctlDaemonTest, CompletesCommandsOptionsAndPaths) {
  struct Completion {
    std::vector<std::string> words;
    std::string expected;  // one candidate per line
  };
  const Completion completions[] = {
      {{"ex"}, "explain\n"},
      {{"--j"}, "--json\n"},
      {{"get", ""}, "Net.\nSys.\n"},
      {{"--quiet", "get", "Net."}, "Net.Eth0.\nNet.Host\nNet.Secret\n"},
      {{"get", "root.net.e"}, "root.Net.Eth0.\n"},
      {{"list", "Net."}, "Net.Eth0.\n"},
      {{"option", "Net.Host", "acc"}, "accessControl\n"},
      {{"get", "Nope."}, ""},
  };
  for (const Completion& c : completions) {
    std::string words = "'" TESSCTL_BINARY "'";
    for (const std::string& word : c.words) words += " '" + word + "'";
    std::string script = "source '" TESSCTL_COMPLETION "'; COMP_WORDS=(" + words +
                         "); COMP_CWORD=" + std::to_string(c.words.size()) +
                         "; _tessctl; printf '%s\\n' \"${COMPREPLY[@]}\" | sed '/^$/d'";
    EXPECT_EQ(RunProgram(kDave, {"/bin/bash", "-c", script}), (Outcome{0, c.expected, ""}))
        << words;
  }
}

}  // namespace
}  // namespace tessard::test
