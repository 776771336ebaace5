// tessard-check on copies of the example device, each with one planted fault, read below --root
// so that nothing outside the copy is looked at.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "tests/support/shellcommand.h"
#include "tests/support/textfile.h"

namespace {

constexpr const char* kConfig = "/etc/tessard/tessard.conf";
constexpr uid_t kNobody = 65534;

using Outcome = std::pair<int, std::string>;  // exit status, standard output

class CheckTest : public ::testing::Test {
 protected:
  // The copy and the program in a directory of their own that every user may enter, so that an
  // ordinary user runs them whatever the build tree's permissions are.
  void SetUp() override {
    const char* tmp = getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr ? tmp : "/tmp") + "/tessard_check_test.XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
    root_ = dir_ + "/root";
    binary_ = dir_ + "/tessard-check";
    ASSERT_EQ(system(("cp -r '" TESSARD_EXAMPLE_DIR "' '" + root_ +
                      "' && cp '" TESSARD_CHECK_BINARY "' '" + binary_ + "' && chmod -R a+rX '" +
                      dir_ + "'")
                         .c_str()),
              0);
  }
  void TearDown() override {
    if (!dir_.empty()) {
      EXPECT_EQ(system(("rm -rf '" + dir_ + "'").c_str()), 0);
    }
  }

  std::string Read(const std::string& path) const { return tessard::test::read_text(root_ + path); }

  // Replaces the first `find` in the copy's file by `replace`.
  void Plant(const std::string& path, const std::string& find, const std::string& replace) {
    std::string text = Read(path);
    size_t at = text.find(find);
    ASSERT_NE(at, std::string::npos) << find << " not in " << path;
    tessard::test::write_file(root_ + path, text.replace(at, find.size(), replace));
  }

  // Runs tessard-check --root COPY ARGS as `uid`; standard error is not kept.
  Outcome Check(const std::vector<std::string>& args, uid_t uid = 0) {
    // LeakSanitizer reads /proc at exit, which is not below the copy's root.
    std::string command = "ASAN_OPTIONS=detect_leaks=0 ";
    if (uid != 0) {
      command += "setpriv --reuid=" + std::to_string(uid) + " --regid=" + std::to_string(uid) +
                 " --clear-groups ";
    }
    command += "'" + binary_ + "' --root '" + root_ + "'";
    for (const std::string& arg : args) command += " '" + arg + "'";
    std::string out;
    int status = tessard::test::run_command("{ " + command + " 2>/dev/null; }", &out);
    return {status, out};
  }

  std::string dir_;
  std::string root_;    // the copy of the example device
  std::string binary_;  // tessard-check
};

struct Fault {
  const char* name;
  const char* file;  // of the copy
  const char* find;  // replaced by `replace`; null: the file is removed
  const char* replace;
  Outcome expected;
};

void PrintTo(const Fault& c, std::ostream* os) {
  *os << c.name;
}

