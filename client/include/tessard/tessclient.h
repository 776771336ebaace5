/* Client side of the tessard socket protocol, for programs on the device (C and C++).
 *
 * One TessClient is one connection; requests on it are answered one at a time, in order. Every
 * request function returns the reply's status byte (TESSCLIENT_OK and the other TessClientStatus
 * values, 0 to 255), or a negative errno value when the exchange itself failed:
 *   -EINVAL    a NULL handle or argument, or a number outside its field (index, sync, number);
 *   -EMSGSIZE  the request does not fit the protocol (a text over 65535 bytes, a request over
 *              65535 bytes);
 *   -EPROTO    the daemon's reply does not hold what the request expects (an item running past
 *              the reply, a missing item, a frame shorter than its header);
 *   -ENOTCONN  the connection was already lost by an earlier call;
 *   other      the socket's own error (-ECONNRESET when the daemon closed the connection).
 * After a negative result other than -EINVAL, -EMSGSIZE and -EPROTO from a complete reply, the
 * connection is closed and every later call on the handle answers -ENOTCONN.
 *
 * Output texts and byte buffers are allocated with malloc and belong to the caller (release them
 * with free()); they are set only when the result is TESSCLIENT_OK (and for the name-value list,
 * whenever the reply carried data) and are left NULL otherwise. Output pointers may be NULL when
 * the caller does not want that output. Nothing is ever read beyond the reply the daemon sent.
 */
#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define TESSCLIENT_DEFAULT_SOCKET "/run/tessard/tessardsocket"
/* Environment variable naming another socket; an explicit path argument still wins over it. */
#define TESSCLIENT_SOCKET_ENV "TESSARD_SOCKET"
/* Group number for tessclient_create_group: let the daemon pick the first free number. */
#define TESSCLIENT_ANY_NUMBER (-1)
/* Sync argument for tessclient_delete_group: send no sync byte (the daemon then deletes with
 * mode 10 and does not synchronise). */
#define TESSCLIENT_NO_SYNC_BYTE (-1)

/* Request type bytes. */
enum TessClientRequest {
  TESSCLIENT_GET = 0,
  TESSCLIENT_SET = 1,
  TESSCLIENT_SNC = 2,
  TESSCLIENT_GETPARAMINFO = 3,
  TESSCLIENT_GETPARAMOPTION = 4,
  TESSCLIENT_GETGROUPINFO = 5,
  TESSCLIENT_CREATE_GROUP = 6,
  TESSCLIENT_DELETE_GROUP = 7,
  TESSCLIENT_READ_FILE = 8,
  TESSCLIENT_GETNAMEVALUELIST = 9,
  /* The second form of CREATE_GROUP, which ignores the maxGroups limits. */
  TESSCLIENT_CREATE_GROUP_UNLIMITED = 10
};

/* Reply status bytes. */
enum TessClientStatus {
  TESSCLIENT_OK = 0,
  TESSCLIENT_FAILED = 1,
  TESSCLIENT_NO_MEMORY = 2, /* also: reply too long, or a set with a value of the wrong type */
  TESSCLIENT_ACCESS_REFUSED = 3,
  TESSCLIENT_MALFORMED = 4,
  TESSCLIENT_READ_ONLY = 5,
  TESSCLIENT_GROUP_LIMIT = 6,
  TESSCLIENT_NO_PARAM = 0x10, /* also: CREATE_GROUP of a group that already exists */
  TESSCLIENT_NO_SUBGROUP = 0x11,
  TESSCLIENT_NO_GROUP = 0x12
};

typedef struct TessClient TessClient;

/* One entry of a name-value list. value is "" and has_value 0 for a parameter the daemon reported
 * as empty or unavailable. */
typedef struct TessClientNameValue {
  char* path;
  char* value;
  int has_value;
} TessClientNameValue;

typedef struct TessClientNameValueList {
  size_t count;
  TessClientNameValue* items;
} TessClientNameValueList;

