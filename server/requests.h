// Request handlers. Each one reads its payload with the field readers, answers exactly one reply
// on `fd` (or none for dropped requests) and never frees the connection itself.
#pragma once

void serveGetRequest(int fd, const unsigned char* payload, int length);
void serveGetParamInfo(int fd, const unsigned char* payload, int length);
void serveGetParamOption(int fd, const unsigned char* payload, int length);
void serveGetGroupInfo(int fd, const unsigned char* payload, int length);
void handleGetNameValueList(int fd, const unsigned char* payload, int length);
void handleReadFileRequest(int fd, const unsigned char* payload, int length);
void serveSetRequest(int fd, const unsigned char* payload, int length);
void serveSyncRequest(int fd, const unsigned char* payload, int length);
// CREATE_GROUP, type 10 (the same without the maxGroups limits) and DELETE_GROUP.
void serveCreateGroupRequest(int fd, const unsigned char* payload, int length);
void serveCreateGroupRequest2(int fd, const unsigned char* payload, int length);
void serveDeleteGroupRequest(int fd, const unsigned char* payload, int length);

#include <string>

struct Param;

// The value check of a text SET: true to accept. May rewrite `value` to the spelling of the
// matching entry of an enumeration list given in the parameter's `type` option.
bool checkTextValue(const Param* param, std::string* value);
