// Setters: D-Bus messages, setter commands and the per-synchronisation run-setter list.
// Signals to daemons are in setters_signal.cpp.
#include "mapping/setters.h"

#include <stdlib.h>

#include <cctype>
#include <cstring>
#include <string>
#include <string_view>
#include <unordered_set>

#include "base/log.h"
#include "dbussend/dbussend.h"
#include "mapping/quibmapping.h"
#include "mapping/setters_internal.h"
#include "values/legacydatarep.h"

namespace {

constexpr const char* kSource = "setters.cpp";

// A setter command already run in this synchronisation. The list is kept as the database has it;
// the set beside it answers "already run?" without walking the list.
struct RunSetter {
  RunSetter* next;
  char* command;
};

struct RunSetterList {
  RunSetter* head = nullptr;
  std::unordered_set<std::string_view> index;  // views of the commands in the list
};

RunSetterList& run_setters() {
  static RunSetterList list;
  return list;
}

void addSetter(const char* command) {
  auto* entry = static_cast<RunSetter*>(malloc(sizeof(RunSetter)));
  char* copy = strdup(command);
  if (entry == nullptr || copy == nullptr) {
    log_fatal(kSource, "Out of memory in addSetter()!");
  }
  RunSetterList& list = run_setters();
  *entry = RunSetter{list.head, copy};
  list.head = entry;
  list.index.insert(copy);
}

bool setter_already_run(const char* command) {
  return run_setters().index.contains(command);
}

// The group number: the name without its first character, when that rest is one or more decimal
// digits; empty when the name has none.
std::string group_number(const char* name) {
  if (name[0] == '\0' || name[1] == '\0') {
    return {};
  }
  for (const char* c = name + 1; *c != '\0'; ++c) {
    if (!isdigit(static_cast<unsigned char>(*c))) {
      return {};
    }
  }
  return name + 1;
}

CString replace_all(const char* text, const char* pattern, const std::string& replacement) {
  return CString(map_replaceAll(text, pattern, replacement.c_str()));
}

CString value_text(const Param* param) {
  return CString(legacy_drep_getCustomString(param->value, nullptr));
}

bool is_password(const Param* param) {
  const Option* type = map_getParamOption(param, "type");
  if (type == nullptr) {
    return false;
  }
  std::string_view words = type->value;
  for (size_t start = 0; start <= words.size();) {
    size_t colon = words.find(':', start);
    if (colon == std::string_view::npos) {
      colon = words.size();
    }
    if (words.substr(start, colon - start) == "password") {
      return true;
    }
    start = colon + 1;
  }
  return false;
}

// Logs a failed parameter message. For a password, the message is logged only up to the last
// place the value appears, which is masked; whatever follows it is not logged either.
void log_send_failure(const Param* param, const char* message, const std::string& quoted,
                      const char* error) {
  if (!is_password(param) || quoted.empty()) {
    log_info(kSource, "Could not send dbus message: %s : %s", message, error);
    return;
  }
  std::string_view text = message;
  size_t at = text.rfind(quoted);
  if (at == std::string_view::npos) {
    log_info(kSource, "Could not send dbus message: %s", error);
    return;
  }
  std::string masked = std::string(text.substr(0, at)) + "*****'";
  log_info(kSource, "Could not send dbus message: %s : %s", masked.c_str(), error);
}

// Parses and sends message. When it does not parse, or is not sent, the error text goes to
// on_invalid or on_failed respectively.
template <typename Invalid, typename Failed>
void send_message(const char* message, Invalid on_invalid, Failed on_failed) {
  char* error = nullptr;
  DbusSendMessage* parsed = dbus_send_from_string(message, &error);
  if (parsed == nullptr) {
    on_invalid(error ? error : "");
    dbus_send_free_string(error);
    return;
  }
  if (dbus_send_send_message(parsed, &error) == 0) {
    on_failed(error ? error : "");
    dbus_send_free_string(error);
  }
  dbus_send_free(parsed);
}

// The start-up message of a parameter whose setters are not due: sent once, unless held back.
void send_startup_message(Param* param, int blockDbus) {
  if (param->dbusAtStart == 0 || blockDbus) {
    return;
  }
  if (const Option* dbus = map_getParamOption(param, "dbus")) {
    map_sendParamDbusMessage(dbus->value, param);
  }
  param->dbusAtStart = 0;
}

// Exports every parameter of the updated-parameter list as an environment variable.
void export_updated_params() {
  for (const UpdatedParamEntry* e = map_getUpdatedParamList(); e != nullptr; e = e->next) {
    if (e->envName == nullptr) {
      log_error(kSource, "Parameter path in %s was NULL!", "update_runSetter");
      continue;
    }
    CString value = value_text(e->param);
    if (value == nullptr) {
      log_error(kSource, "Failed to get value for parameter %s", e->param->path);
    }
    const char* text = value ? value.get() : "";
    if (setenv(e->envName, text, 1) != 0) {
      log_error(kSource, "Failed to set environment variable %s to %s", e->envName, text);
    }
  }
}

void unexport_updated_params() {
  for (const UpdatedParamEntry* e = map_getUpdatedParamList(); e != nullptr; e = e->next) {
    if (e->envName != nullptr) {
      unsetenv(e->envName);
    }
  }
}

// Starts the parameter's setter command, detached, unless it already ran in this
// synchronisation.
void run_setter_command(const Param* param) {
  const Option* setter = map_getParamOption(param, "setter");
  if (setter == nullptr || setter->value[0] == '\0' || starts_with(setter->value, "disabled") ||
      setter_already_run(setter->value)) {
    return;
  }
  std::string command = std::string(setter->value) + "&";
  export_updated_params();
  // The shell starts the command in the background; its result tells nothing about the command.
  [[maybe_unused]] int ignored = system(command.c_str());
  unexport_updated_params();
  addSetter(setter->value);
}

}  // namespace