/* Connects to socket_path, or when it is NULL to $TESSARD_SOCKET, or when that is unset or empty
 * to TESSCLIENT_DEFAULT_SOCKET. Returns 0 and the new handle in *out, or a negative errno. The
 * handle claims getuid()/getgid(), case byte 0 and quiet 0 until changed below. */
int tessclient_connect(const char* socket_path, TessClient** out);
/* Wraps an already connected stream socket; the handle owns fd from then on, also on failure. */
int tessclient_attach_fd(int fd, TessClient** out);
/* Closes the connection and frees the handle; NULL is ignored. */
void tessclient_close(TessClient* client);

/* The identity claimed in requests that carry one (sent as 16-bit fields). The daemon refuses a
 * claim that differs from the socket's credentials unless the caller runs as root. */
void tessclient_set_identity(TessClient* client, unsigned uid, unsigned gid);
/* Case byte of the requests that carry one: non-zero asks for case-sensitive names (honoured
 * only by a daemon started case-sensitive). */
void tessclient_set_case_sensitive(TessClient* client, int case_sensitive);
/* Non-zero keeps the daemon from logging refused requests of this client. */
void tessclient_set_quiet(TessClient* client, int quiet);

/* GET in text form: the value's text in *value. */
int tessclient_get(TessClient* client, const char* path, char** value);
/* GET in serialised form: the value in the byte format of the data representation. */
int tessclient_get_bytes(TessClient* client, const char* path, unsigned char** bytes,
                         size_t* length);
/* SET in text form; sync is the byte sent after the value (0 to 255; 10 and above synchronise). */
int tessclient_set(TessClient* client, const char* path, const char* value, int sync);
/* SET in serialised form: bytes hold one value in the byte format of the data representation. */
int tessclient_set_bytes(TessClient* client, const char* path, const unsigned char* bytes,
                         size_t length, int sync);
/* SNC with the given sync mode (0 to 255). */
int tessclient_sync(TessClient* client, int mode);
/* GETPARAMINFO: the index-th parameter (from 0) of the group at path. */
int tessclient_get_param_info(TessClient* client, const char* path, int index, char** full_path,
                              char** name, char** type);
/* GETGROUPINFO: the index-th subgroup (from 0) of the group at path. */
int tessclient_get_group_info(TessClient* client, const char* path, int index, char** full_path,
                              char** name);
/* GETPARAMOPTION: the text of option name of the parameter at path ("" when it has none). */
int tessclient_get_param_option(TessClient* client, const char* path, const char* name,
                                char** value);
/* GETNAMEVALUELIST: the values of the parameters of a group (or of the one parameter at path).
 * no_getter non-zero keeps the daemon from running getters first. A status of TESSCLIENT_FAILED
 * may come with a partial list. Free the list with tessclient_free_name_value_list. */
int tessclient_get_name_value_list(TessClient* client, const char* path, int no_getter,
                                   TessClientNameValueList** list);
void tessclient_free_name_value_list(TessClientNameValueList* list);
/* READ_FILE: load a group file into the daemon's tree. */
int tessclient_read_file(TessClient* client, const char* file_path);
/* CREATE_GROUP: a new group under parent from template_name; number is the group number (0 to
 * 65534) or TESSCLIENT_ANY_NUMBER; the new group's name comes back in *name. */
int tessclient_create_group(TessClient* client, const char* parent, const char* template_name,
                            int number, int sync, char** name);
/* The same as request type 10, which is not held back by the maxGroups limits. */
int tessclient_create_group_unlimited(TessClient* client, const char* parent,
                                      const char* template_name, int number, int sync, char** name);
/* DELETE_GROUP; sync may be TESSCLIENT_NO_SYNC_BYTE. */
int tessclient_delete_group(TessClient* client, const char* path, int sync);

/* A readable text for a result of the functions above (a status or a negative errno), such as
 * "no such parameter" or "access refused". The text is static. */
const char* tessclient_status_text(int result);
/* The same, worded for the request that gave the status where a status means something
 * particular for it (status 1 of SNC is "synchronisation failed"). */
const char* tessclient_request_status_text(int request, int result);

#ifdef __cplusplus
}
#endif
