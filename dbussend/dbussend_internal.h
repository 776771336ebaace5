// The parsed form of a message text, shared by the parser (dbussend.cpp) and the sending side
// (dbussend_bus.cpp). Not part of the library's interface.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <string>
#include <vector>

namespace dbussend {

enum class BusKind { kSystem = 0, kSession = 1 };

enum class ArgKind { kBasic, kVariant, kArray, kDict };

// One argument of the message, already checked against its type.
struct Arg {
  ArgKind kind = ArgKind::kBasic;
  char code = 0;            // D-Bus type code of a basic value
  std::string signature;    // complete signature: "i", "v", "as", "a{si}"
  int64_t int_value = 0;    // n i x, and b as 0/1
  uint64_t uint_value = 0;  // y q u t
  double double_value = 0;
  std::string text;        // s o
  std::vector<Arg> items;  // variant: its content; array: elements; dict: key, value, key, ...
};

}  // namespace dbussend

struct DbusSendMessage {
  dbussend::BusKind bus = dbussend::BusKind::kSystem;
  bool method_call = false;
  bool print_reply = false;
  uint64_t timeout_usec = 0;  // 0: the connection's default
  std::string destination;
  std::string path;
  std::string interface;
  std::string member;
  std::vector<dbussend::Arg> args;
};

namespace dbussend {

// Sends message over the connection of its bus, as a method call when as_call is set. With wait,
// waits for the reply, and when reply_text is given stores the reply's first argument as text.
// A failure that leaves the connection closed is retried once on a new connection. Returns false
// with *error set on failure.
bool send(const DbusSendMessage& message, bool as_call, bool wait, std::string* reply_text,
          std::string* error);

// Reads the next argument of m, of basic type code, as text: integers in decimal, booleans as
// true/false, strings as they are. False for a type without a text form (unix fd) or on error.
bool read_basic_text(sd_bus_message* m, char code, std::string* text);

// Appends the arguments of message to m (used also by the test service for its answers).
int append_args(sd_bus_message* m, const DbusSendMessage& message);

}  // namespace dbussend