char* map_replaceAll(const char* text, const char* pattern, const char* replacement) {
  std::string_view rest = text;
  std::string_view from = pattern;
  std::string result;
  if (!from.empty()) {
    for (size_t at = rest.find(from); at != std::string_view::npos; at = rest.find(from)) {
      result.append(rest.substr(0, at)).append(replacement);
      rest.remove_prefix(at + from.size());
    }
  }
  result.append(rest);
  char* copy = strdup(result.c_str());
  if (copy == nullptr) {
    log_fatal(kSource, "Out of memory in %s!", "map_replaceAll");
  }
  return copy;
}

void map_sendParamDbusMessage(const char* dbusTemplate, Param* param) {
  CString value = value_text(param);
  if (upgradeMode || value == nullptr) {
    return;
  }
  CString quoted = replace_all(value.get(), "'", "'\\''");
  CString s1 = replace_all(dbusTemplate, "$VALUE", quoted.get());
  CString s2 = replace_all(s1.get(), "$NAME", param->path);
  // In a numbered group $GROUPNUM is filled in s1, so a $NAME stays as it is: message templates
  // of numbered groups rely on it.
  std::string number = group_number(param->group->name);
  CString s3 = number.empty() ? replace_all(s2.get(), "$GROUPNUM", "")
                              : replace_all(s1.get(), "$GROUPNUM", number);
  CString s4 = replace_all(s3.get(), "$GROUP", param->group->name);
  send_message(
      s4.get(),
      [&](const char* error) {
        log_info(kSource, "Dbus message \"%s\" not valid : %s : Could not set %s in %s", s2.get(),
                 error, param->path, param->group->name);
      },
      [&](const char* error) { log_send_failure(param, s4.get(), quoted.get(), error); });
}

void map_sendGroupDbusMessage(const char* dbusTemplate, Group* group) {
  CString s1 = replace_all(dbusTemplate, "$NAME", group->path);
  CString s2 = replace_all(s1.get(), "$GROUPNUM", group_number(group->name));
  CString message = replace_all(s2.get(), "$GROUP", group->name);
  send_message(
      message.get(),
      [&](const char* error) {
        log_info(kSource, "Dbus message \"%s\" not valid : %s : Could not set %s in %s",
                 message.get(), error, group->name, group->path);
      },
      [&](const char* error) {
        log_info(kSource, "Could not send dbus message: %s : %s", message.get(), error);
      });
}

void update_runSetter(Param* param, int mode, int blockDbus, int removedGroup) {
  bool quiet = !removedGroup && (param->status != PARAMSTATUS_UPDATED || mode == 0) &&
               param->setterPending == 0;
  if (quiet) {
    send_startup_message(param, blockDbus);
    return;
  }
  param->dbusAtStart = 0;
  if (param->options == nullptr && param->inherited == nullptr) {
    param->setterPending = 0;
    return;
  }
  const Option* dbus = map_getParamOption(param, "dbus");
  if (dbus != nullptr && !blockDbus && param->setterPending == 1) {
    map_sendParamDbusMessage(dbus->value, param);
  }
  if (!upgradeMode) {
    run_setter_command(param);
  }
  if (const Option* daemon = map_getParamOption(param, "daemon")) {
    const Option* signal = map_getParamOption(param, "signal");
    update_sendSignal(daemon->value, signal != nullptr ? signal->value : "1");
  }
  param->setterPending = 0;
}

void update_clearRunSetters() {
  RunSetterList& list = run_setters();
  list.index.clear();
  while (RunSetter* entry = list.head) {
    list.head = entry->next;
    free(entry->command);
    free(entry);
  }
}
