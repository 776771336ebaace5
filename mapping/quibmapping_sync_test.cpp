// Synchronisation against real backing files: the Standard parser reads and writes them, setter
// commands append to a log file.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <tuple>

#include "init/init.h"
#include "mapping/quibmapping.h"
#include "parsers/mappinginterface.h"
#include "parsers/parserframework.h"
#include "parsers/quibconfigparser.h"
#include "tests/support/paramvalue.h"
#include "tests/support/textfile.h"
#include "values/legacydatarep.h"

namespace {

using tessard::test::read_text;

ino_t inode_of(const std::string& path) {
  struct stat status {};
  stat(path.c_str(), &status);
  return status.st_ino;
}

std::string value_of(const char* path) {
  Param* param = map_getParamByPath(path);
  return param != nullptr ? tessard::test::value_text(param) : "<none>";
}

class SyncTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    static const bool kReady = parser_init() == 0 && mif_init() == 0;  // once per process
    ASSERT_TRUE(kReady);
  }

  void SetUp() override {
    dir_ = testing::TempDir() + "quibmapping_sync_test.XXXXXX";
    ASSERT_NE(mkdtemp(dir_.data()), nullptr);
    net_ = dir_ + "/net.conf";
    log_ = dir_ + "/setter.log";
    caseSensitive = 0;
    init_installMapHooks();
    ASSERT_EQ(map_init("/dev/null"), 0);
  }
  void TearDown() override { std::system(("rm -rf '" + dir_ + "'").c_str()); }

  // A group Net whose parameters a, b and c live in net.conf; each setter appends a line.
  void load(const std::string& file_text, const std::string& a_options = "") {
    std::ofstream(net_) << file_text;
    std::string setter = "setter = \"echo $root_Net_a:$root_Net_b >> " + log_ + "\"";
    std::string config = "group Net { file = \"" + net_ + "\" parser = Standardparser\n" +
                         "  param a { mount = \"Standard{Root}{a}\" " + setter + " " + a_options +
                         " }\n" + "  param b { mount = \"Standard{Root}{b}\" " + setter + " }\n" +
                         "  param c { mount = \"Standard{Root}{c}\" }\n}\n";
    std::ofstream(dir_ + "/main.conf") << config;
    ASSERT_EQ(config_parseFile((dir_ + "/main.conf").c_str(), 1), 0);
  }

  void client_sets(const char* path, const char* text) {
    map_replaceParamData(map_getParamByPath(path), tessard::test::string_data(text));
  }

  // Setter commands run detached: wait until the log holds `lines` lines.
  std::string setter_log(int lines) {
    for (int i = 0; i < 200; i++) {
      std::string text = read_text(log_);
      if (std::count(text.begin(), text.end(), '\n') >= lines) return text;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return read_text(log_);
  }

  std::string dir_;
  std::string net_;
  std::string log_;
};

TEST_F(SyncTest, FirstSyncLoadsAndClampsEveryValueWithoutWriting) {
  load("a 15\nb hello\n", "type = \"int:min=0,max=10\"");
  ino_t before = inode_of(net_);
  EXPECT_EQ(map_sync(0, 0), 0);
  EXPECT_EQ(value_of("root.Net.a") + value_of("root.Net.b") + value_of("root.Net.c"),
            "10hello<none>");
  client_sets("root.Net.b", "hello");  // equal bytes: nothing to write
  map_sync(10, 0);
  EXPECT_EQ(read_text(net_), "a 15\nb hello\n");
  EXPECT_EQ(inode_of(net_), before);
}

// A parameter with a getter has no file: the check only makes its D-Bus message due, and only
// when a client changed it.
TEST_F(SyncTest, GetterParamMessageDueOnlyWhenChanged) {
  load("a 1\n");
  Param* p = map_getParamByPath("root.Net.a");
  p->hasGetter = 1;
  map_setParamOption("dbus", "a", p);
  for (uint8_t listed : {0, 1}) {
    p->listed = listed;
    p->setterPending = 0;
    map_checkParamValue(p, "root.Net", 0);
    EXPECT_EQ(p->setterPending, listed);
  }
}

