// Request fields, the reply buffer shared by the handlers, and a blocking whole-buffer write.
#pragma once

// Writes all `length` bytes to a blocking descriptor. Returns 0 when all were written (at once for
// a length below 1), -1 otherwise; `loud` logs the failure at warning level instead of info.
int write_all(int fd, const void* buffer, int length, int loud);

#include <string>

// Request types as they travel in the type byte.
enum RequestType {
  GET = 0,
  SET = 1,
  SNC = 2,
  GETPARAMINFO = 3,
  GETPARAMOPTION = 4,
  GETGROUPINFO = 5,
  CREATE_GROUP = 6,
  DELETE_GROUP = 7,
  READ_FILE = 8,
  GETNAMEVALUELIST = 9,
  CREATE_GROUP_2 = 10,
};

// The name a request type has in log messages ("unknown" for type 10 and anything else).
const char* requestTypeName(int type);

// Reply status bytes.
enum ReplyStatus {
  STATUS_OK = 0,
  STATUS_FAILED = 1,
  STATUS_NO_MEMORY = 2,
  STATUS_ACCESS_REFUSED = 3,
  STATUS_MALFORMED = 4,
  STATUS_READ_ONLY = 5,
  STATUS_GROUP_LIMIT = 6,
  STATUS_NO_PARAM = 0x10,
  STATUS_NO_SUBGROUP = 0x11,
  STATUS_NO_GROUP = 0x12,
};

// A request payload and the running position of the field readers. Every reader first checks
// that the field ends inside the payload; when it would not, it logs
// "%s  pos(%d) > bufLen(%d)" with its name and returns -1 without reading.
struct RequestReader {
  const unsigned char* data;
  int length;
  int pos;
};

int read_int_8(RequestReader* reader, int* value);
int read_int_16(RequestReader* reader, int* value);
// Reads `count` raw bytes; `name` is the reader named in the warning.
int read_bytes(RequestReader* reader, int count, const unsigned char** bytes, const char* name);
// A counted path of at most 255 bytes, made a full path ("root." put in front unless it already
// begins with "root" and is longer than 3 bytes) that passes the group path check. 0 or -1.
int getPath(RequestReader* reader, std::string* path);

// Writes the 4-byte status-only reply.
void sendStatus(int fd, int status);

// The reply buffer shared by all handlers (one reply is built at a time).
void createMessage(int fd, int total_length);
void addMessageData(const void* bytes, int length);
void addMessageDataNoLen(const void* bytes, int length);
void sendMessage(int fd);
// Sets the status byte of the reply being built.
void setMessageStatus(int status);
