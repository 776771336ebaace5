#include "dbussend/dbussend.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>

#include "dbussend/dbussend_internal.h"
#include "tests/support/testbus.h"

namespace {

using MessagePtr = std::unique_ptr<DbusSendMessage, void (*)(DbusSendMessage*)>;

MessagePtr parse(const std::string& text, std::string* error = nullptr) {
  char* raw_error = nullptr;
  MessagePtr m(dbus_send_from_string(text.c_str(), &raw_error), dbus_send_free);
  if (error != nullptr) *error = raw_error ? raw_error : "";
  dbus_send_free_string(raw_error);
  return m;
}

// The text, then its bus, kind, destination, path, interface, member and argument signature.
TEST(DbusSendParse, ReadsOptionsNamesAndArgumentTypes) {
  const std::pair<const char*, const char*> cases[] = {
      {"dbus-send --session --dest=org.x /a/b org.x.If.M", "session signal org.x /a/b org.x.If M "},
      {"dbus-send --system --type=method_call --print-reply=literal --reply-timeout=500 "
       "--dest=:1.5 /a/b org.x.If.Get string:x",
       "system call :1.5 /a/b org.x.If Get s"},
      {"/a/b org.x.If.All string: int16:-32768 uint16:65535 int32:-7 uint32:7 int64:-9 "
       "uint64:18446744073709551615 double:1.5 byte:255 boolean:true objpath:/x",
       "system signal  /a/b org.x.If All snqiuxtdybo"}};
  for (const auto& [text, expected] : cases) {
    MessagePtr m = parse(text);
    ASSERT_TRUE(m) << text;
    std::string got = std::string(m->bus == dbussend::BusKind::kSession ? "session" : "system") +
                      (m->method_call ? " call " : " signal ") + m->destination + " " + m->path +
                      " " + m->interface + " " + m->member + " ";
    for (const dbussend::Arg& arg : m->args) got += arg.signature;
    EXPECT_EQ(got, expected);
  }
}

// The error text names the word at fault: the text's last word, unless the expected words follow
// a "|".
TEST(DbusSendParse, RefusesWithErrorNamingTheWord) {
  for (const char* row :
       {"/p a.b.M 'string:open|Cannot split", "dbus-send --sytem /p a.b.M|Unknown option '--sytem'",
        "--type=error /p a.b.M|'--type=error'", "--dest=no..name /p a.b.M|'--dest=no..name'",
        "--reply-timeout=5s /p a.b.M|'--reply-timeout=5s'",
        "dbus-send --session|Missing object path", "a/b org.x.If.M|Invalid object path 'a/b'",
        "/p|Missing INTERFACE.MEMBER", "/p a.b.M int32|'int32': expected TYPE:VALUE",
        "/p a.b.M int32:2147483648", "/p a.b.M uint16:-1", "/p a.b.M byte:256",
        "/p a.b.M boolean:yes", "/p a.b.M double:", "/p a.b.M objpath:x/",
        "/p a.b.M text:a|'text:a': unknown type", "/p a.b.M array:int32:1,x",
        "/p a.b.M dict:string:int32:k|a key has no value", "/p a.b.M string:\xff|does not fit"}) {
    std::string text = row;
    size_t bar = text.find('|');
    std::string expected = bar == std::string::npos ? "'" + text.substr(text.rfind(' ') + 1) + "'"
                                                    : text.substr(bar + 1);
    text.resize(std::min(bar, text.size()));
    std::string error;
    EXPECT_FALSE(parse(text, &error)) << text;
    EXPECT_NE(error.find(expected), std::string::npos) << error;
  }
}

// Sending, against a private bus daemon that this test starts.
class DbusSendTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(bus_.start(&error)) << error;
    bus_.export_address();
    ASSERT_TRUE(recorder_.connect(bus_.address(), "org.tessard.Recorder", &error)) << error;
  }

  // Sends the message: "sent", or "error: " and the error text.
  std::string send(const std::string& text) {
    MessagePtr m = parse(text);
    char* error = nullptr;
    int ok = m && dbus_send_send_message(m.get(), &error);
    std::string result = ok ? "sent" : "error: " + std::string(error ? error : "");
    dbus_send_free_string(error);
    return result;
  }

  testbus::PrivateBus bus_;
  testbus::Recorder recorder_;
};

// Empty list items are skipped.
TEST_F(DbusSendTest, MessagesArriveWithArgumentsAndQuotingResolved) {
  EXPECT_EQ(send("dbus-send --system /org/x org.x.If.Changed string:'O'\\''Brien' int32:-5 "
                 "variant:uint16:7 array:string:a,,b dict:string:boolean:on,true,off,false byte:9 "
                 "array:byte:"),
            "sent");
  // A method call without --print-reply is sent without waiting for its answer.
  EXPECT_EQ(send("--type=method_call --dest=org.tessard.Recorder /p org.x.If.Set"), "sent");
  const auto& got = recorder_.wait_for(2);
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].signature, "sivasa{sb}yay");
  EXPECT_EQ(got[0].args, (std::vector<std::string>{"O'Brien", "-5", "7", "[a,b]",
                                                   "{on=true,off=false}", "9", "[]"}));
  EXPECT_FALSE(got[1].signal);
}

TEST_F(DbusSendTest, ReconnectsAfterTheBusRestarted) {
  EXPECT_EQ(send("/a org.x.If.First"), "sent");
  ASSERT_EQ(recorder_.wait_for(1).size(), 1u);
  bus_.stop();
  EXPECT_EQ(send("/a org.x.If.Lost").substr(0, 14), "error: Cannot ");
  std::string start_error;
  ASSERT_TRUE(bus_.start(&start_error)) << start_error;
  bus_.export_address();
  testbus::Recorder again;
  ASSERT_TRUE(again.connect(bus_.address(), "org.tessard.Recorder", &start_error));
  EXPECT_EQ(send("/a org.x.If.Second"), "sent");
  const auto& got = again.wait_for(1);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].member, "Second");
}

}  // namespace
