// tessctl against the running daemon: each command's output and exit status, run as root and as
// users with and without the rights that the master configuration grants.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/sandbox.h"

namespace tessard::test {
namespace {

constexpr TestUser kRoot{"root", 0, 0};
constexpr const char* kOutFile = "/tmp/tessctl.out";
constexpr const char* kErrFile = "/tmp/tessctl.err";
// A daemon that never answers must fail the test, not hang it.
constexpr unsigned kTimeLimitSeconds = 10;

// Everybody reads Net and admin also writes it; Secret is admin's alone; Closed carries no
// accessControl, which closes it even to root. Admin makes and removes one rule at a time under
// Cam.Rules from the template "rule".
constexpr char kConfig[] = R"(group Cam {
  accessControl = ":1;admin:f"
  group Rules { maxGroups = "1" }
}
group Net {
  accessControl = ":1;admin:3"
  parser = Standardparser
  file = "/etc/net.conf"
  param Host { mount = "Standard{Root}{host}" type = "string:maxlen=8" }
  param Model { mount = "Standard{Root}{model}" type = "readonly:string" }
  param Secret { mount = "Standard{Root}{secret}" accessControl = "admin:3" }
  group Eth0 {
    param Address { mount = "Standard{eth0}{address}" }
    param Mtu { mount = "Standard{eth0}{mtu}" }
  }
}
group Closed {
  param Key { parser = Standardparser file = "/etc/net.conf" mount = "Standard{Root}{model}" }
}
group Sys {
  accessControl = ":1;admin:3"
  param Uptime { getter = "echo 42" type = "const:string" }
  param Zone {
    parser = Standardparser file = "/etc/net.conf" mount = "Standard{sys}{zone}"
    setter = "/bin/true" dbus = "dbus-send --system /t t.Zone string:'$VALUE'"
  }
  param Pass {
    parser = Standardparser file = "/etc/net.conf" mount = "Standard{sys}{pass}"
    type = "writeonly:password:maxlen=8" accessControl = "admin:2"
  }
}
)";

// Every value is written as a rewrite writes it (quoted unless it is letters and digits only), so
// that a rewrite changes nothing but the value that was set.
constexpr char kNetFile[] =
    "# network\nhost cam1\nmodel \"X 100\"\nsecret s3cret\n"
    "[eth0]\naddress \"10.0.0.5\"\nmtu 1500\n[sys]\nzone UTC\npass hidden\n";

constexpr char kRuleGroupTemplate[] = R"(group REPLACE_GROUP {
  accessControl = ":1;admin:f"
  parser = Standardparser
  file = "REPLACE_FILE"
  param Name { mount = "Standard{REPLACE}{name}" }
}
)";
constexpr char kRuleParamTemplate[] = "[REPLACE]\nname rule\n";
constexpr char kRuleValues[] = "/etc/dynamic/cam_rules.conf";

std::string with_host(const std::string& host) {
  std::string text = kNetFile;
  return text.replace(text.find("cam1"), 4, host);
}

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
    mkdir("/usr/etc/sysconfig", 0755);
    mkdir("/usr/etc/sysconfig/template", 0755);
    WriteFile("/usr/etc/sysconfig/template/rule_grp.conf", kRuleGroupTemplate);
    WriteFile("/usr/etc/sysconfig/template/rule_par.conf", kRuleParamTemplate);
    StartServing({"/etc/tessard.conf", "0"});
  }

  // Runs tessctl as `user`; its exit status is -1 when it was killed (by the time limit).
  Outcome Tessctl(const TestUser& user, const std::vector<std::string>& args) {
    unlink(kOutFile);
    unlink(kErrFile);
    int exit = RunAs(user, [&] {
      int out = open(kOutFile, O_WRONLY | O_CREAT | O_EXCL, 0644);
      int err = open(kErrFile, O_WRONLY | O_CREAT | O_EXCL, 0644);
      if (out < 0 || err < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) return 254;
      std::vector<char*> argv{const_cast<char*>(TESSCTL_BINARY)};
      for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
      argv.push_back(nullptr);
      alarm(kTimeLimitSeconds);
      execv(TESSCTL_BINARY, argv.data());
      return 253;
    });
    return {exit, ReadFile(kOutFile), ReadFile(kErrFile)};
  }
};