// A full disk, as the file size limit makes it: the failed write is answered and stays pending.
TEST_F(SyncTest, AFailedWriteIsReportedAndWrittenByTheNextSync) {
  load("a 1\nb 2\n");
  map_sync(0, 0);
  client_sets("root.Net.a", "xxxxxxxx");
  client_sets("root.Net.b", "yyyyyyyy");
  signal(SIGXFSZ, SIG_IGN);
  rlimit saved{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
  rlimit full = saved;
  full.rlim_cur = 8;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &full), 0);
  int failed = map_sync(10, 0);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &saved), 0);
  EXPECT_NE(failed, 0);
  EXPECT_EQ(read_text(net_), "a 1\nb 2\n");
  EXPECT_EQ(value_of("root.Net.a"), "xxxxxxxx");
  EXPECT_EQ(map_sync(0, 0), 0);
  EXPECT_EQ(read_text(net_), "a xxxxxxxx\nb yyyyyyyy\n");
}

class SyncModeTest
    : public SyncTest,
      public ::testing::WithParamInterface<std::tuple<int, const char*, const char*>> {};

// A change synchronised in a mode: the file afterwards and the setter's log. A signal-only run
// keeps the change pending for the next full synchronisation; modes out of range are ignored.
TEST_P(SyncModeTest, WritesAndSignalsAsTheModeSays) {
  auto [mode, file, log] = GetParam();
  load("a 1\n");
  map_sync(2, 0);
  client_sets("root.Net.a", "2");
  EXPECT_EQ(map_sync(mode, 0), 0);
  EXPECT_EQ(read_text(net_), file);
  EXPECT_EQ(map_getUpdatedParamList() != nullptr, std::string(file) == "a 1\n");
  if (mode == 1) map_sync(11, 0);  // nothing new to signal
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(setter_log(std::count(log, log + strlen(log), '\n')), log);
  map_sync(0, 0);
  EXPECT_EQ(read_text(net_), "a 2\n");
}

// mode, file, setter log
INSTANTIATE_TEST_SUITE_P(Modes, SyncModeTest,
                         ::testing::Values(std::tuple{0, "a 2\n", "2:\n"},
                                           std::tuple{1, "a 1\n", "2:\n"},
                                           std::tuple{12, "a 2\n", ""}, std::tuple{9, "a 1\n", ""},
                                           std::tuple{3, "a 1\n", ""}, std::tuple{8, "a 1\n", ""},
                                           std::tuple{13, "a 1\n", ""}));

TEST_F(SyncTest, FreesADeferredGroupAfterItsSettersRan) {
  load("a 1\n");
  map_sync(0, 0);
  client_sets("root.Net.a", "2");
  map_removeGroupByPath("root.Net", 1, 10);
  EXPECT_EQ(map_getGroupByPath("root.Net"), nullptr);
  ASSERT_NE(map_getUpdatedGroupList(), nullptr);
  map_sync(0, 0);
  EXPECT_EQ(map_getUpdatedGroupList(), nullptr);
  EXPECT_EQ(setter_log(1), "2:\n");     // run for the removed group, before it was freed
  EXPECT_EQ(read_text(net_), "a 1\n");  // a removed group's file is not written
}

TEST_F(SyncTest, RedeclaringAGroupReadsItBackAndDropsVanishedParams) {
  load("a 1\nb 2\nc 3\n");
  map_sync(0, 0);
  std::ofstream(net_) << "a 5\nb 6\n";
  ino_t before = inode_of(net_);
  std::ofstream(dir_ + "/again.conf") << "group Net { param b { } }\n";
  ASSERT_EQ(config_parseFile((dir_ + "/again.conf").c_str(), 0), 0);
  EXPECT_EQ(value_of("root.Net.a") + value_of("root.Net.b"), "56");
  EXPECT_EQ(map_getParamByPath("root.Net.c"), nullptr);
  EXPECT_EQ(inode_of(net_), before);
}

}  // namespace
