// Getters (values produced by a command) and the integer constraints of loaded values.
#include "mapping/getters.h"

#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <string_view>

#include "base/log.h"
#include "dbussend/dbussend.h"
#include "mapping/quibmapping.h"
#include "mapping/setters_internal.h"
#include "values/legacydatarep.h"

namespace {

constexpr const char* kSource = "getters.cpp";
constexpr int kGetterAttempts = 3;
// The text of a custom value read as an integer must fit this buffer.
constexpr int kIntTextSize = 20;

// Runs command and collects all its output, trailing newline included. Returns false (after
// logging) when it cannot be started; *status gets pclose's result.
bool run_command(const Param* param, const char* command, std::string* output, int* status) {
  FILE* stream = popen(command, "r");
  if (stream == nullptr) {
    log_error(kSource, "Unable to get value for param '%s'. Failed to execute script '%s'.",
              param->path, command);
    return false;
  }
  output->clear();
  char chunk[256];
  for (size_t n; (n = fread(chunk, 1, sizeof chunk, stream)) > 0;) {
    output->append(chunk, n);
  }
  *status = pclose(stream);
  return true;
}

// A printf or echo command is expected never to fail, so a failure is taken as passing and it
// is tried again; any other command's output is used all the same.
bool retried_on_failure(const char* command) {
  return starts_with(command, "printf") || starts_with(command, "echo");
}

void set_getter_value(Param* param, const std::string& output) {
  // A failed run leaves DATA_NONE behind; the value is a "string" scalar again for this one.
  if (param->value->type == DATA_NONE) {
    legacy_drep_initializeScalar(param->value, SCALAR_CUSTOM, "string");
  }
  legacy_drep_setCustomFromString(param->value, output.c_str(), nullptr);
  param->getterDone = 1;
}

bool has_int_text(const char* text, long* number) {
  char* end = nullptr;
  errno = 0;
  *number = strtol(text, &end, 10);
  return end != text && errno == 0 && *number >= INT_MIN && *number <= INT_MAX;
}

// The value as an integer, by its scalar kind; false when it is not one.
bool int_of_value(const Data* value, int* out) {
  if (value == nullptr || value->type != DATA_SCALAR) {
    return false;
  }
  long number = 0;
  if (value->scalarKind == SCALAR_INT) {
    *out = value->intValue;
    return true;
  }
  if (value->scalarKind == SCALAR_STRING) {
    if (value->stringValue == nullptr || !has_int_text(value->stringValue, &number)) {
      return false;
    }
  } else if (value->scalarKind == SCALAR_CUSTOM) {
    char buffer[kIntTextSize];
    if (legacy_drep_getCustomStringToBuffer(value, buffer, sizeof buffer) < 0 ||
        !has_int_text(buffer, &number)) {
      return false;
    }
  } else {
    return false;
  }
  *out = static_cast<int>(number);
  return true;
}

// The bounds queried through a "dbustype" option: ",MIN:" and ",MAX:" each followed by a message
// text (the MIN text ends where ",MAX:" begins).
CString dbus_constraint(const char* dbustype) {
  std::string copy = dbustype;
  size_t min = copy.find(",MIN:");
  size_t max = copy.find(",MAX:");
  if (min == std::string::npos || max == std::string::npos) {
    return nullptr;
  }
  std::string max_text = copy.substr(max + 5);
  copy[max] = '\0';
  std::string min_text = copy.c_str() + min + 5;
  char* low = map_queryDbusString(min_text.c_str());
  char* high = map_queryDbusString(max_text.c_str());
  CString constraint(map_buildIntConstraint(low, high));
  dbus_send_free_string(low);
  dbus_send_free_string(high);
  return constraint;
}

CString constraint_of(const Param* param, int blockDbus) {
  if (const Option* type = map_getParamOption(param, "type")) {
    const char* from = strstr(type->value, "int:");
    return CString(from != nullptr ? strdup(from) : nullptr);
  }
  if (blockDbus) {
    return nullptr;
  }
  const Option* dbustype = map_getParamOption(param, "dbustype");
  return dbustype != nullptr ? dbus_constraint(dbustype->value) : nullptr;
}

// Reads text as one integer the way "%i" does (decimal, 0x-hexadecimal, 0-octal).
bool read_int(const char* text, int* out) {
  if (text == nullptr) {
    return false;
  }
  char* end = nullptr;
  errno = 0;
  long number = strtol(text, &end, 0);
  if (end == text || errno != 0 || number < INT_MIN || number > INT_MAX) {
    return false;
  }
  *out = static_cast<int>(number);
  return true;
}

// Loaded values are custom scalars; the other scalar kinds are corrected in their own form
// rather than ending the process.
void set_corrected_value(Data* value, int number, const char* text) {
  if (value->scalarKind == SCALAR_INT) {
    legacy_drep_setInt(value, number);
  } else if (value->scalarKind == SCALAR_STRING) {
    legacy_drep_setString(value, text);
  } else {
    legacy_drep_setCustomFromString(value, text, nullptr);
  }
}

}  // namespace

