// The backing-file families through the running daemon: a single-value file, shell assignments,
// the resolver file, a camera settings file that is also the master configuration's parameter
// list, and a Standard2 file. Values are read at start, SET rewrites each file in place, and a
// restarted daemon reads the rewritten files back.
#include <tessard/tessclient.h>

#include <cstdlib>
#include <string>

#include "tests/support/clientcalls.h"
#include "tests/support/sandbox.h"

namespace tessard::test {
namespace {

constexpr const char* kConfig = R"(accessControl = ":3"
group Net {
  param Hostname { file = "/etc/hostname" parser = "SinglevalueParser" mount = "Singlevalue{}" }
  group eth0 {
    file = "/etc/sysconfig/ifcfg-eth0"
    parser = "ShellParser"
    param Address { mount = "Shell{IPADDR}" }
    param Gateway { mount = "Shell{GATEWAY}" }
    param Options { mount = "Shell{ETHTOOL_OPTS}" }
  }
  group DNS {
    file = "/etc/resolv.conf"
    parser = "Resolvparser"
    param Search { mount = "Resolv{Search}" }
    param Nameserver0 { mount = "Resolv{Nameserver0}" }
    param Nameserver1 { mount = "Resolv{Nameserver1}" }
  }
}
group Camera {
  paramfile { file = "/etc/camera/settings.conf" parser = "Camsettingsparser" }
}
group Web {
  file = "/etc/web.conf"
  parser = "Standard2parser"
  param Model { mount = "Standard2{Root}{model}" }
  param Port { mount = "Standard2{http}{port}" }
}
)";

struct BackingFile {
  const char* path;
  const char* text;
};

const BackingFile kFiles[] = {
    {"/etc/hostname", "# host name of the unit\ncam2100\n"},
    {"/etc/sysconfig/ifcfg-eth0",
     "# eth0\nIPADDR='192.168.0.90'\nGATEWAY=\n# after the gateway\n"
     "export ETHTOOL_OPTS='autoneg on'\n"},
    {"/etc/resolv.conf", "# resolver\ndomain example.com\nnameserver 192.168.0.1\n"},
    {"/etc/camera/settings.conf",
     "# camera head\n[Image]\nint Brightness 50\ncenum_on_off Mirror off\n\n[Overlay]\n"
     "string Text \"Front entrance\"\n"},
    {"/etc/web.conf", "model = CAM2100\n\n[http]\nport 80\n"},
};

// Path, value in the files above, value set, and the file's text after the SET.
struct Change {
  const char* path;
  const char* before;
  const char* after;
  const char* file;
  const char* text;
};

const Change kChanges[] = {
    {"Net.Hostname", "cam2100", "cam-02", "/etc/hostname", "# host name of the unit\ncam-02\n"},
    {"Net.eth0.Gateway", "", "192.168.0.1", "/etc/sysconfig/ifcfg-eth0",
     "# eth0\nIPADDR='192.168.0.90'\nGATEWAY='192.168.0.1'\n# after the gateway\n"
     "export ETHTOOL_OPTS='autoneg on'\n"},
    {"Net.eth0.Options", "autoneg on", "speed 100 duplex full", "/etc/sysconfig/ifcfg-eth0",
     "# eth0\nIPADDR='192.168.0.90'\nGATEWAY='192.168.0.1'\n# after the gateway\n"
     "export ETHTOOL_OPTS='speed 100 duplex full'\n"},
    {"Net.DNS.Search", "example.com", "corp.example", "/etc/resolv.conf",
     "# resolver\ndomain corp.example\nnameserver 192.168.0.1\n"},
    {"Net.DNS.Nameserver1", "0.0.0.0", "10.0.0.2", "/etc/resolv.conf",
     "# resolver\ndomain corp.example\nnameserver 192.168.0.1\nnameserver 10.0.0.2\n"},
    {"Camera.Image.Mirror", "off", "on", "/etc/camera/settings.conf",
     "# camera head\n[Image]\nint Brightness 50\ncenum_on_off Mirror on\n\n[Overlay]\n"
     "string Text \"Front entrance\"\n"},
    {"Camera.Overlay.Text", "Front entrance", "Gate 2", "/etc/camera/settings.conf",
     "# camera head\n[Image]\nint Brightness 50\ncenum_on_off Mirror on\n\n[Overlay]\n"
     "string Text \"Gate 2\"\n"},
    {"Web.Port", "80", "8080", "/etc/web.conf", "model = CAM2100\n\n[http]\nport = 8080\n"},
};

class BackingFilesTest : public SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    if (HasFatalFailure()) return;
    ASSERT_EQ(system("mkdir -p /etc/sysconfig /etc/camera"), 0);
    WriteFile("/etc/tessard.conf", kConfig);
    for (const BackingFile& file : kFiles) WriteFile(file.path, file.text);
  }
};

TEST_F(BackingFilesTest, EveryFamilyReadsRewritesInPlaceAndReadsBack) {
  StartServing({"/etc/tessard.conf", "0"});
  EXPECT_EQ(Get("Camera.Image.Brightness"), "50");
  for (const Change& change : kChanges) {
    EXPECT_EQ(Get(change.path), change.before) << change.path;
    ASSERT_EQ(Set(change.path, change.after, 10), TESSCLIENT_OK) << change.path;
    EXPECT_EQ(ReadFile(change.file), change.text) << change.path;
  }
  // Types and keys of the camera file stay words, as the parameter list reader needs them.
  StopDaemon();
  StartServing({"/etc/tessard.conf", "0"});
  for (const Change& change : kChanges) EXPECT_EQ(Get(change.path), change.after) << change.path;
  EXPECT_EQ(Get("Camera.Image.Brightness"), "50");
}

}  // namespace
}  // namespace tessard::test
