// D-Bus sending library: bus connections, building sd-bus messages, reading replies.
#include <systemd/sd-bus.h>

#include <charconv>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>

#include "base/log.h"
#include "dbussend/dbussend_internal.h"

namespace dbussend {
namespace {

struct MessageUnref {
  void operator()(sd_bus_message* m) const { sd_bus_message_unref(m); }
};
using MessagePtr = std::unique_ptr<sd_bus_message, MessageUnref>;

// sd_bus_error released at scope exit.
struct BusError {
  sd_bus_error error = SD_BUS_ERROR_NULL;
  BusError() = default;
  BusError(const BusError&) = delete;
  BusError& operator=(const BusError&) = delete;
  ~BusError() { sd_bus_error_free(&error); }
};

// One connection per bus, kept for the life of the process.
sd_bus* g_buses[2] = {nullptr, nullptr};

sd_bus*& bus_slot(BusKind kind) {
  return g_buses[static_cast<int>(kind)];
}

const char* bus_name(BusKind kind) {
  return kind == BusKind::kSystem ? "system" : "session";
}

void drop_bus(BusKind kind) {
  sd_bus*& bus = bus_slot(kind);
  bus = sd_bus_close_unref(bus);
}

// Handles what the bus sent us meanwhile (the daemon never reads its connection otherwise), which
// also notices a connection that the other side has closed.
void drain(sd_bus* bus) {
  while (sd_bus_process(bus, nullptr) > 0) {
  }
}

sd_bus* acquire_bus(BusKind kind, std::string* error) {
  sd_bus*& bus = bus_slot(kind);
  if (bus != nullptr) {
    drain(bus);
    if (sd_bus_is_open(bus) <= 0) {
      drop_bus(kind);
    }
  }
  if (bus != nullptr) {
    return bus;
  }
  int r = kind == BusKind::kSystem ? sd_bus_open_system(&bus) : sd_bus_open_user(&bus);
  if (r < 0) {
    bus = nullptr;
    *error = std::string("Cannot connect to the ") + bus_name(kind) + " bus: " + errno_text(-r);
  }
  return bus;
}

template <typename T, typename V>
int append_as(sd_bus_message* m, char code, V value) {
  T v = static_cast<T>(value);
  return sd_bus_message_append_basic(m, code, &v);
}

int append_basic(sd_bus_message* m, const Arg& arg) {
  switch (arg.code) {
    case 'n':
      return append_as<int16_t>(m, 'n', arg.int_value);
    case 'i':
      return append_as<int32_t>(m, 'i', arg.int_value);
    case 'x':
      return append_as<int64_t>(m, 'x', arg.int_value);
    case 'b':
      return append_as<int>(m, 'b', arg.int_value);
    case 'y':
      return append_as<uint8_t>(m, 'y', arg.uint_value);
    case 'q':
      return append_as<uint16_t>(m, 'q', arg.uint_value);
    case 'u':
      return append_as<uint32_t>(m, 'u', arg.uint_value);
    case 't':
      return append_as<uint64_t>(m, 't', arg.uint_value);
    case 'd':
      return append_as<double>(m, 'd', arg.double_value);
    default:
      return sd_bus_message_append_basic(m, arg.code, arg.text.c_str());
  }
}

int append_arg(sd_bus_message* m, const Arg& arg);

// The items of a container, in order; dict items go in pairs, each pair in its own entry.
int append_items(sd_bus_message* m, const Arg& arg) {
  for (const Arg& item : arg.items) {
    int r = append_arg(m, item);
    if (r < 0) {
      return r;
    }
  }
  return 0;
}

// A dict's items go in pairs, each pair in an entry of its own.
int append_dict_items(sd_bus_message* m, const Arg& arg) {
  std::string entry = arg.signature.substr(2, 2);
  for (size_t i = 0; i + 1 < arg.items.size(); i += 2) {
    int r = sd_bus_message_open_container(m, 'e', entry.c_str());
    if (r >= 0) {
      r = append_arg(m, arg.items[i]);
    }
    if (r >= 0) {
      r = append_arg(m, arg.items[i + 1]);
    }
    if (r >= 0) {
      r = sd_bus_message_close_container(m);
    }
    if (r < 0) {
      return r;
    }
  }
  return 0;
}

int append_arg(sd_bus_message* m, const Arg& arg) {
  if (arg.kind == ArgKind::kBasic) {
    return append_basic(m, arg);
  }
  bool variant = arg.kind == ArgKind::kVariant;
  std::string contents = variant ? arg.items[0].signature : arg.signature.substr(1);
  int r = sd_bus_message_open_container(m, variant ? 'v' : 'a', contents.c_str());
  if (r >= 0) {
    r = arg.kind == ArgKind::kDict ? append_dict_items(m, arg) : append_items(m, arg);
  }
  if (r >= 0) {
    r = sd_bus_message_close_container(m);
  }
  return r;
}

int build_message(sd_bus* bus, const DbusSendMessage& message, bool as_call, MessagePtr* out) {
  sd_bus_message* m = nullptr;
  const char* dest = message.destination.empty() ? nullptr : message.destination.c_str();
  int r = as_call
              ? sd_bus_message_new_method_call(bus, &m, dest, message.path.c_str(),
                                               message.interface.c_str(), message.member.c_str())
              : sd_bus_message_new_signal(bus, &m, message.path.c_str(), message.interface.c_str(),
                                          message.member.c_str());
  if (r < 0) {
    return r;
  }
  out->reset(m);
  if (!as_call && dest != nullptr) {
    r = sd_bus_message_set_destination(m, dest);
  }
  return r < 0 ? r : append_args(m, message);
}

template <typename T>
bool read_as(sd_bus_message* m, char code, std::string* text) {
  // sd-bus hands booleans out as int.
  std::conditional_t<std::is_same_v<T, bool>, int, T> value{};
  if (sd_bus_message_read_basic(m, code, &value) < 0) {
    return false;
  }
  if constexpr (std::is_same_v<T, bool>) {
    *text = value ? "true" : "false";
  } else if constexpr (std::is_same_v<T, const char*>) {
    *text = value;
  } else {
    char buffer[32];
    auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    text->assign(buffer, result.ptr);
  }
  return true;
}

bool reply_text(sd_bus_message* reply, std::string* text, std::string* error) {
  char type = 0;
  const char* contents = nullptr;
  int r = sd_bus_message_peek_type(reply, &type, &contents);
  if (r == 0) {
    text->clear();
    return true;
  }
  if (r > 0 && type == 'v' && sd_bus_message_enter_container(reply, 'v', contents) > 0) {
    return reply_text(reply, text, error);
  }
  if (r > 0 && contents == nullptr && read_basic_text(reply, type, text)) {
    return true;
  }
  *error = "The reply cannot be given as text";
  return false;
}

std::string error_text(const char* what, int r, const sd_bus_error& error) {
  if (sd_bus_error_is_set(&error)) {
    return std::string(what) + ": " + error.name + ": " + (error.message ? error.message : "");
  }
  return std::string(what) + ": " + errno_text(-r);
}

bool transmit(sd_bus* bus, const DbusSendMessage& message, bool as_call, bool wait,
              std::string* reply, std::string* error) {
  MessagePtr m;
  int r = build_message(bus, message, as_call, &m);
  if (r < 0) {
    *error = std::string("Cannot build message: ") + errno_text(-r);
    return false;
  }
  BusError bus_error;
  if (wait) {
    sd_bus_message* answer = nullptr;
    r = sd_bus_call(bus, m.get(), message.timeout_usec, &bus_error.error, &answer);
    MessagePtr answer_owner(answer);
    if (r < 0) {
      *error = error_text("Method call failed", r, bus_error.error);
      return false;
    }
    return reply == nullptr || reply_text(answer, reply, error);
  }
  if (as_call) {
    sd_bus_message_set_expect_reply(m.get(), 0);
  }
  r = sd_bus_send(bus, m.get(), nullptr);
  if (r >= 0) {
    r = sd_bus_flush(bus);
  }
  if (r < 0) {
    *error = error_text("Cannot send message", r, bus_error.error);
  }
  return r >= 0;
}

}  // namespace

bool read_basic_text(sd_bus_message* m, char code, std::string* text) {
  switch (code) {
    case 'y':
      return read_as<uint8_t>(m, code, text);
    case 'n':
      return read_as<int16_t>(m, code, text);
    case 'q':
      return read_as<uint16_t>(m, code, text);
    case 'i':
      return read_as<int32_t>(m, code, text);
    case 'u':
      return read_as<uint32_t>(m, code, text);
    case 'x':
      return read_as<int64_t>(m, code, text);
    case 't':
      return read_as<uint64_t>(m, code, text);
    case 'd':
      return read_as<double>(m, code, text);
    case 'b':
      return read_as<bool>(m, code, text);
    case 's':
    case 'o':
    case 'g':
      return read_as<const char*>(m, code, text);
    default:
      return false;
  }
}

int append_args(sd_bus_message* m, const DbusSendMessage& message) {
  for (const Arg& arg : message.args) {
    int r = append_arg(m, arg);
    if (r < 0) {
      return r;
    }
  }
  return 0;
}

bool send(const DbusSendMessage& message, bool as_call, bool wait, std::string* reply_text,
          std::string* error) {
  if (as_call && message.destination.empty()) {
    *error = "A method call needs --dest";
    return false;
  }
  for (int attempt = 0; attempt < 2; ++attempt) {
    sd_bus* bus = acquire_bus(message.bus, error);
    if (bus == nullptr) {
      return false;
    }
    if (transmit(bus, message, as_call, wait, reply_text, error)) {
      return true;
    }
    // A closed connection may just have gone stale (the bus restarted): one more try on a new
    // one. Otherwise the failure belongs to this message.
    if (sd_bus_is_open(bus) > 0) {
      return false;
    }
    drop_bus(message.bus);
  }
  return false;
}

}  // namespace dbussend