const Fault kFaults[] = {
    {"Clean", kConfig, "", "", {0, ""}},
    {"GrammarError",
     kConfig,
     R"(type = "int:min=576,max=9000")",
     "type = 576",
     {1,
      "/etc/tessard/tessard.conf:40: grammar: /etc/tessard/tessard.conf: Expected option "
      "value.\n"}},
    {"MissingFile",
     "/etc/hostname",
     nullptr,
     nullptr,
     {1,
      "/etc/tessard/tessard.conf:19: file: Backing file /etc/hostname of root.Network.Hostname "
      "does not exist; the daemon would create it empty\n"}},
    {"UnknownParser",
     kConfig,
     "SinglevalueParser",
     "SingleValueParser",
     {1,
      "/etc/tessard/tessard.conf:19: parser: Specified parser (SingleValueParser) for "
      "'root.Network.Hostname' doesn't exist!\n"}},
    {"UnboundMount",
     kConfig,
     "Standard{ntp}{server}",
     "Standard{ntp}{servers}",
     {1,
      "/etc/tessard/tessard.conf:107: mount: root.System.Time.NtpServer: mount "
      "Standard{ntp}{servers} is found nowhere in /etc/sysconfig/time.conf\n"}},
    {"DuplicateBinding",
     kConfig,
     "Shell{GATEWAY}",
     "Shell{NETMASK}",
     {1,
      "/etc/tessard/tessard.conf:39: binding: root.Network.eth0.Gateway is bound to the same "
      "place as root.Network.eth0.SubnetMask (/etc/sysconfig/ifcfg-eth0, mount Shell{NETMASK})\n"}},
    {"ConstraintBreach",
     "/etc/sysconfig/time.conf",
     "interval 1024",
     "interval 10",
     {1,
      "/etc/tessard/tessard.conf:108: constraint: NtpInterval received a value out of range when "
      "defined. (/etc/sysconfig/time.conf holds 10, the daemon would store 64)\n"}},
    {"NonIdempotentFile",
     "/etc/sysconfig/time.conf",
     "timezone \"Europe/Berlin\"",
     "timezone Europe/Berlin",
     {1,
      "/etc/sysconfig/time.conf:5: roundtrip: the first write changes this file although no "
      "value changed\n"
      "--- /etc/sysconfig/time.conf\n"
      "+++ /etc/sysconfig/time.conf (as the daemon writes it)\n"
      "@@ -2,7 +2,7 @@\n"
      " # Each line holds a key and its value; a value that is not only letters and digits is\n"
      " # double-quoted.\n \n-timezone Europe/Berlin\n+timezone \"Europe/Berlin\"\n \n"
      " [ntp]\n enabled yes\n"}},
    {"TemplateError",
     "/usr/etc/sysconfig/template/eventrule_grp.conf",
     "maxGroups = \"8\"",
     "maxGroups = 8",
     {1,
      "/usr/etc/sysconfig/template/eventrule_grp.conf:3: template: "
      "/usr/etc/sysconfig/template/eventrule_grp.conf: Expected option value.\n"}},
    {"ValueTemplateLacksAValue",
     "/usr/etc/sysconfig/template/eventrule_par.conf",
     "duration 10",
     "duration",
     {1,
      "/usr/etc/sysconfig/template/eventrule_par.conf: template: Duration: mount "
      "Standard{REPLACE}{duration} is not in the value template\n"}},
    {"NoConfiguration", kConfig, nullptr, nullptr, {2, ""}},
};

class CheckFaultTest : public CheckTest, public ::testing::WithParamInterface<Fault> {};

TEST_P(CheckFaultTest, ReportsTheFaultWhereItIs) {
  const Fault& fault = GetParam();
  if (fault.find == nullptr) {
    ASSERT_EQ(unlink((root_ + fault.file).c_str()), 0) << fault.file;
  } else {
    Plant(fault.file, fault.find, fault.replace);
  }
  std::string before = Read("/etc/sysconfig/time.conf");
  EXPECT_EQ(Check({kConfig}), fault.expected);
  EXPECT_EQ(Read("/etc/sysconfig/time.conf"), before) << "a backing file was written";
}

INSTANTIATE_TEST_SUITE_P(Faults, CheckFaultTest, ::testing::ValuesIn(kFaults),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(CheckTest, RootWorksForAnOrdinaryUser) {
  EXPECT_EQ(Check({kConfig}, kNobody), (Outcome{0, ""}));
  Plant("/etc/sysconfig/time.conf", "interval 1024", "interval 99999");
  EXPECT_EQ(Check({kConfig, "--json"}, kNobody),
            (Outcome{1,
                     "{\"findings\":[{\"kind\":\"constraint\",\"file\":\"/etc/tessard/"
                     "tessard.conf\",\"line\":108,\"message\":\"NtpInterval received a value out "
                     "of range when defined. (/etc/sysconfig/time.conf holds 99999, the daemon "
                     "would store 86400)\"}]}\n"}));
}

}  // namespace