struct ReadCase {
  const char* name;
  TestUser user;
  std::vector<std::string> args;
  Outcome expected;
};

void PrintTo(const ReadCase& c, std::ostream* os) {
  *os << c.name;
}

const std::string kLongPath(300, 'a');

const ReadCase kReadCases[] = {
    {"GetAsRoot", kRoot, {"get", "Net.Host"}, {0, "cam1\n", ""}},
    {"GetJson",
     kDave,
     {"--json", "get", "Net.Eth0.Mtu"},
     {0, "{\"path\":\"root.Net.Eth0.Mtu\",\"value\":\"1500\"}\n", ""}},
    {"GetMissing",
     kDave,
     {"get", "Net.Nothing"},
     {16, "", "tessctl: root.Net.Nothing: no such parameter\n"}},
    {"GetRefusedToNonAdmin",
     kBob,
     {"get", "Net.Secret"},
     {3, "", "tessctl: root.Net.Secret: access refused\n"}},
    {"QuietRefusal", kCarol, {"--quiet", "get", "Net.Secret"}, {3, "", ""}},
    {"PathTooLong",
     kDave,
     {"get", kLongPath},
     {4, "", "tessctl: root." + kLongPath + ": malformed request\n"}},
    {"NoDaemonAtSocket",
     kDave,
     {"--socket", "/run/none", "get", "Net.Host"},
     {69, "", "tessctl: cannot connect to /run/none: No such file or directory\n"}},
    {"ListShowsOnlyReadable",
     kDave,
     {"list", "Net"},
     {0, "root.Net.Host=cam1\nroot.Net.Model=X 100\n", ""}},
    {"ListJson",
     kDave,
     {"list", "--json", "Net.Eth0"},
     {0, "{\"root.Net.Eth0.Address\":\"10.0.0.5\",\"root.Net.Eth0.Mtu\":\"1500\"}\n", ""}},
    {"ListOfNothing",
     kDave,
     {"list", "Net.Nothing"},
     {1, "", "tessctl: root.Net.Nothing: no such parameter, or values unreadable\n"}},
    {"Info", kDave, {"info", "Net.Eth0", "1"}, {0, "root.Net.Eth0.Mtu\tMtu\tstring\n", ""}},
    {"Groups", kDave, {"groups", "root"}, {0, "root.Cam\nroot.Closed\nroot.Net\nroot.Sys\n", ""}},
    {"Tree",
     kDave,
     {"tree", "Net"},
     {0,
      "root.Net\n  Host (string)\n  Model (string)\n  Secret (string)\n  Eth0\n"
      "    Address (string)\n    Mtu (string)\n",
      ""}},
    {"Option", kDave, {"option", "Net.Host", "mount"}, {0, "Standard{Root}{host}\n", ""}},
    {"ExplainPlain",
     kDave,
     {"explain", "Net.Host"},
     {0,
      "root.Net.Host\n"
      "  value          cam1\n"
      "  type           string:maxlen=8: a text of at most 8 characters\n"
      "  flags          none\n"
      "  read           yes, granted by \":1\"\n"
      "  write          no, no entry of \":1;admin:3\" grants it to you\n"
      "  accessControl  :1;admin:3\n"
      "  file           /etc/net.conf\n"
      "  parser         Standardparser\n"
      "  mount          Standard{Root}{host}\n"
      "  on change      nothing is announced\n",
      ""}},
    {"ExplainReadOnly",
     kAlice,
     {"explain", "Net.Model"},
     {0,
      "root.Net.Model\n"
      "  value          X 100\n"
      "  type           readonly:string: a text\n"
      "  flags          readonly\n"
      "  read           yes, granted by \":1\"\n"
      "  write          no, the parameter is read-only\n"
      "  accessControl  :1;admin:3\n"
      "  file           /etc/net.conf\n"
      "  parser         Standardparser\n"
      "  mount          Standard{Root}{model}\n"
      "  on change      nothing is announced\n",
      ""}},
    {"ExplainWriteOnly",
     kSysop,
     {"explain", "Sys.Pass"},
     {0,
      "root.Sys.Pass\n"
      "  value          ***** (write-only)\n"
      "  type           writeonly:password:maxlen=8: a password of at most 8 characters\n"
      "  flags          writeonly\n"
      "  read           yes, as a member of system\n"
      "  write          yes, as a member of system\n"
      "  accessControl  admin:2\n"
      "  file           /etc/net.conf\n"
      "  parser         Standardparser\n"
      "  mount          Standard{sys}{pass}\n"
      "  on change      nothing is announced\n",
      ""}},
    {"ExplainNotReadable",
     kAlice,
     {"--json", "explain", "Sys.Pass"},
     {0,
      "{\"path\":\"root.Sys.Pass\",\"value\":null,\"masked\":true,\"constraint\":\"a password of "
      "at most 8 "
      "characters\",\"flags\":[\"writeonly\"],\"read\":{\"allowed\":false,\"reason\":\"no entry of "
      "\\\"admin:2\\\" grants it to you\"},\"write\":{\"allowed\":true,\"reason\":\"granted by "
      "\\\"admin:2\\\"\"},\"options\":{\"type\":\"writeonly:password:maxlen=8\",\"accessControl\":"
      "\"admin:2\",\"file\":\"/etc/"
      "net.conf\",\"parser\":\"Standardparser\",\"mount\":\"Standard{sys}{pass}\"}}\n",
      ""}},
    {"ExplainGetter",
     kDave,
     {"explain", "Sys.Uptime"},
     {0,
      "root.Sys.Uptime\n"
      "  value          42\\n\n"
      "  type           const:string: a text\n"
      "  flags          const\n"
      "  read           yes, granted by \":1\"\n"
      "  write          no, no entry of \":1;admin:3\" grants it to you\n"
      "  accessControl  :1;admin:3\n"
      "  getter         echo 42\n"
      "  source         the getter's output, not a file\n",
      ""}},
    {"ExplainSetterWithDbus",
     kCarol,
     {"explain", "Sys.Zone"},
     {0,
      "root.Sys.Zone\n"
      "  value          UTC\n"
      "  type           a text\n"
      "  flags          none\n"
      "  read           yes, granted by \":1\"\n"
      "  write          no, no entry of \":1;admin:3\" grants it to you\n"
      "  accessControl  :1;admin:3\n"
      "  file           /etc/net.conf\n"
      "  parser         Standardparser\n"
      "  mount          Standard{sys}{zone}\n"
      "  dbus           dbus-send --system /t t.Zone string:'$VALUE'\n"
      "  setter         /bin/true\n",
      ""}},
    {"ExplainClosed",
     kRoot,
     {"explain", "Closed.Key"},
     {0,
      "root.Closed.Key\n"
      "  value          (not readable by you)\n"
      "  type           a text\n"
      "  flags          none\n"
      "  read           no, no accessControl: closed to every client\n"
      "  write          no, no accessControl: closed to every client\n"
      "  file           /etc/net.conf\n"
      "  parser         Standardparser\n"
      "  mount          Standard{Root}{model}\n"
      "  on change      nothing is announced\n",
      ""}},
    {"ExplainMissing",
     kDave,
     {"explain", "Net.Nothing"},
     {1, "", "tessctl: root.Net.Nothing: no such parameter\n"}},
    {"OptionNameRefused",
     kDave,
     {"option", "Net.Host", "a.b"},
     {4, "", "tessctl: root.Net.Host: malformed request\n"}},
};

