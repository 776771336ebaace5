#include <tessard/tessclient.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

#include "base/handles.h"

namespace {

constexpr size_t kMaxRequest = 0xFFFF;
constexpr size_t kMaxCounted = 0xFFFF;
constexpr size_t kReplyHeader = 4;
constexpr unsigned kAnyNumberOnWire = 0xFFFF;
// Form and sub-form bytes of GET and SET.
constexpr unsigned kFormText = 0;
constexpr unsigned kSubFormText = 2;
constexpr unsigned kFormBytes = 3;
// Name-value list bytes: entry separator, value of an empty parameter, end of the list.
constexpr char kEntrySeparator = '\x01';
constexpr std::string_view kEmptyValue = "\x02";

}  // namespace

struct TessClient {
  UniqueFd fd;
  unsigned uid = 0;
  unsigned gid = 0;
  unsigned case_byte = 0;
  unsigned quiet = 0;
};

namespace {

// One request frame; the length field is filled in by finish().
class Request {
 public:
  explicit Request(TessClientRequest type) : bytes_{0, 0, static_cast<uint8_t>(type)} {}

  Request& int8(unsigned value) {
    bytes_.push_back(static_cast<uint8_t>(value & 0xFF));
    return *this;
  }
  Request& int16(unsigned value) { return int8(value).int8(value >> 8); }
  Request& counted(std::string_view text) {
    if (text.size() > kMaxCounted) too_long_ = true;
    int16(static_cast<unsigned>(text.size()));
    bytes_.insert(bytes_.end(), text.begin(), text.end());
    return *this;
  }
  // uid, gid and quiet, in the order every request that carries them has them.
  Request& identity(const TessClient& client) {
    return int16(client.uid).int16(client.gid).int8(client.quiet);
  }
  // False when the frame cannot be expressed in the protocol.
  bool finish() {
    if (too_long_ || bytes_.size() > kMaxRequest) return false;
    bytes_[0] = static_cast<uint8_t>(bytes_.size() & 0xFF);
    bytes_[1] = static_cast<uint8_t>(bytes_.size() >> 8);
    return true;
  }
  const std::vector<uint8_t>& bytes() const { return bytes_; }

 private:
  std::vector<uint8_t> bytes_;
  bool too_long_ = false;
};

struct Reply {
  int status = 0;
  std::vector<uint8_t> data;

  std::string_view text() const {
    return {reinterpret_cast<const char*>(data.data()), data.size()};
  }
};

// Reads counted items (int16 length, bytes) from a reply's data, never past its end.
class ItemReader {
 public:
  explicit ItemReader(std::string_view data) : rest_(data) {}

  bool item(std::string_view* out) {
    if (rest_.size() < 2) return false;
    size_t length = static_cast<uint8_t>(rest_[0]) | static_cast<uint8_t>(rest_[1]) << 8;
    rest_.remove_prefix(2);
    if (rest_.size() < length) return false;
    *out = rest_.substr(0, length);
    rest_.remove_prefix(length);
    return true;
  }

 private:
  std::string_view rest_;
};

int send_all(int fd, const std::vector<uint8_t>& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -errno;
    done += static_cast<size_t>(n);
  }
  return 0;
}

