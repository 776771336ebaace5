// Requests that change the tree: SET and SNC.
#include <glib.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "base/handles.h"
#include "base/log.h"
#include "dbussend/dbussend.h"
#include "mapping/getters.h"
#include "mapping/quibmapping.h"
#include "parsers/parserframework.h"
#include "server/authorization.h"
#include "server/clientserver.h"
#include "server/requests.h"
#include "values/legacydatarep.h"

namespace {

template <typename T>
using Malloced = std::unique_ptr<T, FreeDeleter>;

struct DbusStringFree {
  void operator()(char* text) const { dbus_send_free_string(text); }
};

struct RegexUnref {
  void operator()(GRegex* r) const { g_regex_unref(r); }
};
using UniqueRegex = std::unique_ptr<GRegex, RegexUnref>;

struct SetRequest {
  int form = 0;
  int subform = 0;
  int uid = 0;
  int gid = 0;
  int quiet = 0;
  std::string path;
  const unsigned char* value = nullptr;
  int value_length = 0;
  int sync = 0;
};

bool read_set_request(RequestReader* reader, SetRequest* request) {
  int case_byte = 0;
  caseSensitive = 0;
  if (read_int_8(reader, &request->form) != 0 || read_int_8(reader, &request->subform) != 0 ||
      read_int_16(reader, &request->uid) != 0 || read_int_16(reader, &request->gid) != 0 ||
      read_int_8(reader, &request->quiet) != 0 || read_int_8(reader, &case_byte) != 0) {
    return false;
  }
  caseSensitive = case_byte;
  return getPath(reader, &request->path) == 0 && read_int_16(reader, &request->value_length) == 0 &&
         read_bytes(reader, request->value_length, &request->value, "validateValue") == 0 &&
         read_int_8(reader, &request->sync) == 0;
}

const char* option_text(const Param* param, const char* name) {
  const Option* option = map_getParamOption(param, name);
  return option != nullptr ? option->value : nullptr;
}

// The integer range of a parameter: the "int:" part of its `type`, or bounds queried over D-Bus
// through its `dbustype`. Empty when it has none.
std::string integer_range(const char* type, const char* dbustype) {
  if (type != nullptr) {
    const char* at = strstr(type, "int:");
    return at != nullptr ? at : "";
  }
  const char* min = dbustype != nullptr ? strstr(dbustype, ",MIN:") : nullptr;
  const char* max = dbustype != nullptr ? strstr(dbustype, ",MAX:") : nullptr;
  if (min == nullptr || max == nullptr || max < min) return "";
  std::string min_query(min + 5, max);
  std::unique_ptr<char, DbusStringFree> low(map_queryDbusString(min_query.c_str()));
  std::unique_ptr<char, DbusStringFree> high(map_queryDbusString(max + 5));
  Malloced<char> range(map_buildIntConstraint(low.get(), high.get()));
  return range ? range.get() : "";
}

void refuse_data_type(const SetRequest& request) {
  log_error("clientserver", "%s: Set request with unsupported or wrong data type for %s.",
            "serveSetRequest", request.path.c_str());
}

// The value a SET carries, as text (form 0) or decoded (form 3).
struct NewValue {
  std::string text;
  UniqueData data;
};

// Applies the integer range to the value; returns a status, STATUS_OK to go on.
int clamp_to_range(const Param* param, const std::string& range, NewValue* value, int form) {
  std::string text = value->text;
  if (form == 3) {
    if (!value->data) return STATUS_MALFORMED;
    if (value->data->type != DATA_SCALAR || value->data->scalarKind != SCALAR_CUSTOM) {
      return STATUS_NO_MEMORY;
    }
    Malloced<char> decoded(legacy_drep_getCustomString(value->data.get(), nullptr));
    text = decoded.get();
  }
  int number = static_cast<int>(strtol(text.c_str(), nullptr, 10));
  if (legacy_drep_checkRange(range.c_str(), &number) == 0) return STATUS_OK;
  log_info("clientserver",
           "Attempted to set int value to %s that was out the specified range. Value truncated.",
           param->name);
  std::string clamped = std::to_string(number);
  if (form == 3) {
    legacy_drep_setCustomFromString(value->data.get(), clamped.c_str(), nullptr);
  } else {
    value->text = clamped;
  }
  return STATUS_OK;
}

int store_text(Param* param, const SetRequest& request, std::string text) {
  Data* present = param->value;
  if (present->type != DATA_NONE &&
      (present->type != DATA_SCALAR || present->scalarKind != SCALAR_CUSTOM)) {
    refuse_data_type(request);
    return STATUS_NO_MEMORY;
  }
  if (!checkTextValue(param, &text)) return STATUS_FAILED;
  if (present->type == DATA_NONE) {
    if (legacy_drep_initializeScalar(present, SCALAR_CUSTOM, "string") != 0 ||
        legacy_drep_setCustomFromString(present, text.c_str(), nullptr) != 0) {
      return STATUS_FAILED;
    }
    map_addUpdatedParamList(param);
    return STATUS_OK;
  }
  UniqueData copy(legacy_drep_copyData(present));
  if (legacy_drep_setCustomFromString(copy.get(), text.c_str(), nullptr) != 0) return STATUS_FAILED;
  map_replaceParamData(param, copy.release());
  return STATUS_OK;
}

int store_serialised(Param* param, const SetRequest& request, NewValue* value) {
  if (!value->data) return STATUS_FAILED;
  // The serialised form is taken as a hash: it replaces only an empty or a hash value.
  uint32_t present = param->value->type;
  // Every registered parser writes custom scalars: any other value given to an empty parameter
  // could not be written, and the write would end the daemon.
  const Data* data = value->data.get();
  bool scalar = data->type == DATA_SCALAR && data->scalarKind == SCALAR_CUSTOM;
  if ((present != DATA_NONE && present != DATA_HASH) || (present == DATA_NONE && !scalar)) {
    refuse_data_type(request);
    return STATUS_NO_MEMORY;
  }
  map_replaceParamData(param, value->data.release());
  return STATUS_OK;
}

int store_value(Param* param, const SetRequest& request, NewValue* value) {
  if (request.form == 0 && request.subform == 2) return store_text(param, request, value->text);
  if (request.form == 3) return store_serialised(param, request, value);
  refuse_data_type(request);
  if (request.form > 3 && param->value->type != DATA_NONE) return STATUS_NO_MEMORY;
  return STATUS_FAILED;
}

int decode_value(const SetRequest& request, NewValue* value) {
  if (request.form == 3) {
    int consumed = 0;
    value->data.reset(
        legacy_drep_buildDataFromBytesChecked(request.value, request.value_length, &consumed));
  } else {
    value->text.assign(reinterpret_cast<const char*>(request.value), request.value_length);
    // A text stops at its first NUL, as a C string would.
    value->text.resize(strlen(value->text.c_str()));
  }
  return STATUS_OK;
}

// A value that the backing file's format cannot hold is refused before it is stored: written, it
// would change other entries of the file.
bool fits_backing_file(Param* param, const SetRequest& request, const NewValue& value) {
  std::string text = value.text;
  if (request.form == 3) {
    const Data* data = value.data.get();
    if (data == nullptr || data->type != DATA_SCALAR || data->scalarKind != SCALAR_CUSTOM) {
      return true;  // refused or checked when it is stored
    }
    Malloced<char> decoded(legacy_drep_getCustomString(data, nullptr));
    text = decoded ? decoded.get() : "";
  }
  if (parser_canHoldValue(param, text)) return true;
  log_error("clientserver", "%s: the file of %s cannot hold the value, refused.", "serveSetRequest",
            request.path.c_str());
  return false;
}

int serve_set(int fd, const SetRequest& request) {
  int access =
      checkAccessControl(request.uid, request.gid, SET, request.path.c_str(), request.quiet, fd);
  if (access != STATUS_OK) return access;
  Param* param = map_getParamByPath(request.path.c_str());
  if (param == nullptr || param->value == nullptr) return STATUS_FAILED;
  if (upgradeMode && param->hasGetter) return STATUS_OK;
  const char* type = option_text(param, "type");
  const char* dbustype = type == nullptr ? option_text(param, "dbustype") : nullptr;
  const char* constraint = type != nullptr ? type : dbustype;
  if (constraint != nullptr && map_textHasFlag(constraint, "readonly")) {
    return upgradeMode ? STATUS_OK : STATUS_READ_ONLY;
  }
  NewValue value;
  decode_value(request, &value);
  std::string range = constraint != nullptr ? integer_range(type, dbustype) : "";
  if (!range.empty()) {
    int status = clamp_to_range(param, range, &value, request.form);
    if (status != STATUS_OK) return status;
  }
  if (param->hasGetter && map_getParamOption(param, "dbus") == nullptr) {
    return upgradeMode ? STATUS_OK : STATUS_ACCESS_REFUSED;
  }
  if (!fits_backing_file(param, request, value)) return STATUS_NO_MEMORY;
  int status = store_value(param, request, &value);
  if (status != STATUS_OK) return status;
  if (request.sync >= 10 && map_sync(request.sync, 0) != 0) return STATUS_FAILED;
  return STATUS_OK;
}

}  // namespace

