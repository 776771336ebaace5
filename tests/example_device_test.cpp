// The example device of examples/device, installed into the sandbox and served by the real
// daemon: its configuration loads, every parser family delivers values, its access rules, limits
// and event-rule template work as the README describes, and the systemd units serve it.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <csignal>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include <tessard/tessclient.h>
#include "tests/support/clientcalls.h"
#include "tests/support/sandbox.h"
#include "tests/support/shellcommand.h"

namespace tessard::test {
namespace {

namespace fs = std::filesystem;

// Copies the example's etc/ and usr/ over the sandbox's overlays.
void install_example() {
  for (const char* top : {"etc", "usr"}) {
    std::error_code error;
    fs::copy(fs::path(TESSARD_EXAMPLE_DIR) / top, fs::path("/") / top,
             fs::copy_options::recursive | fs::copy_options::overwrite_existing, error);
    ASSERT_FALSE(error) << "installing the example's " << top << ": " << error.message();
  }
}

class ExampleDeviceTest : public SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    if (HasFatalFailure()) return;
    install_example();
    if (HasFatalFailure()) return;
    StartServing({"/etc/tessard/tessard.conf", "0", "-d", "/etc/dynamic/param"});
  }

  // One request through the client library, as `user` (root when null); returns the status.
  int Call(const TestUser* user, const std::function<int(TessClient*)>& request) {
    auto body = [&] {
      // A daemon that does not answer fails the test within seconds instead of hanging it.
      int fd = Connect();
      timeval timeout{5, 0};
      if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) != 0) {
        return 254;
      }
      TessClient* client = nullptr;
      if (tessclient_attach_fd(fd, &client) != 0) return 254;
      int status = request(client);
      tessclient_close(client);
      return status < 0 ? 253 : status;
    };
    return user == nullptr ? body() : RunAs(*user, body);
  }

  // SET as `user` with synchronisation (sync byte 10); returns the status.
  int SetAs(const TestUser& user, const std::string& path, const std::string& value) {
    return RunAs(user, [&] { return Set(path, value, 10); });
  }
};

struct ValueCase {
  const char* parser;
  const char* path;
  const char* value;
};

TEST_F(ExampleDeviceTest, ServesEveryBackingFileFormat) {
  const ValueCase cases[] = {
      {"Standardparser", "root.System.Time.TimeZone", "Europe/Berlin"},
      {"Standardparser", "root.System.Time.NtpEnabled", "yes"},
      {"Standardparser", "root.System.Time.NtpServer", "pool.ntp.org"},
      {"Standardparser", "root.System.Time.NtpInterval", "1024"},
      {"SinglevalueParser", "root.Network.Hostname", "cam2100-00042"},
      {"ShellParser", "root.Network.eth0.IPAddress", "192.168.0.90"},
      {"ShellParser", "root.Network.eth0.MTU", "1500"},
      {"Resolvparser", "root.Network.DNS.Search", "example.com"},
      {"Resolvparser", "root.Network.DNS.Nameserver1", "192.168.0.2"},
      {"Camsettingsparser", "root.Camera.Image.Resolution", "640x480"},
      {"Camsettingsparser", "root.Camera.Overlay.Text", "Front entrance"},
      {"Standard2parser", "root.System.Properties.SerialNumber", "A1B2-00042"},
      {"Standard2parser", "root.System.Web.HttpsPort", "443"},
  };
  for (const ValueCase& c : cases) EXPECT_EQ(Get(c.path), c.value) << c.parser << ": " << c.path;
  std::string uptime = Get("root.System.Uptime");
  EXPECT_FALSE(uptime.empty());
  EXPECT_EQ(uptime.find_first_not_of("0123456789"), std::string::npos) << uptime;
  for (const char* trouble : {"doesn't exist", "Error initializing", "Couldn't parse"}) {
    EXPECT_EQ(log().Count(trouble), 0) << "the daemon logged '" << trouble << "'";
  }
}

