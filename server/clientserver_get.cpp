// Requests that read the tree: GET, GETPARAMINFO, GETGROUPINFO, GETPARAMOPTION,
// GETNAMEVALUELIST and READ_FILE.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "base/handles.h"
#include "base/log.h"
#include "mapping/getters.h"
#include "mapping/quibmapping.h"
#include "parsers/quibconfigparser.h"
#include "server/authorization.h"
#include "server/clientserver.h"
#include "server/input_parameter_validation.h"
#include "server/requests.h"
#include "values/legacydatarep.h"

namespace {

constexpr int kMaxOptionNameLength = 255;
constexpr char kMaskedText[] = "*****";
constexpr unsigned char kMaskedValue[] = {0x11, 0x00, 0x06, 0x00, 's', 't', 'r', 'i', 'n',
                                          'g',  0x05, 0x00, '*',  '*', '*', '*', '*'};

template <typename T>
using Malloced = std::unique_ptr<T, FreeDeleter>;

// The identity fields most requests carry.
struct Caller {
  int uid = 0;
  int gid = 0;
  int quiet = 0;
};

bool read_caller(RequestReader* reader, Caller* caller) {
  return read_int_16(reader, &caller->uid) == 0 && read_int_16(reader, &caller->gid) == 0 &&
         read_int_8(reader, &caller->quiet) == 0;
}

// Reads the case byte into the process-wide flag; a request that ends before it leaves 0.
bool read_case_byte(RequestReader* reader) {
  caseSensitive = 0;
  int value = 0;
  if (read_int_8(reader, &value) != 0) return false;
  caseSensitive = value;
  return true;
}

bool is_custom_scalar(const Data* data) {
  return data != nullptr && data->type == DATA_SCALAR && data->scalarKind == SCALAR_CUSTOM;
}

void run_getter(Param* param) {
  const Option* getter = map_getParamOption(param, "getter");
  if (getter != nullptr) map_updateRunGetter(param, getter->value);
}

void reply_one_item(int fd, const void* bytes, int length) {
  createMessage(fd, 6 + length);
  addMessageData(bytes, length);
  sendMessage(fd);
}

// A write-only value reads as stars in every form, unless upgrading.
bool is_masked(const Param* param) {
  return map_typeHasFlag(param, "writeonly") && !upgradeMode;
}

void reply_serialised(int fd, const Param* param) {
  const Data* value = param->value;
  if (is_masked(param)) {
    if (!is_custom_scalar(value)) return sendStatus(fd, STATUS_NO_MEMORY);
    return reply_one_item(fd, kMaskedValue, sizeof(kMaskedValue));
  }
  int length = 0;
  Malloced<unsigned char> bytes(legacy_drep_buildBytesFromData(value, &length));
  if (!bytes) return sendStatus(fd, STATUS_NO_MEMORY);
  reply_one_item(fd, bytes.get(), length);
}

// The text of a typed scalar, or null when it has none (an "ipaddr" that was never set). Asked of
// the scalar itself: a value a client reads must never be able to end the daemon.
Malloced<char> scalar_text(const Data* data) {
  int result = 0;
  Malloced<char> text(scalar_getString(&data->custom, &result));
  if (result != 0) text.reset();
  return text;
}

void reply_text(int fd, const Param* param, int subform) {
  if (subform != 2 || !is_custom_scalar(param->value)) return sendStatus(fd, STATUS_FAILED);
  if (is_masked(param)) return reply_one_item(fd, kMaskedText, sizeof kMaskedText - 1);
  // Most texts fit on the stack; a longer one is printed into a buffer of its own.
  char buffer[256];
  int size = sizeof buffer;
  int result = -1;
  scalar_getStringToBuffer(&param->value->custom, buffer, &size, &result);
  if (result == 0) return reply_one_item(fd, buffer, size);
  Malloced<char> text = scalar_text(param->value);
  if (!text) return sendStatus(fd, STATUS_FAILED);
  reply_one_item(fd, text.get(), static_cast<int>(strlen(text.get())));
}

bool value_is_empty(const Param* param) {
  return param->value == nullptr || param->value->type == DATA_NONE;
}

}  // namespace