int read_exact(int fd, uint8_t* buffer, size_t length) {
  size_t done = 0;
  while (done < length) {
    ssize_t n = read(fd, buffer + done, length - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -errno;
    if (n == 0) return -ECONNRESET;
    done += static_cast<size_t>(n);
  }
  return 0;
}

// Reads one reply frame: exactly the number of bytes its header announces.
int read_reply(int fd, Reply* reply) {
  uint8_t header[kReplyHeader];
  if (int rc = read_exact(fd, header, sizeof header); rc < 0) return rc;
  size_t total = header[0] | header[1] << 8 | header[2] << 16;
  // A frame shorter than its own header leaves no way to find the next one.
  if (total < kReplyHeader) return -EPROTO;
  reply->status = header[3];
  reply->data.resize(total - kReplyHeader);
  return read_exact(fd, reply->data.data(), reply->data.size());
}

// Sends the request and reads its reply. A transport failure closes the connection, since the
// stream can no longer be kept in step with the daemon.
int exchange(TessClient* client, Request& request, Reply* reply) {
  if (!request.finish()) return -EMSGSIZE;
  if (!client->fd) return -ENOTCONN;
  int rc = send_all(client->fd.get(), request.bytes());
  if (rc == 0) rc = read_reply(client->fd.get(), reply);
  if (rc < 0) client->fd.reset();
  return rc;
}

CString copy_text(std::string_view text) {
  CString copy(static_cast<char*>(malloc(text.size() + 1)));
  if (!copy) return copy;
  memcpy(copy.get(), text.data(), text.size());
  copy.get()[text.size()] = '\0';
  return copy;
}

// Gives each output a copy of its text, all or none; NULL outputs are skipped.
int hand_out(std::initializer_list<std::pair<char**, std::string_view>> outputs) {
  std::vector<CString> copies;
  for (const auto& [out, text] : outputs) {
    copies.push_back(out ? copy_text(text) : CString());
    if (out && !copies.back()) return -ENOMEM;
  }
  size_t i = 0;
  for (const auto& output : outputs) {
    if (output.first) *output.first = copies[i].release();
    ++i;
  }
  return TESSCLIENT_OK;
}

void clear(std::initializer_list<char**> outputs) {
  for (char** out : outputs) {
    if (out) *out = nullptr;
  }
}

bool in_range(int value, int low, int high) {
  return value >= low && value <= high;
}

// Exchanges a request whose reply is a status only.
int status_request(TessClient* client, Request& request) {
  Reply reply;
  if (int rc = exchange(client, request, &reply); rc < 0) return rc;
  return reply.status;
}

// GET in the given form; *value points into *reply.
int get_form(TessClient* client, const char* path, unsigned form, unsigned sub_form,
             std::string_view* value, Reply* reply) {
  Request request(TESSCLIENT_GET);
  request.int8(form).int8(sub_form).int8(client->case_byte).identity(*client).counted(path);
  if (int rc = exchange(client, request, reply); rc < 0) return rc;
  if (reply->status != TESSCLIENT_OK) return reply->status;
  return ItemReader(reply->text()).item(value) ? TESSCLIENT_OK : -EPROTO;
}

int set_form(TessClient* client, const char* path, unsigned form, std::string_view value,
             int sync) {
  Request request(TESSCLIENT_SET);
  request.int8(form).int8(form == kFormText ? kSubFormText : 0).identity(*client);
  request.int8(client->case_byte).counted(path).counted(value).int8(sync);
  return status_request(client, request);
}

// GETPARAMINFO and GETGROUPINFO: the index-th member of a group, answered as counted items
// that point into *reply.
int index_request(TessClient* client, TessClientRequest type, const char* path, int index,
                  Reply* reply, std::string_view* items, size_t count) {
  Request request(type);
  request.int8(client->case_byte).counted(path).int16(index);
  if (int rc = exchange(client, request, reply); rc < 0) return rc;
  if (reply->status != TESSCLIENT_OK) return reply->status;
  ItemReader reader(reply->text());
  for (size_t i = 0; i < count; ++i) {
    if (!reader.item(&items[i])) return -EPROTO;
  }
  return TESSCLIENT_OK;
}

int create_request(TessClient* client, TessClientRequest type, const char* parent,
                   const char* template_name, int number, int sync, char** name) {
  clear({name});
  if (!client || !parent || !template_name) return -EINVAL;
  if (!in_range(sync, 0, 0xFF) || !in_range(number, TESSCLIENT_ANY_NUMBER, 0xFFFE)) {
    return -EINVAL;
  }
  Request request(type);
  request.identity(*client).int8(client->case_byte).counted(parent);
  request.int16(number == TESSCLIENT_ANY_NUMBER ? kAnyNumberOnWire : number);
  request.counted(template_name).int8(sync);
  Reply reply;
  if (int rc = exchange(client, request, &reply); rc < 0) return rc;
  if (reply.status != TESSCLIENT_OK) return reply.status;
  // The name comes as raw bytes ended by a zero byte, without a length of its own.
  std::string_view data = reply.text();
  std::string_view new_name = data.substr(0, data.find('\0'));
  if (new_name.empty()) return -EPROTO;
  return hand_out({{name, new_name}});
}

// Splits "path=value" entries separated by 0x01 and ended by a zero byte.
int parse_name_values(std::string_view data,
                      std::vector<std::pair<std::string_view, std::string_view>>* entries) {
  if (!data.empty() && data.back() == '\0') data.remove_suffix(1);
  while (!data.empty()) {
    size_t end = data.find(kEntrySeparator);
    std::string_view entry = data.substr(0, end);
    size_t equals = entry.find('=');
    if (equals == std::string_view::npos) return -EPROTO;
    entries->emplace_back(entry.substr(0, equals), entry.substr(equals + 1));
    data.remove_prefix(end == std::string_view::npos ? data.size() : end + 1);
  }
  return 0;
}

int build_name_value_list(std::string_view data, TessClientNameValueList** out) {
  std::vector<std::pair<std::string_view, std::string_view>> entries;
  if (int rc = parse_name_values(data, &entries); rc < 0) return rc;
  std::unique_ptr<TessClientNameValueList, decltype(&tessclient_free_name_value_list)> list(
      static_cast<TessClientNameValueList*>(calloc(1, sizeof(TessClientNameValueList))),
      tessclient_free_name_value_list);
  if (!list) return -ENOMEM;
  if (!entries.empty()) {
    list->items =
        static_cast<TessClientNameValue*>(calloc(entries.size(), sizeof(TessClientNameValue)));
    if (!list->items) return -ENOMEM;
  }
  for (const auto& [path, value] : entries) {
    TessClientNameValue& item = list->items[list->count++];
    item.has_value = value != kEmptyValue;
    if (hand_out({{&item.path, path}, {&item.value, item.has_value ? value : ""}}) < 0) {
      return -ENOMEM;
    }
  }
  *out = list.release();
  return 0;
}

}  // namespace

