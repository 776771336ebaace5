// The request handlers on a tree loaded from real backing files, each request handed to
// dispatchRequest on one end of a socket pair and its reply read at the other. The peer is this
// process, root, whom every accessControl admits; per-user rules are the whole-daemon tests'.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <tuple>

#include "dynamic/dynamic.h"
#include "dynamic/dynamic_internal.h"
#include "init/init.h"
#include "mapping/quibmapping.h"
#include "parsers/mappinginterface.h"
#include "parsers/parserframework.h"
#include "server/authorization.h"
#include "server/clientserver.h"
#include "server/server.h"
#include "tests/support/clienttestutil.h"
#include "tests/support/textfile.h"

namespace {

using tessard::test::item;
using tessard::test::read_text;
using tessard::test::reply;

// Request fields: a little-endian 16-bit number; counted texts are item(). Every request is
// root's: identity (uid 0, gid 0) and the case and quiet bytes are zeros.
std::string u16(size_t value) {
  return {static_cast<char>(value & 0xFF), static_cast<char>(value >> 8 & 0xFF)};
}
const std::string kRoot(6, '\0');
// GET and SET open with the form (0 text, 3 serialised) and sub-form bytes; SET has sync byte 10.
std::string get(const std::string& path, int form = 0) {
  return std::string{static_cast<char>(form), static_cast<char>(form == 3 ? 0 : 2)} + kRoot +
         item(path);
}
std::string set(const std::string& path, const std::string& value, int form = 0) {
  return get(path, form) + item(value) + '\x0a';
}
// GETPARAMINFO and GETGROUPINFO: case byte, path, index.
std::string member(const std::string& path, int index) {
  return '\0' + item(path) + u16(index);
}
// CREATE_GROUP (and type 10): parent, number, template, sync byte.
std::string create(const std::string& tmpl, int number = 0xFFFF, int sync = 0) {
  return kRoot + item("Net.Interface") + u16(number) + item(tmpl) + static_cast<char>(sync);
}
std::string option(const std::string& path, const std::string& name) {
  return '\0' + item(path) + '\0' + item(name);
}

constexpr char kConfig[] = R"(group Network {
  accessControl = ":1;admin:f"
  parser = Standardparser
  file = "DIR/network.conf"
  param Hostname { mount = "Standard{Root}{hostname}" }
  param Secret { mount = "Standard{Root}{secret}" type = "writeonly:string" }
  param Missing { mount = "Standard{Root}{missing}" }
  param Serial { mount = "Standard{Root}{serial}" type = "readonly:string" }
  param Mode { mount = "Standard{Root}{mode}" type = "enum:Auto,Manual|Manual mode,Off" }
  param Label { mount = "Standard{Root}{label}" type = "string:maxlen=8" }
}
group Closed { param NoRules { parser = Standardparser file = "DIR/network.conf"
  mount = "Standard{Root}{hostname}" } }
group Net { accessControl = ":f" group Interface { maxGroups = "4" } }
group Host {
  accessControl = ":3"
  param Name { parser = SinglevalueParser file = "DIR/hostname" mount = "Singlevalue{}" }
  param Search { parser = Resolvparser file = "DIR/resolv.conf" mount = "Resolv{Search}" }
  param Shell { parser = ShellParser file = "DIR/ifcfg" mount = "Shell{NAME}" }
}
)";

// The group template allows 3 groups, the parent 4.
constexpr char kGroupTemplate[] =
    "# maxGroups = \"3\"\n"
    "group REPLACE_GROUP {\n"
    "  accessControl = \":f\" file = \"REPLACE_FILE\" parser = \"Standardparser\"\n"
    "  param Address { mount = \"Standard{REPLACE}{address}\" }\n"
    "}\n";

constexpr char kNetwork[] =
    "# network\nhostname camera1\nsecret hunter2\nserial ABC123\nmode Auto\nlabel front\n";

class RequestTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    static const bool kReady = parser_init() == 0 && mif_init() == 0;  // once per process
    ASSERT_TRUE(kReady);
  }

  void SetUp() override {
    // Dynamic group files are named by lowered paths: the directory must be lower case.
    static int counter = 0;
    dir_ = ::testing::TempDir() + "requests_" + std::to_string(getpid()) + "_" +
           std::to_string(counter++);
    for (const char* sub : {"", "/tmpl", "/dynamic", "/dynamic/param"}) {
      ASSERT_EQ(mkdir((dir_ + sub).c_str(), 0755), 0) << dir_ + sub;
    }
    std::ofstream(dir_ + "/tmpl/Eth_grp.conf") << kGroupTemplate;
    std::ofstream(dir_ + "/tmpl/Eth_par.conf") << "[REPLACE]\naddress 10.0.0.REPLACE_NBR\n";
    ASSERT_EQ(dyn_init((dir_ + "/tmpl").c_str(), (dir_ + "/tmpl").c_str(),
                       (dir_ + "/dynamic/param").c_str(), (dir_ + "/dynamic").c_str()),
              0);
    dyn_setScratchDir(dir_.c_str());
    std::ofstream(dir_ + "/network.conf") << kNetwork;
    std::ofstream(dir_ + "/hostname") << "cam\n";
    std::ofstream(dir_ + "/resolv.conf") << "search ex.com\n";
    std::ofstream(dir_ + "/ifcfg") << "NAME='n'\n";
    std::string config = kConfig;
    for (size_t at; (at = config.find("DIR")) != std::string::npos;) config.replace(at, 3, dir_);
    std::ofstream(dir_ + "/main.conf") << config;
    upgradeMode = 0;
    init_installMapHooks();
    ASSERT_EQ(map_init((dir_ + "/main.conf").c_str()), 0);
    ASSERT_EQ(map_sync(0, 0), 0);
    ASSERT_EQ(populateUserCache(), 0);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds_), 0);
  }

  void TearDown() override {
    upgradeMode = 0;
    while (TmpListEntry* entry = dyn_tmplistHead()) remove_tmplist(entry);
    for (int fd : fds_) close(fd);
    std::system(("rm -rf '" + dir_ + "'").c_str());
  }

  // Hands one request to its handler; returns the reply, empty when none came.
  std::string exchange(int type, const std::string& payload) {
    dispatchRequest(fds_[0], type, reinterpret_cast<const unsigned char*>(payload.data()),
                    static_cast<int>(payload.size()));
    std::string buffer(0x10000, '\0');
    ssize_t got = recv(fds_[1], buffer.data(), buffer.size(), MSG_DONTWAIT);
    buffer.resize(got < 0 ? 0 : got);
    return buffer;
  }

  // The value in text form, or "<status N>".
  std::string value(const std::string& path) {
    std::string answer = exchange(GET, get(path));
    if (answer.size() < 6 || answer[3] != 0) {
      return "<status " + std::to_string(answer.size() < 4 ? -1 : answer[3]) + ">";
    }
    return answer.substr(6);
  }

  std::string dir_;
  int fds_[2] = {-1, -1};
};

// An empty value reads as no parameter; an object without accessControl is closed even to root.
TEST_F(RequestTest, GetAnswersTheValueOrTheStatus) {
  EXPECT_EQ(value("root.Network.Nothing"), "<status 16>");
  EXPECT_EQ(value("root.Network.Missing"), "<status 16>");
  EXPECT_EQ(value("root.Closed.NoRules"), "<status 3>");
}

TEST_F(RequestTest, WriteOnlyValueReadsAsStarsInBothFormsUnlessUpgrading) {
  const std::string masked("\x11\x00\x06\x00string\x05\x00*****", 17);
  EXPECT_EQ(exchange(GET, get("Network.Secret", 3)), reply(0, item(masked)));
  EXPECT_EQ(value("Network.Secret"), "*****");
  upgradeMode = 1;
  std::string shown = exchange(GET, get("Network.Secret", 3));
  EXPECT_EQ(shown.substr(shown.size() - 7), "hunter2");
}

TEST_F(RequestTest, InfoRequestsWalkTheTree) {
  EXPECT_EQ(exchange(GETPARAMINFO, member("Network", 0)),
            reply(0, item("root.Network.Hostname") + item("Hostname") + item("string")));
  EXPECT_EQ(exchange(GETPARAMINFO, member("Network", 99)), reply(STATUS_NO_PARAM));
  EXPECT_EQ(exchange(GETPARAMINFO, member("Nowhere", 0)), reply(STATUS_NO_GROUP));
  EXPECT_EQ(exchange(GETGROUPINFO, member("root", 0)),
            reply(0, item("root.Closed") + item("Closed")))
      << "children are sorted by name";
  EXPECT_EQ(exchange(GETGROUPINFO, member("root", 4)), reply(STATUS_NO_SUBGROUP));
}

// The option's text is counted with its terminating zero; an unset option is that zero alone.
TEST_F(RequestTest, ParamOptionCountsItsTerminatingZero) {
  EXPECT_EQ(exchange(GETPARAMOPTION, option("Network.Hostname", "nothere")),
            reply(0, item(std::string(1, '\0'))));
  EXPECT_EQ(exchange(GETPARAMOPTION, option("Network.Hostname", "mount")),
            reply(0, item(std::string("Standard{Root}{hostname}") + '\0')));
  std::string cut = option("Network.Hostname", "mount");
  cut.pop_back();  // the name's length reaches one byte past the payload: refused, never read
  EXPECT_EQ(exchange(GETPARAMOPTION, cut), reply(STATUS_MALFORMED));
  EXPECT_EQ(exchange(GETPARAMOPTION, option("Network.Hostname", "bad.name")),
            reply(STATUS_MALFORMED));
}