void serveGetRequest(int fd, const unsigned char* payload, int length) {
  RequestReader reader{payload, length, 0};
  int form = 0;
  int subform = 0;
  Caller caller;
  std::string path;
  if (read_int_8(&reader, &form) != 0 || read_int_8(&reader, &subform) != 0 ||
      !read_case_byte(&reader) || !read_caller(&reader, &caller) || getPath(&reader, &path) != 0) {
    return sendStatus(fd, STATUS_MALFORMED);
  }
  int access = checkAccessControl(caller.uid, caller.gid, GET, path.c_str(), caller.quiet, fd);
  if (access != STATUS_OK) return sendStatus(fd, access);
  Param* param = map_getParamByPath(path.c_str());
  if (param == nullptr || param->value == nullptr) return sendStatus(fd, STATUS_NO_PARAM);
  if (value_is_empty(param) && !param->hasGetter) return sendStatus(fd, STATUS_NO_PARAM);
  if (param->hasGetter) {
    run_getter(param);
    if (value_is_empty(param)) return sendStatus(fd, STATUS_NO_PARAM);
  }
  if (form == 3) return reply_serialised(fd, param);
  if (form == 0) return reply_text(fd, param, subform);
  sendStatus(fd, STATUS_FAILED);
}

namespace {

// Reads the case byte, the group path and the index of an information request and finds the
// group. False when a status has been answered already.
bool read_indexed_request(int fd, const unsigned char* payload, int length, std::string* path,
                          int* index, Group** group) {
  RequestReader reader{payload, length, 0};
  if (!read_case_byte(&reader) || getPath(&reader, path) != 0 || read_int_16(&reader, index) != 0) {
    sendStatus(fd, STATUS_MALFORMED);
    return false;
  }
  *group = map_getGroupByPath(path->c_str());
  if (*group == nullptr) sendStatus(fd, STATUS_NO_GROUP);
  return *group != nullptr;
}

}  // namespace

void serveGetParamInfo(int fd, const unsigned char* payload, int length) {
  std::string path;
  int index = 0;
  Group* group = nullptr;
  if (!read_indexed_request(fd, payload, length, &path, &index, &group)) return;
  Param* param = map_getParamByIndex(group, index);
  if (param == nullptr) param = map_getParamByPath(path.c_str());
  if (param == nullptr) return sendStatus(fd, STATUS_NO_PARAM);
  const char* type = param->value != nullptr ? legacy_drep_getTypeName(param->value) : "NONE";
  int path_len = static_cast<int>(strlen(param->path));
  int name_len = static_cast<int>(strlen(param->name));
  int type_len = static_cast<int>(strlen(type));
  createMessage(fd, 10 + path_len + name_len + type_len);
  addMessageData(param->path, path_len);
  addMessageData(param->name, name_len);
  addMessageData(type, type_len);
  sendMessage(fd);
}

void serveGetGroupInfo(int fd, const unsigned char* payload, int length) {
  std::string path;
  int index = 0;
  Group* group = nullptr;
  if (!read_indexed_request(fd, payload, length, &path, &index, &group)) return;
  Group* child = map_getChildGroupByIndex(group, index);
  if (child == nullptr) return sendStatus(fd, STATUS_NO_SUBGROUP);
  int path_len = static_cast<int>(strlen(child->path));
  int name_len = static_cast<int>(strlen(child->name));
  createMessage(fd, 8 + path_len + name_len);
  addMessageData(child->path, path_len);
  addMessageData(child->name, name_len);
  sendMessage(fd);
}

void serveGetParamOption(int fd, const unsigned char* payload, int length) {
  RequestReader reader{payload, length, 0};
  std::string path;
  const unsigned char* ignored = nullptr;
  const unsigned char* name_bytes = nullptr;
  int name_len = 0;
  // The byte between the path and the name is part of the layout but carries nothing.
  if (!read_case_byte(&reader) || getPath(&reader, &path) != 0 ||
      read_bytes(&reader, 1, &ignored, "read_int_8") != 0 || read_int_16(&reader, &name_len) != 0 ||
      read_bytes(&reader, name_len, &name_bytes, "getParamOptionName") != 0) {
    return sendStatus(fd, STATUS_MALFORMED);
  }
  std::string name(reinterpret_cast<const char*>(name_bytes), name_len);
  if (name_len > kMaxOptionNameLength || !validateTemplateName(name)) {
    return sendStatus(fd, STATUS_MALFORMED);
  }
  Param* param = map_getParamByPath(path.c_str());
  if (param == nullptr || param->value == nullptr) return sendStatus(fd, STATUS_FAILED);
  const Option* option = map_getParamOption(param, name.c_str());
  const char* text = option != nullptr && option->value != nullptr ? option->value : "";
  int text_len = static_cast<int>(strlen(text));
  // The item counts and carries the terminating zero byte, unlike every other reply.
  createMessage(fd, 7 + text_len);
  addMessageData(text, text_len + 1);
  sendMessage(fd);
}