int tessclient_attach_fd(int fd, TessClient** out) {
  UniqueFd owned(fd);
  if (!out || fd < 0) return -EINVAL;
  *out = nullptr;
  std::unique_ptr<TessClient> client(new (std::nothrow) TessClient);
  if (!client) return -ENOMEM;
  client->fd = std::move(owned);
  client->uid = getuid();
  client->gid = getgid();
  *out = client.release();
  return 0;
}

int tessclient_connect(const char* socket_path, TessClient** out) {
  if (!out) return -EINVAL;
  *out = nullptr;
  if (!socket_path) socket_path = getenv(TESSCLIENT_SOCKET_ENV);
  if (!socket_path || !*socket_path) socket_path = TESSCLIENT_DEFAULT_SOCKET;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (strlen(socket_path) >= sizeof address.sun_path) return -ENAMETOOLONG;
  strcpy(address.sun_path, socket_path);
  UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd) return -errno;
  if (connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) < 0) {
    return -errno;
  }
  return tessclient_attach_fd(fd.release(), out);
}

void tessclient_close(TessClient* client) {
  delete client;
}

void tessclient_set_identity(TessClient* client, unsigned uid, unsigned gid) {
  if (!client) return;
  client->uid = uid;
  client->gid = gid;
}

void tessclient_set_case_sensitive(TessClient* client, int case_sensitive) {
  if (client) client->case_byte = case_sensitive ? 1 : 0;
}

void tessclient_set_quiet(TessClient* client, int quiet) {
  if (client) client->quiet = quiet ? 1 : 0;
}

int tessclient_get(TessClient* client, const char* path, char** value) {
  clear({value});
  if (!client || !path) return -EINVAL;
  Reply reply;
  std::string_view text;
  int rc = get_form(client, path, kFormText, kSubFormText, &text, &reply);
  return rc == TESSCLIENT_OK ? hand_out({{value, text}}) : rc;
}

int tessclient_get_bytes(TessClient* client, const char* path, unsigned char** bytes,
                         size_t* length) {
  if (bytes) *bytes = nullptr;
  if (length) *length = 0;
  if (!client || !path) return -EINVAL;
  Reply reply;
  std::string_view value;
  int rc = get_form(client, path, kFormBytes, 0, &value, &reply);
  if (rc != TESSCLIENT_OK) return rc;
  char* copy = nullptr;
  if (hand_out({{bytes ? &copy : nullptr, value}}) < 0) return -ENOMEM;
  if (bytes) *bytes = reinterpret_cast<unsigned char*>(copy);
  if (length) *length = value.size();
  return TESSCLIENT_OK;
}