TEST_F(ExampleDeviceTest, RewritesShellAndStandard2Files) {
  // A shell-file value is rewritten in place; everything else in the file is kept.
  const std::string ifcfg = ReadFile("/etc/sysconfig/ifcfg-eth0");
  ASSERT_EQ(SetAs(kAlice, "root.Network.eth0.IPAddress", "192.168.0.91"), TESSCLIENT_OK);
  std::string expected = ifcfg;
  expected.replace(expected.find("192.168.0.90"), 12, "192.168.0.91");
  EXPECT_EQ(ReadFile("/etc/sysconfig/ifcfg-eth0"), expected);

  // The password is written by admin members and read by nobody.
  EXPECT_EQ(SetAs(kAlice, "root.System.Web.AdminPassword", "s3cret"), TESSCLIENT_OK);
  EXPECT_NE(ReadFile("/etc/sysconfig/webserver.conf").find("password = s3cret"), std::string::npos);
  int read = Call(&kAlice, [](TessClient* client) {
    char* value = nullptr;
    int rc = tessclient_get(client, "root.System.Web.AdminPassword", &value);
    free(value);
    return rc;
  });
  EXPECT_EQ(read, TESSCLIENT_ACCESS_REFUSED);
}

TEST_F(ExampleDeviceTest, AccessRulesAndLimits) {
  const std::string time = ReadFile("/etc/sysconfig/time.conf");
  EXPECT_EQ(SetAs(kCarol, "root.System.Time.TimeZone", "UTC"), TESSCLIENT_ACCESS_REFUSED);
  EXPECT_EQ(SetAs(kBob, "root.System.Time.TimeZone", "UTC"), TESSCLIENT_ACCESS_REFUSED);
  EXPECT_EQ(ReadFile("/etc/sysconfig/time.conf"), time);

  ASSERT_EQ(SetAs(kAlice, "root.System.Time.TimeZone", "UTC"), TESSCLIENT_OK);
  std::string expected = time;
  expected.replace(expected.find("Europe/Berlin"), 13, "UTC");  // the quotes stay
  EXPECT_EQ(ReadFile("/etc/sysconfig/time.conf"), expected);

  EXPECT_EQ(SetAs(kAlice, "root.System.Properties.FirmwareVersion", "9.9.9"), TESSCLIENT_READ_ONLY);
  EXPECT_EQ(SetAs(kAlice, "root.System.Time.NtpInterval", "100000"), TESSCLIENT_OK);
  EXPECT_EQ(Get("root.System.Time.NtpInterval"), "86400");
  EXPECT_EQ(SetAs(kAlice, "root.System.Time.NtpEnabled", "maybe"), TESSCLIENT_FAILED);
  EXPECT_EQ(SetAs(kAlice, "root.Network.eth0.BootProto", "bootp"), TESSCLIENT_FAILED);
  // Operators adjust the camera but not the network.
  EXPECT_EQ(SetAs(kBob, "root.Network.eth0.MTU", "1400"), TESSCLIENT_ACCESS_REFUSED);
}

TEST_F(ExampleDeviceTest, EventRuleTemplate) {
  int created = Call(&kAlice, [](TessClient* client) {
    char* name = nullptr;
    int rc = tessclient_create_group(client, "root.Event.Rules", "eventrule", TESSCLIENT_ANY_NUMBER,
                                     10, &name);
    bool first = name != nullptr && std::string(name) == "R0";
    free(name);
    return rc == TESSCLIENT_OK && !first ? 252 : rc;
  });
  ASSERT_EQ(created, TESSCLIENT_OK) << "252: the first rule is not called R0";
  EXPECT_EQ(Get("root.Event.Rules.R0.Name"), "Rule 0");
  EXPECT_EQ(Get("root.Event.Rules.R0.Trigger"), "motion");
  EXPECT_EQ(SetAs(kCarol, "root.Event.Rules.R0.Enabled", "yes"), TESSCLIENT_ACCESS_REFUSED);
  ASSERT_EQ(SetAs(kBob, "root.Event.Rules.R0.Enabled", "yes"), TESSCLIENT_OK);
  EXPECT_NE(ReadFile("/etc/dynamic/event_rules.conf").find("enabled yes"), std::string::npos);

  auto remove = [](TessClient* client) {
    return tessclient_delete_group(client, "root.Event.Rules.R0", 10);
  };
  EXPECT_EQ(Call(&kBob, remove), TESSCLIENT_ACCESS_REFUSED);  // operators create, not delete
  ASSERT_EQ(Call(&kAlice, remove), TESSCLIENT_OK);
  EXPECT_EQ(Get("root.Event.Rules.R0.Name"), "<status 16>");
  EXPECT_EQ(ReadFile("/etc/dynamic/event_rules.conf").find("Event.Rules.R0"), std::string::npos);
}

