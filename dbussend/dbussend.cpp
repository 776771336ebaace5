// D-Bus sending library: parsing of the message text and the public calls.
// The bus side (connections, building and sending sd-bus messages) is in dbussend_bus.cpp.
#include "dbussend/dbussend.h"

#include <glib.h>
#include <systemd/sd-bus.h>

#include <charconv>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "dbussend/dbussend_internal.h"

using dbussend::Arg;
using dbussend::ArgKind;
using dbussend::BusKind;

namespace {

struct BasicType {
  std::string_view name;
  char code;
};

constexpr BasicType kBasicTypes[] = {
    {"string", 's'}, {"int16", 'n'},   {"uint16", 'q'},  {"int32", 'i'},
    {"uint32", 'u'}, {"int64", 'x'},   {"uint64", 't'},  {"double", 'd'},
    {"byte", 'y'},   {"boolean", 'b'}, {"objpath", 'o'},
};

std::optional<char> basic_code(std::string_view name) {
  for (const BasicType& type : kBasicTypes) {
    if (type.name == name) {
      return type.code;
    }
  }
  return std::nullopt;
}

template <typename T>
bool parse_number(std::string_view text, T* out) {
  const char* end = text.data() + text.size();
  auto [stop, ec] = std::from_chars(text.data(), end, *out);
  return !text.empty() && ec == std::errc() && stop == end;
}

bool parse_signed(std::string_view text, int64_t low, int64_t high, Arg* arg) {
  return parse_number(text, &arg->int_value) && arg->int_value >= low && arg->int_value <= high;
}

bool parse_unsigned(std::string_view text, uint64_t high, Arg* arg) {
  return parse_number(text, &arg->uint_value) && arg->uint_value <= high;
}

template <typename T>
bool parse_signed_as(std::string_view text, Arg* arg) {
  return parse_signed(text, std::numeric_limits<T>::min(), std::numeric_limits<T>::max(), arg);
}

template <typename T>
bool parse_unsigned_as(std::string_view text, Arg* arg) {
  return parse_unsigned(text, std::numeric_limits<T>::max(), arg);
}

bool parse_boolean(std::string_view text, Arg* arg) {
  if (text != "true" && text != "false") {
    return false;
  }
  arg->int_value = text == "true";
  return true;
}

// Reads one value of a basic type; false when the text is not such a value.
bool parse_basic_value(char code, std::string_view text, Arg* arg) {
  arg->kind = ArgKind::kBasic;
  arg->code = code;
  arg->signature = std::string(1, code);
  switch (code) {
    case 'n':
      return parse_signed_as<int16_t>(text, arg);
    case 'q':
      return parse_unsigned_as<uint16_t>(text, arg);
    case 'i':
      return parse_signed_as<int32_t>(text, arg);
    case 'u':
      return parse_unsigned_as<uint32_t>(text, arg);
    case 'x':
      return parse_signed_as<int64_t>(text, arg);
    case 't':
      return parse_unsigned_as<uint64_t>(text, arg);
    case 'y':
      return parse_unsigned_as<uint8_t>(text, arg);
    case 'b':
      return parse_boolean(text, arg);
    case 'd':
      return parse_number(text, &arg->double_value);
    case 'o':
      arg->text = text;
      return sd_bus_object_path_is_valid(arg->text.c_str()) > 0;
    default:
      arg->text = text;
      return g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr);
  }
}

// Splits "HEAD:REST" at the first ':'.
bool split_type(std::string_view text, std::string_view* head, std::string_view* rest) {
  size_t colon = text.find(':');
  if (colon == std::string_view::npos) {
    return false;
  }
  *head = text.substr(0, colon);
  *rest = text.substr(colon + 1);
  return true;
}

// The items of a list value: separated by ',', empty items skipped.
std::vector<std::string_view> split_items(std::string_view list) {
  std::vector<std::string_view> items;
  size_t start = 0;
  while (start <= list.size()) {
    size_t comma = list.find(',', start);
    if (comma == std::string_view::npos) {
      comma = list.size();
    }
    if (comma > start) {
      items.push_back(list.substr(start, comma - start));
    }
    start = comma + 1;
  }
  return items;
}

