#include "tools/tessctl_explain.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "tools/tessctl_json.h"

namespace {

constexpr const char* kMasked = "*****";

// The options that explain shows, in the order shown.
constexpr const char* kShownOptions[] = {"type",   "accessControl", "file",    "parser",
                                         "mount",  "getter",        "dbus",    "setter",
                                         "daemon", "signal",        "dbustype"};
constexpr const char* kFlags[] = {"readonly", "writeonly", "nosync", "const", "dynamic"};

struct Caller {
  unsigned uid = 0;
  std::string primary;              // name of the primary group
  std::vector<std::string> groups;  // names of the other groups
};

Caller current_caller() {
  Caller caller{getuid(), "", {}};
  gid_t gid = getgid();
  if (const group* primary = getgrgid(gid)) caller.primary = primary->gr_name;
  const passwd* user = getpwuid(caller.uid);
  if (user == nullptr) return caller;
  int count = 64;
  std::vector<gid_t> gids(count);
  if (getgrouplist(user->pw_name, gid, gids.data(), &count) < 0) {
    gids.resize(count);
    getgrouplist(user->pw_name, gid, gids.data(), &count);
  }
  gids.resize(count);
  for (gid_t other : gids) {
    const group* entry = other != gid ? getgrgid(other) : nullptr;
    if (entry != nullptr) caller.groups.emplace_back(entry->gr_name);
  }
  return caller;
}

// A type flag is a word followed by ':' or by the end of the text, anywhere in it.
bool has_flag(std::string_view type, std::string_view flag) {
  for (size_t at = type.find(flag); at != std::string_view::npos; at = type.find(flag, at + 1)) {
    size_t end = at + flag.size();
    bool starts_word = at == 0 || type[at - 1] == ':';
    if (starts_word && (end == type.size() || type[end] == ':')) return true;
  }
  return false;
}

// The value of `key` in a "name:key=value,key=value" check, empty when absent.
std::string check_field(std::string_view check, std::string_view key) {
  std::string wanted = std::string(key) + "=";
  for (size_t at = check.find(wanted); at != std::string_view::npos;
       at = check.find(wanted, at + 1)) {
    if (at != 0 && check[at - 1] != ':' && check[at - 1] != ',') continue;
    size_t start = at + wanted.size();
    return std::string(check.substr(start, check.find(',', start) - start));
  }
  return "";
}

// The value check of a type option in words: its last part that is not a flag.
std::string constraint_words(std::string_view type) {
  if (size_t at = type.find("int:"); at != std::string_view::npos) {
    std::string_view check = type.substr(at);
    std::string min = check_field(check, "min"), max = check_field(check, "max");
    if (!min.empty() && !max.empty()) return "a whole number from " + min + " to " + max;
    return "a whole number";
  }
  if (size_t at = type.find("enum:"); at != std::string_view::npos) {
    return "one of " + std::string(type.substr(at + 5));
  }
  if (type.find("yes_no") != std::string_view::npos) return "yes or no";
  std::string maxlen = check_field(type, "maxlen");
  std::string what = type.find("password") != std::string_view::npos ? "a password" : "a text";
  if (type.find("ip") == 0 || type.find(":ip") != std::string_view::npos) {
    return "an IPv4 address";
  }
  return maxlen.empty() ? what : what + " of at most " + maxlen + " characters";
}

struct Explanation {
  std::string path;
  std::vector<std::pair<std::string, std::string>> options;  // shown options that are set
  std::string value;
  bool readable = false;
  bool masked = false;
  std::string read_reason, write_reason;
  bool may_read = false, may_write = false;