int tessclient_set(TessClient* client, const char* path, const char* value, int sync) {
  if (!client || !path || !value || !in_range(sync, 0, 0xFF)) return -EINVAL;
  return set_form(client, path, kFormText, value, sync);
}

int tessclient_set_bytes(TessClient* client, const char* path, const unsigned char* bytes,
                         size_t length, int sync) {
  if (!client || !path || (!bytes && length) || !in_range(sync, 0, 0xFF)) return -EINVAL;
  std::string_view value(reinterpret_cast<const char*>(bytes), length);
  return set_form(client, path, kFormBytes, value, sync);
}

int tessclient_sync(TessClient* client, int mode) {
  if (!client || !in_range(mode, 0, 0xFF)) return -EINVAL;
  Request request(TESSCLIENT_SNC);
  request.int8(mode);
  return status_request(client, request);
}

int tessclient_get_param_info(TessClient* client, const char* path, int index, char** full_path,
                              char** name, char** type) {
  clear({full_path, name, type});
  if (!client || !path || !in_range(index, 0, 0xFFFF)) return -EINVAL;
  Reply reply;
  std::string_view items[3];
  int rc = index_request(client, TESSCLIENT_GETPARAMINFO, path, index, &reply, items, 3);
  if (rc != TESSCLIENT_OK) return rc;
  return hand_out({{full_path, items[0]}, {name, items[1]}, {type, items[2]}});
}

int tessclient_get_group_info(TessClient* client, const char* path, int index, char** full_path,
                              char** name) {
  clear({full_path, name});
  if (!client || !path || !in_range(index, 0, 0xFFFF)) return -EINVAL;
  Reply reply;
  std::string_view items[2];
  int rc = index_request(client, TESSCLIENT_GETGROUPINFO, path, index, &reply, items, 2);
  if (rc != TESSCLIENT_OK) return rc;
  return hand_out({{full_path, items[0]}, {name, items[1]}});
}

int tessclient_get_param_option(TessClient* client, const char* path, const char* name,
                                char** value) {
  clear({value});
  if (!client || !path || !name) return -EINVAL;
  Request request(TESSCLIENT_GETPARAMOPTION);
  // The byte between the path and the name is skipped by the daemon but must be there.
  request.int8(client->case_byte).counted(path).int8(0).counted(name);
  Reply reply;
  if (int rc = exchange(client, request, &reply); rc < 0) return rc;
  if (reply.status != TESSCLIENT_OK) return reply.status;
  std::string_view text;
  if (!ItemReader(reply.text()).item(&text)) return -EPROTO;
  // Unlike other items, this one counts the text's terminating zero byte.
  if (!text.empty() && text.back() == '\0') text.remove_suffix(1);
  return hand_out({{value, text}});
}

int tessclient_get_name_value_list(TessClient* client, const char* path, int no_getter,
                                   TessClientNameValueList** list) {
  if (list) *list = nullptr;
  if (!client || !path) return -EINVAL;
  Request request(TESSCLIENT_GETNAMEVALUELIST);
  request.identity(*client).int8(client->case_byte).int8(no_getter ? 1 : 0).counted(path);
  Reply reply;
  if (int rc = exchange(client, request, &reply); rc < 0) return rc;
  if (!list || (reply.status != TESSCLIENT_OK && reply.data.empty())) return reply.status;
  int rc = build_name_value_list(reply.text(), list);
  return rc < 0 ? rc : reply.status;
}

void tessclient_free_name_value_list(TessClientNameValueList* list) {
  if (!list) return;
  for (size_t i = 0; i < list->count; ++i) {
    free(list->items[i].path);
    free(list->items[i].value);
  }
  free(list->items);
  free(list);
}

int tessclient_read_file(TessClient* client, const char* file_path) {
  if (!client || !file_path) return -EINVAL;
  Request request(TESSCLIENT_READ_FILE);
  request.identity(*client).counted(file_path);
  return status_request(client, request);
}

