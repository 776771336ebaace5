// tessard-check, run as an ordinary user on copies of the example device, each with one planted
// fault, read below --root so that nothing outside the copy is looked at.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "tests/support/shellcommand.h"
#include "tests/support/textfile.h"

namespace {

constexpr const char* kConfig = "/etc/tessard/tessard.conf";
constexpr const char* kTime = "/etc/sysconfig/time.conf";

// The first `find` in `file` of the copy replaced by `replace` (`find` null: the file removed);
// tessard-check then exits with `exit` and prints `out`.
struct Fault {
  const char* name;
  const char* file;
  const char* find;
  const char* replace;
  int exit;
  const char* out;
  const char* option = "";  // "--json" or nothing
};

void PrintTo(const Fault& c, std::ostream* os) {
  *os << c.name;
}

class CheckTest : public ::testing::TestWithParam<Fault> {
 protected:
  // The copy and the program in a directory of their own that every user may enter, whatever the
  // build tree's permissions are.
  void SetUp() override {
    const char* tmp = getenv("TMPDIR");
    dir_ = std::string(tmp != nullptr ? tmp : "/tmp") + "/tessard_check_test.XXXXXX";
    ASSERT_NE(mkdtemp(dir_.data()), nullptr);
    ASSERT_EQ(system(("cp -r '" TESSARD_EXAMPLE_DIR "' '" + dir_ + "/root' && cp '" +
                      TESSARD_CHECK_BINARY "' '" + dir_ + "/' && chmod -R a+rX '" + dir_ + "'")
                         .c_str()),
              0);
  }
  void TearDown() override { EXPECT_EQ(system(("rm -rf '" + dir_ + "'").c_str()), 0); }
  std::string root(const std::string& path) const { return dir_ + "/root" + path; }

  std::string dir_;
};

TEST_P(CheckTest, ReportsTheFaultWhereItIs) {
  const Fault& f = GetParam();
  std::string text = tessard::test::read_text(root(f.file));
  if (f.find == nullptr) {
    ASSERT_EQ(unlink(root(f.file).c_str()), 0) << f.file;
  } else {
    ASSERT_NE(text.find(f.find), std::string::npos) << f.find;
    text.replace(text.find(f.find), strlen(f.find), f.replace);
    tessard::test::write_file(root(f.file), text);
  }
  std::string before = tessard::test::read_text(root(kTime)), out;
  // LeakSanitizer reads /proc at exit, which is not below the copy's root.
  int exit = tessard::test::run_command(
      "{ ASAN_OPTIONS=detect_leaks=0 setpriv --reuid=65534 --regid=65534 --clear-groups '" + dir_ +
          "/tessard-check' --root '" + dir_ + "/root' " + f.option + " " + kConfig +
          " 2>/dev/null; }",
      &out);
  EXPECT_EQ(exit, f.exit);
  EXPECT_EQ(out, f.out);
  EXPECT_EQ(tessard::test::read_text(root(kTime)), before) << "a backing file was written";
}

const Fault kFaults[] = {
    {"GrammarError", kConfig, R"(type = "int:min=576,max=9000")", "type = 576", 1,
     "/etc/tessard/tessard.conf:40: grammar: /etc/tessard/tessard.conf: Expected option value.\n"},
    {"MissingFile", "/etc/hostname", nullptr, nullptr, 1,
     "/etc/tessard/tessard.conf:19: file: Backing file /etc/hostname of root.Network.Hostname "
     "does not exist; the daemon would create it empty\n"},
    {"UnknownParser", kConfig, "SinglevalueParser", "SingleValueParser", 1,
     "/etc/tessard/tessard.conf:19: parser: Specified parser (SingleValueParser) for "
     "'root.Network.Hostname' doesn't exist!\n"},
    {"UnboundMount", kConfig, "Standard{ntp}{server}", "Standard{ntp}{servers}", 1,
     "/etc/tessard/tessard.conf:107: mount: root.System.Time.NtpServer: mount "
     "Standard{ntp}{servers} is found nowhere in /etc/sysconfig/time.conf\n"},
    {"DuplicateBinding", kConfig, "Shell{GATEWAY}", "Shell{NETMASK}", 1,
     "/etc/tessard/tessard.conf:39: binding: root.Network.eth0.Gateway is bound to the same "
     "place as root.Network.eth0.SubnetMask (/etc/sysconfig/ifcfg-eth0, mount Shell{NETMASK})\n"},
    {"ConstraintBreachJson", kTime, "interval 1024", "interval 99999", 1,
     "{\"findings\":[{\"kind\":\"constraint\",\"file\":\"/etc/tessard/tessard.conf\",\"line\":108,"
     "\"message\":\"NtpInterval received a value out of range when defined. "
     "(/etc/sysconfig/time.conf holds 99999, the daemon would store 86400)\"}]}\n",
     "--json"},
    {"ConstraintBreachInAParamfileEntry", "/etc/camera/settings.conf", "Brightness 50",
     "Brightness 150", 1,
     "/etc/camera/settings.conf:6: constraint: Brightness received a value out of range when "
     "defined. (/etc/camera/settings.conf holds 150, the daemon would store 100)\n"},
    {"NonIdempotentFile", kTime, "timezone \"Europe/Berlin\"", "timezone Europe/Berlin", 1,
     "/etc/sysconfig/time.conf:5: roundtrip: the first write changes this file although no value "
     "changed\n--- /etc/sysconfig/time.conf\n+++ /etc/sysconfig/time.conf (as the daemon writes "
     "it)\n@@ -2,7 +2,7 @@\n # Each line holds a key and its value; a value that is not only "
     "letters and digits is\n # double-quoted.\n \n-timezone Europe/Berlin\n+timezone "
     "\"Europe/Berlin\"\n \n [ntp]\n enabled yes\n"},
    {"TemplateError", "/usr/etc/sysconfig/template/eventrule_grp.conf", "maxGroups = \"8\"",
     "maxGroups = 8", 1,
     "/usr/etc/sysconfig/template/eventrule_grp.conf:3: template: "
     "/usr/etc/sysconfig/template/eventrule_grp.conf: Expected option value.\n"},
    {"ValueTemplateLacksAValue", "/usr/etc/sysconfig/template/eventrule_par.conf", "duration 10",
     "duration", 1,
     "/usr/etc/sysconfig/template/eventrule_par.conf: template: Duration: mount "
     "Standard{REPLACE}{duration} is not in the value template\n"},
    {"NoConfiguration", kConfig, nullptr, nullptr, 2, ""},
};

INSTANTIATE_TEST_SUITE_P(Faults, CheckTest, ::testing::ValuesIn(kFaults),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
