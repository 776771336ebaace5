// Requests that create and delete dynamic groups: CREATE_GROUP, its second form (type 10, which
// ignores the maxGroups limits) and DELETE_GROUP.
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/handles.h"
#include "base/log.h"
#include "dynamic/dynamic.h"
#include "mapping/quibmapping.h"
#include "server/authorization.h"
#include "server/clientserver.h"
#include "server/input_parameter_validation.h"
#include "server/requests.h"

namespace {

constexpr int kMaxTemplateName = 255;
constexpr int kAnyNumber = 0xFFFF;
// The status of a creation whose group exists already (the code that reads "no parameter" for
// the read requests).
constexpr int kStatusExists = 0x10;

struct GroupRequest {
  int uid = 0;
  int gid = 0;
  int quiet = 0;
  std::string path;
  int number = -1;
  std::string tmpl;
  int sync = 0;
  bool has_sync = false;
};

// uid, gid, quiet, the case byte (into the process-wide flag) and the path.
bool read_group_head(RequestReader* reader, GroupRequest* request) {
  int case_byte = 0;
  caseSensitive = 0;
  if (read_int_16(reader, &request->uid) != 0 || read_int_16(reader, &request->gid) != 0 ||
      read_int_8(reader, &request->quiet) != 0 || read_int_8(reader, &case_byte) != 0) {
    return false;
  }
  caseSensitive = case_byte;
  return getPath(reader, &request->path) == 0;
}

bool read_template_name(RequestReader* reader, std::string* tmpl) {
  int length = 0;
  const unsigned char* bytes = nullptr;
  if (read_int_16(reader, &length) != 0 || length > kMaxTemplateName ||
      read_bytes(reader, length, &bytes, "getTemplateName") != 0) {
    return false;
  }
  tmpl->assign(reinterpret_cast<const char*>(bytes), length);
  return validateTemplateName(*tmpl) != 0;
}

bool read_create_request(RequestReader* reader, GroupRequest* request) {
  if (!read_group_head(reader, request) || read_int_16(reader, &request->number) != 0 ||
      !read_template_name(reader, &request->tmpl) || read_int_8(reader, &request->sync) != 0) {
    return false;
  }
  if (request->number == kAnyNumber) request->number = -1;
  request->has_sync = true;
  return true;
}

// The creation or deletion mode of a sync byte: 0 to 8 act as 10, the others as themselves.
int mode_of(const GroupRequest& request) {
  if (!request.has_sync || request.sync < 9) return 10;
  return request.sync;
}

// A maxGroups option as a number, or -1 when it is absent.
int group_limit(const char* text) {
  return text != nullptr ? atoi(text) : -1;
}

// The group limit of a creation: the smaller of the parent's and the template's maxGroups.
// True when there is room (no limit, or the parent has fewer children than the limit; children
// past the limit are dropped from the tree by the check).
bool has_room(const GroupRequest& request) {
  Group* parent = map_getGroupByPath(request.path.c_str());
  const Option* option = parent != nullptr ? map_getGroupOption(parent, "maxGroups") : nullptr;
  int limit = group_limit(option != nullptr ? option->value : nullptr);
  char* raw = nullptr;
  if (get_option_from_template(request.tmpl.c_str(), "maxGroups", &raw) == 0 && raw != nullptr) {
    CString text(raw);
    int tmpl_limit = group_limit(text.get());
    limit = limit < 0 || tmpl_limit < limit ? tmpl_limit : limit;
  }
  return limit < 0 || map_truncateChildGroups(parent, limit, mode_of(request)) != 0;
}

void reply_with_name(int fd, const char* name) {
  int length = static_cast<int>(strlen(name));
  createMessage(fd, 5 + length);
  addMessageDataNoLen(name, length + 1);
  sendMessage(fd);
}

void serve_create(int fd, int type, const unsigned char* payload, int length) {
  RequestReader reader{payload, length, 0};
  GroupRequest request;
  if (!read_create_request(&reader, &request)) return sendStatus(fd, STATUS_MALFORMED);
  int access =
      checkAccessControl(request.uid, request.gid, type, request.tmpl.c_str(), request.quiet, fd);
  if (access != STATUS_OK) return sendStatus(fd, access);
  if (type == CREATE_GROUP && !has_room(request)) return sendStatus(fd, STATUS_GROUP_LIMIT);
  int status = 0;
  CString name(create_new_group(request.path.c_str(), request.number, request.tmpl.c_str(), &status,
                                mode_of(request)));
  if (!name) return sendStatus(fd, status == -1 ? kStatusExists : STATUS_FAILED);
  if (request.sync >= 10 && map_sync(request.sync, 0) != 0) return sendStatus(fd, STATUS_FAILED);
  reply_with_name(fd, name.get());
}

}  // namespace

void serveCreateGroupRequest(int fd, const unsigned char* payload, int length) {
  serve_create(fd, CREATE_GROUP, payload, length);
}

void serveCreateGroupRequest2(int fd, const unsigned char* payload, int length) {
  serve_create(fd, CREATE_GROUP_2, payload, length);
}

void serveDeleteGroupRequest(int fd, const unsigned char* payload, int length) {
  RequestReader reader{payload, length, 0};
  GroupRequest request;
  if (!read_group_head(&reader, &request)) return sendStatus(fd, STATUS_MALFORMED);
  // The sync byte is optional: without it the group is deleted with mode 10 and not synchronised.
  request.has_sync = reader.pos < reader.length && read_int_8(&reader, &request.sync) == 0;
  int access = checkAccessControl(request.uid, request.gid, DELETE_GROUP, request.path.c_str(),
                                  request.quiet, fd);
  if (access != STATUS_OK) return sendStatus(fd, access);
  if (delete_group(request.path.c_str(), mode_of(request)) < 0) {
    return sendStatus(fd, STATUS_FAILED);
  }
  if (request.has_sync && request.sync >= 10 && map_sync(request.sync, 0) != 0) {
    return sendStatus(fd, STATUS_FAILED);
  }
  sendStatus(fd, STATUS_OK);
}