// Each parse_* below returns nullptr on success, else the reason the argument is refused.
const char* parse_basic_arg(std::string_view type, std::string_view value, Arg* arg) {
  std::optional<char> code = basic_code(type);
  if (!code) {
    return "unknown type";
  }
  if (!parse_basic_value(*code, value, arg)) {
    return "value does not fit its type";
  }
  return nullptr;
}

const char* parse_variant(std::string_view rest, Arg* arg) {
  std::string_view type;
  std::string_view value;
  if (!split_type(rest, &type, &value)) {
    return "a variant needs TYPE:VALUE";
  }
  Arg inner;
  if (const char* reason = parse_basic_arg(type, value, &inner)) {
    return reason;
  }
  arg->kind = ArgKind::kVariant;
  arg->signature = "v";
  arg->items.push_back(std::move(inner));
  return nullptr;
}

// Items of an array or dict: even ones (array elements, dict keys) of type even_code, odd ones
// (dict values) of type odd_code.
const char* parse_items(std::string_view list, char even_code, char odd_code, Arg* arg) {
  std::vector<std::string_view> items = split_items(list);
  if (arg->kind == ArgKind::kDict && items.size() % 2 != 0) {
    return "a key has no value";
  }
  for (size_t i = 0; i < items.size(); ++i) {
    Arg item;
    if (!parse_basic_value(i % 2 == 0 ? even_code : odd_code, items[i], &item)) {
      return "an item does not fit its type";
    }
    arg->items.push_back(std::move(item));
  }
  return nullptr;
}

const char* parse_array(std::string_view rest, Arg* arg) {
  std::string_view type;
  std::string_view list;
  if (!split_type(rest, &type, &list)) {
    return "an array needs TYPE:VALUES";
  }
  std::optional<char> code = basic_code(type);
  if (!code) {
    return "unknown element type";
  }
  arg->kind = ArgKind::kArray;
  arg->signature = std::string("a") + *code;
  return parse_items(list, *code, *code, arg);
}

const char* parse_dict(std::string_view rest, Arg* arg) {
  std::string_view key_type;
  std::string_view value_type;
  std::string_view list;
  if (!split_type(rest, &key_type, &rest) || !split_type(rest, &value_type, &list)) {
    return "a dict needs KEYTYPE:VALUETYPE:VALUES";
  }
  std::optional<char> key_code = basic_code(key_type);
  std::optional<char> value_code = basic_code(value_type);
  if (!key_code || !value_code) {
    return "unknown key or value type";
  }
  arg->kind = ArgKind::kDict;
  arg->signature = std::string("a{") + *key_code + *value_code + "}";
  return parse_items(list, *key_code, *value_code, arg);
}

const char* parse_arg(std::string_view word, Arg* arg) {
  std::string_view type;
  std::string_view rest;
  if (!split_type(word, &type, &rest)) {
    return "expected TYPE:VALUE";
  }
  if (type == "variant") {
    return parse_variant(rest, arg);
  }
  if (type == "array") {
    return parse_array(rest, arg);
  }
  if (type == "dict") {
    return parse_dict(rest, arg);
  }
  return parse_basic_arg(type, rest, arg);
}

std::string quoted(std::string_view word) {
  return "'" + std::string(word) + "'";
}

bool parse_timeout(std::string_view text, uint64_t* usec) {
  uint64_t msec = 0;
  // 0 leaves the connection's default timeout.
  if (!parse_number(text, &msec) || msec > UINT64_MAX / 1000) {
    return false;
  }
  *usec = msec * 1000;
  return true;
}