TEST_F(RequestTest, MalformedRequestsAnswerFour) {
  EXPECT_EQ(exchange(GETPARAMINFO, std::string(1, '\0')), reply(STATUS_MALFORMED))
      << "cut after the case byte";
  EXPECT_EQ(exchange(GET, get(std::string(256, 'a'))), reply(STATUS_MALFORMED));
  EXPECT_EQ(exchange(GET, get("bad path")), reply(STATUS_MALFORMED));
  std::string lying = get("Network.Hostname");
  lying.resize(lying.size() - 3);
  EXPECT_EQ(exchange(GET, lying), reply(STATUS_MALFORMED));
}

TEST_F(RequestTest, SetChecksTheValueAgainstItsTypeAndItsFile) {
  // path, value sent, status, value afterwards
  const std::tuple<const char*, std::string, int, const char*> cases[] = {
      {"Network.Mode", "Manual mode", STATUS_FAILED, "Auto"},
      {"Network.Mode", "manual", STATUS_OK, "Manual"},
      {"Network.Label", "abcdefghi", STATUS_FAILED, "front"},
      {"Network.Label", "abcdefgh", STATUS_OK, "abcdefgh"},
      {"Network.Nothing", "x", STATUS_FAILED, "<status 16>"},
      // Values the backing format cannot hold: they would write other entries.
      {"Host.Search", "ex.com\nnameserver 6.6.6.6", STATUS_NO_MEMORY, "ex.com"},
      {"Host.Name", "cam\nevil", STATUS_NO_MEMORY, "cam"},
      {"Host.Shell", std::string(1024, 'x'), STATUS_NO_MEMORY, "n"}};
  for (const auto& [path, sent, status, stored] : cases) {
    EXPECT_EQ(exchange(SET, set(path, sent)), reply(status)) << path << " " << sent.substr(0, 20);
    EXPECT_EQ(value(path), stored);
  }
}

TEST_F(RequestTest, ReadOnlyParameterAnswersSuccessWhenUpgradingAndStaysAsItWas) {
  upgradeMode = 1;
  EXPECT_EQ(exchange(SET, set("Network.Serial", "XYZ")), reply(STATUS_OK));
  EXPECT_EQ(value("Network.Serial"), "ABC123");
  EXPECT_EQ(read_text(dir_ + "/network.conf"), kNetwork);
}

TEST_F(RequestTest, SerialisedValueOfAnotherKindIsRefused) {
  const std::string scalar(
      "\x0F\x00\x06\x00string\x03\x00"
      "abc",
      15);
  EXPECT_EQ(exchange(SET, set("Network.Hostname", scalar, 3)), reply(STATUS_NO_MEMORY));
  const std::string lying("\x0F\x00\x06\x00string\x09\x00", 12);
  EXPECT_EQ(exchange(SET, set("Network.Hostname", lying, 3)), reply(STATUS_FAILED))
      << "a value whose lengths point past the request is refused";
  const std::string hash("\x08\x00\x04\x00HASH", 8);
  EXPECT_EQ(exchange(SET, set("Network.Missing", hash, 3)), reply(STATUS_NO_MEMORY))
      << "no backing file takes a hash";
  EXPECT_EQ(value("Network.Hostname"), "camera1");
}

// The name of a created group, as the reply carries it.
std::string created(const char* name) {
  return reply(0, std::string(name) + '\0');
}

TEST_F(RequestTest, CreationChecksTheTemplateNameThenTheSmallerGroupLimit) {
  EXPECT_EQ(exchange(CREATE_GROUP, create("Bad.name")), reply(STATUS_MALFORMED));
  EXPECT_EQ(exchange(CREATE_GROUP, create(std::string(256, 'a'))), reply(STATUS_MALFORMED));
  EXPECT_EQ(exchange(CREATE_GROUP, create("Nope")), reply(STATUS_FAILED)) << "no such template";
  for (const char* name : {"I0", "I1", "I2"}) {
    EXPECT_EQ(exchange(CREATE_GROUP, create("Eth")), created(name));
  }
  EXPECT_EQ(exchange(CREATE_GROUP, create("Eth")), reply(STATUS_GROUP_LIMIT));
  EXPECT_EQ(exchange(CREATE_GROUP_2, create("Eth")), created("I3")) << "type 10 has no limit";
  EXPECT_EQ(value("Net.Interface.I2.Address"), "10.0.0.2") << "the check at the limit removes none";
}

TEST_F(RequestTest, RequestedExistingNumberFailsUnlessUpgrading) {
  ASSERT_EQ(exchange(CREATE_GROUP, create("Eth", 0, 10)), created("I0"));
  EXPECT_EQ(exchange(CREATE_GROUP, create("Eth", 0)), reply(STATUS_NO_PARAM));
  upgradeMode = 1;
  EXPECT_EQ(exchange(CREATE_GROUP, create("Eth", 0)), created("I0"));
}

}  // namespace