void serveSetRequest(int fd, const unsigned char* payload, int length) {
  RequestReader reader{payload, length, 0};
  SetRequest request;
  if (!read_set_request(&reader, &request)) return sendStatus(fd, STATUS_MALFORMED);
  sendStatus(fd, serve_set(fd, request));
}

void serveSyncRequest(int fd, const unsigned char* payload, int length) {
  RequestReader reader{payload, length, 0};
  int selector = 0;
  if (read_int_8(&reader, &selector) != 0) return sendStatus(fd, STATUS_MALFORMED);
  sendStatus(fd, map_sync(selector, 0) == 0 ? STATUS_OK : STATUS_FAILED);
}

namespace {

constexpr const char* kFlagPrefixPattern =
    "(^|)\\s*(hidden|internal|nosync|readonly|writeonly|const)\\s*:";
constexpr const char* kListEntryPattern = "(?:^|,)\\s*([^\\|,]+)";

enum class Check { kList, kMaxlen, kLength, kAccept };

struct TypeWord {
  const char* word;
  Check check;
  const char* list;  // fixed list for kList, or null to use the argument part
  size_t max_length;
};

// In table order: the first word found in the type word part decides the check.
constexpr TypeWord kTypeWords[] = {
    {"radio", Check::kList, nullptr, 0},      {"enum", Check::kList, nullptr, 0},
    {"yes_no", Check::kList, "no,yes", 0},    {"on_off", Check::kList, "off,on", 0},
    {"bool", Check::kList, nullptr, 0},       {"checkbox", Check::kList, nullptr, 0},
    {"string", Check::kMaxlen, nullptr, 0},   {"password", Check::kMaxlen, nullptr, 0},
    {"MACADDR", Check::kLength, nullptr, 17}, {"IPNAME", Check::kLength, nullptr, 64},
    {"ip|IP", Check::kLength, nullptr, 15},   {"int", Check::kAccept, nullptr, 0},
};

GRegex* compile(const char* pattern) {
  GRegex* regex = g_regex_new(pattern, G_REGEX_OPTIMIZE, static_cast<GRegexMatchFlags>(0), nullptr);
  if (regex == nullptr) log_error("clientserver", "Could not compile pattern '%s'", pattern);
  return regex;
}

// Compiled once; the daemon keeps them for its lifetime.
GRegex* type_word_regex(size_t index) {
  static GRegex* compiled[std::size(kTypeWords)] = {};
  if (compiled[index] == nullptr) {
    std::string pattern = std::string("[^[:alpha:]]*(") + kTypeWords[index].word + ")[^[:alpha:]]*";
    compiled[index] = compile(pattern.c_str());
  }
  return compiled[index];
}

bool list_check(const char* list, std::string* value) {
  if (list == nullptr || *list == '\0') return true;
  static GRegex* entry_regex = compile(kListEntryPattern);
  if (entry_regex == nullptr) return true;
  GMatchInfo* match = nullptr;
  bool found = false;
  g_regex_match(entry_regex, list, static_cast<GRegexMatchFlags>(0), &match);
  while (!found && g_match_info_matches(match)) {
    gchar* entry = g_match_info_fetch(match, 1);
    if (entry != nullptr && g_ascii_strcasecmp(entry, value->c_str()) == 0) {
      *value = entry;
      found = true;
    }
    g_free(entry);
    g_match_info_next(match, nullptr);
  }
  g_match_info_free(match);
  return found;
}

bool maxlen_check(const char* arguments, const std::string& value) {
  if (arguments == nullptr) return true;
  const char* at = strstr(arguments, "maxlen");
  const char* equals = at != nullptr ? strchr(at, '=') : nullptr;
  if (equals == nullptr) return true;
  long limit = strtol(equals + 1, nullptr, 10);
  return limit == 0 || value.size() <= static_cast<size_t>(limit);
}

std::string strip_flag_prefixes(const char* type, bool* ok) {
  static GRegex* prefix_regex = compile(kFlagPrefixPattern);
  *ok = prefix_regex != nullptr;
  if (!*ok) return type;
  gchar* stripped =
      g_regex_replace(prefix_regex, type, -1, 0, "", static_cast<GRegexMatchFlags>(0), nullptr);
  std::string result = stripped != nullptr ? stripped : type;
  g_free(stripped);
  return result;
}

}  // namespace

bool checkTextValue(const Param* param, std::string* value) {
  const char* type = option_text(param, "type");
  if (type == nullptr || *type == '\0' || strstr(type, "nocheck") != nullptr) return true;
  bool compiled = false;
  std::string rest = strip_flag_prefixes(type, &compiled);
  if (!compiled) return true;
  size_t colon = rest.find(':');
  std::string words = rest.substr(0, colon);
  std::string arguments = colon == std::string::npos ? "" : rest.substr(colon + 1);
  const char* args = colon == std::string::npos ? nullptr : arguments.c_str();
  for (size_t i = 0; i < std::size(kTypeWords); i++) {
    GRegex* regex = type_word_regex(i);
    if (regex == nullptr) return true;
    if (!g_regex_match(regex, words.c_str(), static_cast<GRegexMatchFlags>(0), nullptr)) continue;
    const TypeWord& word = kTypeWords[i];
    switch (word.check) {
      case Check::kList:
        return list_check(word.list != nullptr ? word.list : args, value);
      case Check::kMaxlen:
        return maxlen_check(args, *value);
      case Check::kLength:
        return value->size() <= word.max_length;
      case Check::kAccept:
        return true;
    }
  }
  return true;
}