// One "--" option word; false with *error when it is not understood.
bool parse_option(std::string_view word, DbusSendMessage* message, std::string* error) {
  constexpr std::string_view kDest = "--dest=";
  constexpr std::string_view kTimeout = "--reply-timeout=";
  if (word == "--system") {
    message->bus = BusKind::kSystem;
  } else if (word == "--session") {
    message->bus = BusKind::kSession;
  } else if (word == "--type=signal") {
    message->method_call = false;
  } else if (word == "--type=method_call") {
    message->method_call = true;
  } else if (word == "--print-reply" || word == "--print-reply=literal") {
    // The reply comes back as the text of its first argument, literal or not.
    message->print_reply = true;
  } else if (word.starts_with(kDest)) {
    message->destination = word.substr(kDest.size());
    if (sd_bus_service_name_is_valid(message->destination.c_str()) <= 0) {
      *error = "Invalid destination in " + quoted(word);
      return false;
    }
  } else if (word.starts_with(kTimeout)) {
    if (!parse_timeout(word.substr(kTimeout.size()), &message->timeout_usec)) {
      *error = "Invalid reply timeout in " + quoted(word);
      return false;
    }
  } else {
    *error = "Unknown option " + quoted(word);
    return false;
  }
  return true;
}

// INTERFACE.MEMBER, split at the last '.'.
bool parse_name(std::string_view word, DbusSendMessage* message, std::string* error) {
  size_t dot = word.rfind('.');
  if (dot != std::string_view::npos) {
    message->interface = word.substr(0, dot);
    message->member = word.substr(dot + 1);
  }
  if (dot == std::string_view::npos ||
      sd_bus_interface_name_is_valid(message->interface.c_str()) <= 0 ||
      sd_bus_member_name_is_valid(message->member.c_str()) <= 0) {
    *error = "Invalid INTERFACE.MEMBER " + quoted(word);
    return false;
  }
  return true;
}

bool parse_words(char** words, DbusSendMessage* message, std::string* error) {
  char** word = words;
  if (*word != nullptr && std::string_view(*word) == "dbus-send") {
    ++word;
  }
  for (; *word != nullptr && std::string_view(*word).starts_with("--"); ++word) {
    if (!parse_option(*word, message, error)) {
      return false;
    }
  }
  if (*word == nullptr) {
    *error = "Missing object path";
    return false;
  }
  message->path = *word;
  if (sd_bus_object_path_is_valid(message->path.c_str()) <= 0) {
    *error = "Invalid object path " + quoted(*word);
    return false;
  }
  if (*++word == nullptr) {
    *error = "Missing INTERFACE.MEMBER";
    return false;
  }
  if (!parse_name(*word, message, error)) {
    return false;
  }
  for (++word; *word != nullptr; ++word) {
    Arg arg;
    if (const char* reason = parse_arg(*word, &arg)) {
      *error = "Invalid argument " + quoted(*word) + ": " + reason;
      return false;
    }
    message->args.push_back(std::move(arg));
  }
  return true;
}

bool parse_text(const char* text, DbusSendMessage* message, std::string* error) {
  if (text == nullptr) {
    *error = "No message text";
    return false;
  }
  GError* shell_error = nullptr;
  char** words = nullptr;
  if (!g_shell_parse_argv(text, nullptr, &words, &shell_error)) {
    *error = std::string("Cannot split message text: ") + shell_error->message;
    g_error_free(shell_error);
    return false;
  }
  bool ok = parse_words(words, message, error);
  g_strfreev(words);
  return ok;
}

void hand_out(const std::string& text, char** out) {
  if (out != nullptr) {
    *out = g_strdup(text.c_str());
  }
}

}  // namespace

DbusSendMessage* dbus_send_from_string(const char* text, char** error) {
  auto message = std::make_unique<DbusSendMessage>();
  std::string reason;
  if (!parse_text(text, message.get(), &reason)) {
    hand_out(reason, error);
    return nullptr;
  }
  return message.release();
}

int dbus_send_send_message(const DbusSendMessage* message, char** error) {
  std::string reason;
  bool wait = message->method_call && message->print_reply;
  if (!dbussend::send(*message, message->method_call, wait, nullptr, &reason)) {
    hand_out(reason, error);
    return 0;
  }
  return 1;
}

int dbus_send_send_message_get_string(const DbusSendMessage* message, char** error, char** reply) {
  std::string reason;
  std::string text;
  if (!dbussend::send(*message, true, true, &text, &reason)) {
    hand_out(reason, error);
    return 0;
  }
  hand_out(text, reply);
  return 1;
}

void dbus_send_free(DbusSendMessage* message) {
  delete message;
}

void dbus_send_free_string(char* text) {
  g_free(text);
}