int tessclient_create_group(TessClient* client, const char* parent, const char* template_name,
                            int number, int sync, char** name) {
  return create_request(client, TESSCLIENT_CREATE_GROUP, parent, template_name, number, sync, name);
}

int tessclient_create_group_unlimited(TessClient* client, const char* parent,
                                      const char* template_name, int number, int sync,
                                      char** name) {
  return create_request(client, TESSCLIENT_CREATE_GROUP_UNLIMITED, parent, template_name, number,
                        sync, name);
}

int tessclient_delete_group(TessClient* client, const char* path, int sync) {
  if (!client || !path) return -EINVAL;
  if (sync != TESSCLIENT_NO_SYNC_BYTE && !in_range(sync, 0, 0xFF)) return -EINVAL;
  Request request(TESSCLIENT_DELETE_GROUP);
  request.identity(*client).int8(client->case_byte).counted(path);
  if (sync != TESSCLIENT_NO_SYNC_BYTE) request.int8(sync);
  return status_request(client, request);
}

const char* tessclient_status_text(int result) {
  switch (result) {
    case TESSCLIENT_OK:
      return "success";
    case TESSCLIENT_FAILED:
      return "request failed";
    case TESSCLIENT_NO_MEMORY:
      return "out of memory or wrong value type";
    case TESSCLIENT_ACCESS_REFUSED:
      return "access refused";
    case TESSCLIENT_MALFORMED:
      return "malformed request";
    case TESSCLIENT_READ_ONLY:
      return "read-only parameter";
    case TESSCLIENT_GROUP_LIMIT:
      return "group limit reached";
    case TESSCLIENT_NO_PARAM:
      return "no such parameter";
    case TESSCLIENT_NO_SUBGROUP:
      return "no subgroup at that index";
    case TESSCLIENT_NO_GROUP:
      return "no such group";
    case -EPROTO:
      return "malformed reply from the daemon";
    case -EMSGSIZE:
      return "request too long";
    case -ENOTCONN:
      return "connection to the daemon lost";
    default:
      break;
  }
  return result < 0 ? strerror(-result) : "unknown status";
}

namespace {

struct RequestStatusText {
  int request;
  int status;
  const char* text;
};

// Statuses whose meaning depends on the request that got them.
constexpr RequestStatusText kRequestStatusTexts[] = {
    {TESSCLIENT_GET, TESSCLIENT_FAILED, "value has no text form"},
    {TESSCLIENT_GET, TESSCLIENT_NO_MEMORY, "out of memory"},
    {TESSCLIENT_SET, TESSCLIENT_FAILED, "no such parameter, or value refused"},
    {TESSCLIENT_SET, TESSCLIENT_NO_MEMORY, "value of the wrong type"},
    {TESSCLIENT_SNC, TESSCLIENT_FAILED, "synchronisation failed"},
    {TESSCLIENT_GETPARAMINFO, TESSCLIENT_NO_PARAM, "no parameter at that index"},
    {TESSCLIENT_GETPARAMOPTION, TESSCLIENT_FAILED, "no such parameter"},
    {TESSCLIENT_GETNAMEVALUELIST, TESSCLIENT_FAILED, "no such parameter, or values unreadable"},
    {TESSCLIENT_CREATE_GROUP, TESSCLIENT_FAILED, "group could not be created"},
    {TESSCLIENT_CREATE_GROUP, TESSCLIENT_NO_PARAM, "group already exists"},
    {TESSCLIENT_CREATE_GROUP_UNLIMITED, TESSCLIENT_FAILED, "group could not be created"},
    {TESSCLIENT_CREATE_GROUP_UNLIMITED, TESSCLIENT_NO_PARAM, "group already exists"},
    {TESSCLIENT_DELETE_GROUP, TESSCLIENT_FAILED, "group could not be deleted"},
    {TESSCLIENT_READ_FILE, TESSCLIENT_FAILED, "file could not be read"},
};

}  // namespace

const char* tessclient_request_status_text(int request, int result) {
  for (const RequestStatusText& entry : kRequestStatusTexts) {
    if (entry.request == request && entry.status == result) return entry.text;
  }
  return tessclient_status_text(result);
}