void map_updateRunGetter(Param* param, const char* command) {
  if (upgradeMode || command == nullptr || starts_with(command, "disabled")) {
    return;
  }
  const Option* type = map_getParamOption(param, "type");
  if (param->getterDone && type != nullptr && strstr(type->value, "const") != nullptr) {
    return;
  }
  std::string output;
  int status = 0;
  for (int attempts_left = kGetterAttempts;; --attempts_left) {
    if (!run_command(param, command, &output, &status)) {
      return;
    }
    if (status == -1) {
      log_error(kSource, "Unable to get value for param '%s'. Script '%s' returned error.",
                param->path, command);
      legacy_drep_resetData(&param->value);
      return;
    }
    if (status == 0) {
      break;
    }
    log_info(kSource, "Script '%s' for param '%s' failed. Exit status: %d", command, param->path,
             status);
    if (!retried_on_failure(command)) {
      break;
    }
    if (attempts_left == 1) {
      log_warning(kSource, "Script '%s' for param '%s' failed. Exit status: %d", command,
                  param->path, status);
      legacy_drep_resetData(&param->value);
      return;
    }
  }
  set_getter_value(param, output);
}

char* map_queryDbusString(const char* message) {
  char* error = nullptr;
  DbusSendMessage* parsed = dbus_send_from_string(message, &error);
  if (parsed == nullptr) {
    log_info(kSource, "Dbus message \"%s\" not valid : %s", message, error ? error : "");
    dbus_send_free_string(error);
    return nullptr;
  }
  char* reply = nullptr;
  if (dbus_send_send_message_get_string(parsed, &error, &reply) == 0) {
    log_info(kSource, "Could not send dbus message: %s : %s", message, error ? error : "");
    dbus_send_free_string(error);
    reply = nullptr;
  }
  dbus_send_free(parsed);
  return reply;
}

char* map_buildIntConstraint(const char* minText, const char* maxText) {
  int min = 0;
  int max = 0;
  if (!read_int(minText, &min) || !read_int(maxText, &max)) {
    return nullptr;
  }
  int length = std::max(snprintf(nullptr, 0, "%i", min), snprintf(nullptr, 0, "%i", max));
  char* text = nullptr;
  if (asprintf(&text, "int:maxlength=%i,min=%i,max=%i", length, min, max) < 0) {
    return nullptr;
  }
  return text;
}

void map_checkParamConstraint(Param* param, int blockDbus) {
  CString constraint = constraint_of(param, blockDbus);
  if (constraint == nullptr) {
    return;
  }
  int value = 0;
  if (!int_of_value(param->value, &value)) {
    log_info(kSource, "%s was supposed to be an int, but wasn't. Value check has been ignored.",
             param->name);
    return;
  }
  if (legacy_drep_checkRange(constraint.get(), &value) != -1) {
    return;
  }
  char text[16];
  snprintf(text, sizeof text, "%d", value);
  log_info(kSource, "%s received a value out of range when defined.", param->name);
  set_corrected_value(param->value, value, text);
}