namespace {

// Builds the plain-text list "path=value<01>path=value<00>" and its status byte.
class NameValueList {
 public:
  explicit NameValueList(int fd, const Caller& caller, bool no_getter)
      : fd_(fd), caller_(caller), no_getter_(no_getter) {}

  void Add(Param* param) {
    if (param->hasGetter && !no_getter_) run_getter(param);
    int access = checkAccessControl(caller_.uid, caller_.gid, GET, param->path, caller_.quiet, fd_);
    if (access == STATUS_ACCESS_REFUSED) return;
    if (access != STATUS_OK) {
      status_ = STATUS_FAILED;
      return;
    }
    std::string value;
    if (!FormatValue(param, &value)) {
      log_error("clientserver", "Failed to append parameter %s to name-value list", param->path);
      status_ = STATUS_FAILED;
      return;
    }
    text_ += param->path;
    text_ += '=';
    text_ += value;
    text_ += '\x01';
  }

  void Fail() { status_ = STATUS_FAILED; }

  void Send() {
    if (!text_.empty()) text_.back() = '\0';
    createMessage(fd_, 4 + static_cast<int>(text_.size()));
    setMessageStatus(status_);
    addMessageDataNoLen(text_.data(), static_cast<int>(text_.size()));
    sendMessage(fd_);
  }

 private:
  static bool FormatValue(const Param* param, std::string* value) {
    const Data* data = param->value;
    if (data == nullptr || data->type == DATA_NONE) {
      *value = "\x02";
      return true;
    }
    if (!is_custom_scalar(data)) return false;
    if (is_masked(param)) {
      *value = kMaskedText;
      return true;
    }
    Malloced<char> text = scalar_text(data);
    if (!text) return false;
    *value = *text.get() != '\0' ? text.get() : "\x02";
    return true;
  }

  int fd_;
  Caller caller_;
  bool no_getter_;
  int status_ = STATUS_OK;
  std::string text_;
};

}  // namespace

void handleGetNameValueList(int fd, const unsigned char* payload, int length) {
  RequestReader reader{payload, length, 0};
  Caller caller;
  int no_getter = 0;
  std::string path;
  if (!read_caller(&reader, &caller) || !read_case_byte(&reader) ||
      read_int_8(&reader, &no_getter) != 0 || getPath(&reader, &path) != 0) {
    return sendStatus(fd, STATUS_MALFORMED);
  }
  NameValueList list(fd, caller, no_getter != 0);
  if (Group* group = map_getGroupByPath(path.c_str())) {
    for (Param* p = group->params; p != nullptr; p = p->next) list.Add(p);
  } else if (Param* param = map_getParamByPath(path.c_str())) {
    list.Add(param);
  } else {
    list.Fail();
  }
  list.Send();
}

void handleReadFileRequest(int fd, const unsigned char* payload, int length) {
  RequestReader reader{payload, length, 0};
  Caller caller;
  int path_len = 0;
  const unsigned char* bytes = nullptr;
  if (!read_caller(&reader, &caller) || read_int_16(&reader, &path_len) != 0 ||
      read_bytes(&reader, path_len, &bytes, "read_int_8") != 0) {
    return sendStatus(fd, STATUS_MALFORMED);
  }
  std::string path(reinterpret_cast<const char*>(bytes), path_len);
  if (!validateReadGroupFilePath(path)) return sendStatus(fd, STATUS_MALFORMED);
  int access =
      checkAccessControl(caller.uid, caller.gid, READ_FILE, path.c_str(), caller.quiet, fd);
  if (access != STATUS_OK) return sendStatus(fd, access);
  if (config_parseFile(path.c_str(), 0) != 0) return sendStatus(fd, STATUS_FAILED);
  map_checkGroupTreeValues(map_getRootGroup());
  sendStatus(fd, STATUS_OK);
}