// The units of systemd/ with the example configuration: systemd-analyze accepts them, and the
// service's command line started through socket activation on the socket unit's address serves
// the example device.
class ExampleDeviceUnitsTest : public SandboxTest {
 protected:
  void TearDown() override {
    if (activator_ > 0) {
      kill(activator_, SIGTERM);
      if (WaitExit(activator_, 5000) < 0) kill(activator_, SIGKILL);
      WaitExit(activator_, 5000);
    }
    SandboxTest::TearDown();
  }

  // The words of a "Key=" line of a unit file.
  static std::vector<std::string> unit_words(const std::string& unit, const std::string& key) {
    std::string text = ReadFile(std::string(TESSARD_SOURCE_DIR) + "/systemd/" + unit);
    size_t at = text.find("\n" + key + "=");
    if (at == std::string::npos) return {};
    at += key.size() + 2;
    std::istringstream line(text.substr(at, text.find('\n', at) - at));
    std::vector<std::string> words;
    for (std::string word; line >> word;) words.push_back(word);
    return words;
  }

  pid_t activator_ = -1;
};

TEST_F(ExampleDeviceUnitsTest, SocketActivatedServiceServesTheExample) {
  install_example();
  std::vector<std::string> exec = unit_words("tessard.service", "ExecStart");
  std::vector<std::string> listen = unit_words("tessard.socket", "ListenStream");
  ASSERT_GE(exec.size(), 3u);
  ASSERT_EQ(listen.size(), 1u);
  ASSERT_EQ(exec[1], "/etc/tessard/tessard.conf") << "the service does not read the example";
  std::error_code error;
  fs::copy_file(DaemonBinary(), exec[0], fs::copy_options::overwrite_existing, error);
  ASSERT_FALSE(error) << "installing " << exec[0] << ": " << error.message();

  std::string out;
  EXPECT_EQ(
      run_command(std::string("systemd-analyze verify ") + TESSARD_SOURCE_DIR +
                      "/systemd/tessard.socket " + TESSARD_SOURCE_DIR + "/systemd/tessard.service",
                  &out),
      0)
      << out;
  EXPECT_EQ(out, "");

  activator_ = fork();
  if (activator_ == 0) {
    std::vector<std::string> args = {"systemd-socket-activate", "-l", listen[0], "-E",
                                     "ASAN_OPTIONS=detect_leaks=0"};
    args.insert(args.end(), exec.begin(), exec.end());
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  ASSERT_GT(activator_, 0);
  for (int i = 0; i < 500 && !Exists(listen[0]); i++) usleep(10000);
  ASSERT_TRUE(Exists(listen[0])) << "systemd-socket-activate did not listen on " << listen[0];

  out.clear();
  EXPECT_EQ(
      run_command(std::string("timeout 10 ") + TESSCTL_BINARY + " get root.System.Time.TimeZone",
                  &out),
      0)
      << out;
  EXPECT_EQ(out, "Europe/Berlin\n");
  EXPECT_TRUE(log().WaitFor("Starting server.", 5000, nullptr, activator_))
      << "the activated daemon is not the one that served";
  EXPECT_EQ(log().Count("Failed creating listen socket"), 0);
}

}  // namespace
}  // namespace tessard::test