  const std::string* option(std::string_view name) const {
    for (const auto& [key, value] : options) {
      if (key == name) return &value;
    }
    return nullptr;
  }
};

void append_text_line(std::string* out, std::string_view label, std::string_view text) {
  std::string line = "  " + std::string(label);
  line.resize(17, ' ');
  for (char c : text) {
    line += c == '\n' ? std::string("\\n") : std::string(1, c);  // one line per item
  }
  *out += line + "\n";
}

std::string flag_list(const std::string& type, const char* separator) {
  std::string flags;
  for (const char* flag : kFlags) {
    if (!has_flag(type, flag)) continue;
    if (!flags.empty()) flags += separator;
    flags += flag;
  }
  return flags;
}

void print_text(const Explanation& e, std::string* out) {
  *out += e.path + "\n";
  append_text_line(out, "value",
                   e.readable ? (e.masked ? std::string(kMasked) + " (write-only)" : e.value)
                              : "(not readable by you)");
  const std::string* type = e.option("type");
  std::string type_text = type ? *type : "";
  append_text_line(out, "type", (type ? *type + ": " : "") + constraint_words(type_text));
  std::string flags = flag_list(type_text, ", ");
  append_text_line(out, "flags", flags.empty() ? "none" : flags);
  append_text_line(out, "read", (e.may_read ? "yes, " : "no, ") + e.read_reason);
  append_text_line(out, "write", (e.may_write ? "yes, " : "no, ") + e.write_reason);
  for (const char* name : {"accessControl", "file", "parser", "mount", "getter", "dbus", "setter",
                           "daemon", "signal", "dbustype"}) {
    if (const std::string* value = e.option(name)) append_text_line(out, name, *value);
  }
  if (e.option("getter") != nullptr) {
    append_text_line(out, "source", "the getter's output, not a file");
  } else if (!e.option("dbus") && !e.option("setter") && !e.option("daemon")) {
    append_text_line(out, "on change", "nothing is announced");
  }
}

void print_json(const Explanation& e, std::string* out) {
  const std::string* type = e.option("type");
  std::string type_text = type ? *type : "";
  *out += "{\"path\":" + json_string(e.path) +
          ",\"value\":" + (e.readable ? json_string(e.masked ? kMasked : e.value) : "null") +
          ",\"masked\":" + (e.masked ? "true" : "false") +
          ",\"constraint\":" + json_string(constraint_words(type_text)) + ",\"flags\":[";
  std::string flags = flag_list(type_text, "\",\"");
  if (!flags.empty()) *out += "\"" + flags + "\"";
  *out += "],\"read\":{\"allowed\":" + std::string(e.may_read ? "true" : "false") +
          ",\"reason\":" + json_string(e.read_reason) +
          "},\"write\":{\"allowed\":" + (e.may_write ? "true" : "false") +
          ",\"reason\":" + json_string(e.write_reason) + "},\"options\":{";
  bool first = true;
  for (const auto& [name, value] : e.options) {
    *out += (first ? "" : ",") + json_string(name) + ":" + json_string(value);
    first = false;
  }
  *out += "}}\n";
}

// The option's text; an option that is not set reads as the empty text.
int fetch_option(TessClient* client, const std::string& path, const char* name,
                 std::string* value) {
  char* text = nullptr;
  int rc = tessclient_get_param_option(client, path.c_str(), name, &text);
  *value = text != nullptr ? text : "";
  free(text);
  return rc;
}

}  // namespace

bool tessctl_access_allowed(const char* rule, int bit, unsigned uid, const std::string& primary,
                            const std::vector<std::string>& groups, std::string* reason) {
  if (rule == nullptr) {
    *reason = "no accessControl: closed to every client";
    return false;
  }
  if (uid == 0) {
    *reason = "as root";
    return true;
  }
  auto member = [&](std::string_view name) {
    if (name == primary) return true;
    for (const std::string& group : groups) {
      if (group == name) return true;
    }
    return false;
  };
  if (member("system")) {
    *reason = "as a member of system";
    return true;
  }
  std::string_view text = rule;
  for (size_t start = 0; start < text.size();) {
    size_t end = std::min(text.find(';', start), text.size());
    std::string_view entry = text.substr(start, end - start);
    start = end + 1;
    size_t colon = entry.find(':');
    std::string_view name = entry.substr(0, colon);
    if (entry.empty() || (!name.empty() && !member(name))) continue;
    std::string mask(colon == std::string_view::npos ? "" : entry.substr(colon + 1));
    char* rest = nullptr;
    long bits = strtol(mask.c_str(), &rest, 16);
    if (rest == mask.c_str() || (*rest != '\0' && *rest != ' ' && *rest != '\t')) {
      *reason = "the entry \"" + std::string(entry) + "\" is malformed";
      return false;
    }
    if (bits & bit) {
      *reason = "granted by \"" + std::string(entry) + "\"";
      return true;
    }
  }
  *reason = "no entry of \"" + std::string(text) + "\" grants it to you";
  return false;
}

ExplainResult tessctl_explain(TessClient* client, const std::string& path, bool json,
                              std::string* out) {
  Explanation e;
  e.path = path;
  for (const char* name : kShownOptions) {
    std::string value;
    int rc = fetch_option(client, path, name, &value);
    if (rc != TESSCLIENT_OK) return {rc, TESSCLIENT_GETPARAMOPTION};
    if (!value.empty()) e.options.emplace_back(name, value);
  }
  char* value = nullptr;
  int rc = tessclient_get(client, path.c_str(), &value);
  e.readable = rc == TESSCLIENT_OK;
  e.value = value != nullptr ? value : "";
  free(value);
  if (!e.readable && rc != TESSCLIENT_ACCESS_REFUSED) return {rc, TESSCLIENT_GET};
  const std::string* type = e.option("type");
  e.masked = type != nullptr && has_flag(*type, "writeonly");
  Caller caller = current_caller();
  const std::string* rule = e.option("accessControl");
  const char* rule_text = rule ? rule->c_str() : nullptr;
  e.may_read = tessctl_access_allowed(rule_text, 1, caller.uid, caller.primary, caller.groups,
                                      &e.read_reason);
  e.may_write = tessctl_access_allowed(rule_text, 2, caller.uid, caller.primary, caller.groups,
                                       &e.write_reason);
  if (e.may_write && type != nullptr && has_flag(*type, "readonly")) {
    e.may_write = false;
    e.write_reason = "the parameter is read-only";
  }
  if (json) {
    print_json(e, out);
  } else {
    print_text(e, out);
  }
  return {};
}
