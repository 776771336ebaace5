#include "server/clientserver.h"

#include <glib.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/log.h"
#include "server/input_parameter_validation.h"
#include "server/server.h"

int write_all(int fd, const void* buffer, int length, int loud) {
  if (length < 1) return 0;
  const auto* bytes = static_cast<const unsigned char*>(buffer);
  int done = 0;
  while (done < length) {
    ssize_t put = write(fd, bytes + done, length - done);
    if (put == 0) return -1;
    if (put < 0) {
      if (loud) {
        log_warning("clientserver", "Failed to write to file. %m");
      } else {
        log_info("clientserver", "Failed to write to file. %m");
      }
      return -1;
    }
    done += static_cast<int>(put);
  }
  return 0;
}

namespace {

constexpr int kMaxReplyLength = 0xFFFFFF;
constexpr int kReplyBufferBase = 1024;
constexpr int kHeaderLength = 4;
constexpr int kMaxPathLength = 255;

enum BufferState { INACTIVE, ACTIVE, FAILED };

BufferState message_buffer_state = INACTIVE;
unsigned char* message_data = nullptr;
int message_capacity = 0;
int message_length = 0;
int message_pos = 0;

bool field_fits(const RequestReader* reader, int size, const char* name) {
  int end = reader->pos + size;
  if (end > reader->length) {
    log_warning("clientserver", "%s  pos(%d) > bufLen(%d)", name, end, reader->length);
    return false;
  }
  return true;
}

void fail_message(int fd) {
  sendStatus(fd, STATUS_NO_MEMORY);
  message_buffer_state = FAILED;
}

// Makes room for `length` bytes; false when the buffer cannot grow.
bool reserve_message(int length) {
  if (message_data == nullptr) {
    int capacity = length > kReplyBufferBase ? length : kReplyBufferBase;
    message_data = static_cast<unsigned char*>(malloc(capacity));
    if (message_data == nullptr) return false;
    message_capacity = capacity;
    return true;
  }
  if (length <= message_capacity) return true;
  auto* grown = static_cast<unsigned char*>(realloc(message_data, length));
  if (grown == nullptr) {
    log_warning("clientserver", "%s: realloc failed!", "createMessage");
    return false;
  }
  message_data = grown;
  message_capacity = length;
  return true;
}

void put_bytes(const void* bytes, int length) {
  // Items beyond the announced length are cut: the handlers announce what they add.
  int room = message_length - message_pos;
  int n = length < room ? length : room;
  if (n > 0) memcpy(message_data + message_pos, bytes, n);
  message_pos += n;
}

}  // namespace

const char* requestTypeName(int type) {
  static const char* const kNames[] = {
      "GET",          "SET",          "SNC",          "GETPARAMINFO", "GETPARAMOPTION",
      "GETGROUPINFO", "CREATE_GROUP", "DELETE_GROUP", "READ_FILE",    "GETNAMEVALUELIST"};
  if (type < 0 || type >= static_cast<int>(sizeof(kNames) / sizeof(kNames[0]))) return "unknown";
  return kNames[type];
}

int read_int_8(RequestReader* reader, int* value) {
  if (!field_fits(reader, 1, "read_int_8")) return -1;
  *value = reader->data[reader->pos];
  reader->pos += 1;
  return 0;
}

int read_int_16(RequestReader* reader, int* value) {
  if (!field_fits(reader, 2, "read_int_16")) return -1;
  *value = reader->data[reader->pos] | (reader->data[reader->pos + 1] << 8);
  reader->pos += 2;
  return 0;
}

int read_bytes(RequestReader* reader, int count, const unsigned char** bytes, const char* name) {
  if (count < 0 || !field_fits(reader, count, name)) return -1;
  *bytes = reader->data + reader->pos;
  reader->pos += count;
  return 0;
}

int getPath(RequestReader* reader, std::string* path) {
  int length = 0;
  const unsigned char* bytes = nullptr;
  if (read_int_16(reader, &length) != 0) return -1;
  if (length > kMaxPathLength) return -1;
  if (read_bytes(reader, length, &bytes, "getPath") != 0) return -1;
  std::string_view text(reinterpret_cast<const char*>(bytes), length);
  if (text.size() > 3 && text.starts_with("root")) {
    *path = text;
  } else {
    *path = "root.";
    path->append(text);
  }
  return validateGroupPath(*path) ? 0 : -1;
}

void sendStatus(int fd, int status) {
  const unsigned char reply[kHeaderLength] = {kHeaderLength, 0, 0,
                                              static_cast<unsigned char>(status)};
  sendReply(fd, reply, kHeaderLength);
}

void createMessage(int fd, int total_length) {
  g_assert(message_buffer_state == INACTIVE);
  if (total_length > kMaxReplyLength) {
    log_error("clientserver", "%s: len(%d) larger than 0xffffff", "createMessage", total_length);
    fail_message(fd);
    return;
  }
  if (!reserve_message(total_length)) {
    fail_message(fd);
    return;
  }
  message_data[0] = total_length & 0xFF;
  message_data[1] = (total_length >> 8) & 0xFF;
  message_data[2] = (total_length >> 16) & 0xFF;
  message_data[3] = STATUS_OK;
  message_length = total_length;
  message_pos = kHeaderLength;
  message_buffer_state = ACTIVE;
}

void addMessageData(const void* bytes, int length) {
  if (message_buffer_state == FAILED) return;
  g_assert(message_buffer_state == ACTIVE);
  const unsigned char prefix[2] = {static_cast<unsigned char>(length & 0xFF),
                                   static_cast<unsigned char>((length >> 8) & 0xFF)};
  put_bytes(prefix, 2);
  put_bytes(bytes, length);
}

void addMessageDataNoLen(const void* bytes, int length) {
  if (message_buffer_state == FAILED) return;
  g_assert(message_buffer_state == ACTIVE);
  put_bytes(bytes, length);
}

void sendMessage(int fd) {
  if (message_buffer_state == FAILED) {
    message_buffer_state = INACTIVE;
    return;
  }
  g_assert(message_buffer_state == ACTIVE);
  // Bytes the handler announced but did not add go out as zeros, never as stale data.
  if (message_pos < message_length)
    memset(message_data + message_pos, 0, message_length - message_pos);
  sendReply(fd, message_data, message_length);
  message_buffer_state = INACTIVE;
  if (message_capacity > kReplyBufferBase) {
    auto* shrunk = static_cast<unsigned char*>(realloc(message_data, kReplyBufferBase));
    if (shrunk != nullptr) {
      message_data = shrunk;
      message_capacity = kReplyBufferBase;
    }
  }
}

void setMessageStatus(int status) {
  if (message_buffer_state == ACTIVE) message_data[3] = static_cast<unsigned char>(status);
}