class TessctlReadTest : public TessctlDaemonTest, public ::testing::WithParamInterface<ReadCase> {};

TEST_P(TessctlReadTest, PrintsTheDaemonsAnswer) {
  EXPECT_EQ(Tessctl(GetParam().user, GetParam().args), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Commands, TessctlReadTest, ::testing::ValuesIn(kReadCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(TessctlDaemonTest, SetRewritesTheBackingFile) {
  EXPECT_EQ(Tessctl(kAlice, {"set", "Net.Host", "cam2"}), (Outcome{0, "", ""}));
  EXPECT_EQ(ReadFile("/etc/net.conf"), with_host("cam2"));
  EXPECT_EQ(Tessctl(kCarol, {"get", "Net.Host"}), (Outcome{0, "cam2\n", ""}));
}

TEST_F(TessctlDaemonTest, CreateAndDeleteARule) {
  EXPECT_EQ(Tessctl(kBob, {"create", "Cam.Rules", "rule"}),
            (Outcome{3, "", "tessctl: root.Cam.Rules: access refused\n"}));
  EXPECT_EQ(Tessctl(kAlice, {"create", "Cam.Rules", "nosuch"}),
            (Outcome{1, "", "tessctl: root.Cam.Rules: group could not be created\n"}));
  EXPECT_EQ(Tessctl(kAlice, {"create", "Cam.Rules", "bad.name"}),
            (Outcome{4, "", "tessctl: root.Cam.Rules: malformed request\n"}));
  EXPECT_EQ(Tessctl(kAlice, {"create", "Cam.Rules", "rule"}), (Outcome{0, "R0\n", ""}));
  EXPECT_EQ(ReadFile(kRuleValues), "#Created by tessard\n[Cam.Rules.R0]\nname rule\n");
  EXPECT_EQ(Tessctl(kDave, {"get", "Cam.Rules.R0.Name"}), (Outcome{0, "rule\n", ""}));
  EXPECT_EQ(Tessctl(kDave, {"explain", "Cam.Rules.R0.Name"}),
            (Outcome{0,
                     "root.Cam.Rules.R0.Name\n"
                     "  value          rule\n"
                     "  type           a text\n"
                     "  flags          none\n"
                     "  read           yes, granted by \":1\"\n"
                     "  write          no, no entry of \":1;admin:f\" grants it to you\n"
                     "  accessControl  :1;admin:f\n"
                     "  file           /etc/dynamic/cam_rules.conf\n"
                     "  parser         Standardparser\n"
                     "  mount          Standard{Cam.Rules.R0}{name}\n"
                     "  on change      nothing is announced\n",
                     ""}));
  EXPECT_EQ(Tessctl(kDave, {"groups", "Cam.Rules"}), (Outcome{0, "root.Cam.Rules.R0\n", ""}));
  EXPECT_EQ(Tessctl(kAlice, {"create", "--number", "0", "Cam.Rules", "rule"}),
            (Outcome{6, "", "tessctl: root.Cam.Rules: group limit reached\n"}));

  EXPECT_EQ(Tessctl(kBob, {"delete", "Cam.Rules.R0"}),
            (Outcome{3, "", "tessctl: root.Cam.Rules.R0: access refused\n"}));
  EXPECT_EQ(Tessctl(kAlice, {"delete", "Cam.Rules.R0"}), (Outcome{0, "", ""}));
  EXPECT_EQ(ReadFile(kRuleValues), "#Created by tessard\n");
  EXPECT_EQ(Tessctl(kDave, {"get", "Cam.Rules.R0.Name"}),
            (Outcome{16, "", "tessctl: root.Cam.Rules.R0.Name: no such parameter\n"}));
  EXPECT_EQ(Tessctl(kAlice, {"delete", "Cam.Rules.R0"}),
            (Outcome{1, "", "tessctl: root.Cam.Rules.R0: group could not be deleted\n"}));
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
      {{"get", ""}, "Cam.\nClosed.\nNet.\nSys.\n"},
      {{"--quiet", "get", "Net."}, "Net.Eth0.\nNet.Host\nNet.Model\nNet.Secret\n"},
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
    unlink(kOutFile);
    int exit = RunAs(kDave, [&] {
      int out = open(kOutFile, O_WRONLY | O_CREAT | O_EXCL, 0644);
      if (out < 0 || dup2(out, 1) < 0) return 254;
      alarm(kTimeLimitSeconds);
      execl("/bin/bash", "bash", "-c", script.c_str(), nullptr);
      return 253;
    });
    EXPECT_EQ(exit, 0) << words;
    EXPECT_EQ(ReadFile(kOutFile), c.expected) << words;
  }
}

}  // namespace
}  // namespace tessard::test
