// Test support for the setter and getter tests: a fresh tree, parameters with text values, a
// scratch directory and a private bus.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>
#include <vector>

#include "dbussend/dbussend.h"
#include "mapping/quibmapping.h"
#include "mapping/setters.h"
#include "tests/support/logcapture.h"
#include "tests/support/paramvalue.h"
#include "tests/support/testbus.h"
#include "tests/support/textfile.h"

namespace tessard::test {

class AnnounceTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(map_init("/dev/null"), 0);
    update_clearRunSetters();
    update_clearSignalledProcesses();
    clear_captured_log();
    dir_ = testing::TempDir() + "tessard-set-XXXXXX";
    ASSERT_NE(mkdtemp(dir_.data()), nullptr);
  }

  void TearDown() override {
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }

  // Starts a private bus for the library's system and session connections.
  void start_bus() {
    std::string error;
    ASSERT_TRUE(bus_.start(&error)) << error;
    bus_.export_address();
    ASSERT_TRUE(recorder_.connect(bus_.address(), "org.tessard.Recorder", &error)) << error;
  }

  // The messages that reached the recorder since the last call: everything the library's
  // connection sent before a marker sent now.
  std::vector<testbus::Recorded> messages() {
    DbusSendMessage* marker = dbus_send_from_string(testbus::kMarkerText, nullptr);
    EXPECT_NE(dbus_send_send_message(marker, nullptr), 0);
    dbus_send_free(marker);
    return recorder_.wait_for_marker();
  }

  static Group* group(const char* name, Group* parent = nullptr) {
    Group* out = nullptr;
    map_addGroup(name, parent != nullptr ? parent : map_getRootGroup(), &out);
    return out;
  }

  // A parameter holding a "string" value, with options given as name, value pairs.
  static Param* param(Group* owner, const char* name, const char* value,
                      std::initializer_list<std::pair<const char*, const char*>> options = {}) {
    Param* p = nullptr;
    EXPECT_EQ(map_createParam(name, owner, &p), 0);
    for (const auto& [option, text] : options) map_setParamOption(option, text, p);
    map_setParamData(p, string_data(value));
    return p;
  }

  std::string read_file(const std::string& name) const { return read_text(dir_ + "/" + name); }

  std::string dir_;
  testbus::PrivateBus bus_;
  testbus::Recorder recorder_;
};

}  // namespace tessard::test
