// Client requests that whole-daemon tests make as their own user through the client library, one
// connection per call. A failed connection shows as the status -1 or the text "<no connection>".
#pragma once

#include <tessard/tessclient.h>

#include <cstdlib>
#include <string>

namespace tessard::test {

inline int Set(const std::string& path, const std::string& value, int sync) {
  TessClient* client = nullptr;
  if (tessclient_connect(nullptr, &client) != 0) return -1;
  int status = tessclient_set(client, path.c_str(), value.c_str(), sync);
  tessclient_close(client);
  return status;
}

inline int Sync(int mode) {
  TessClient* client = nullptr;
  if (tessclient_connect(nullptr, &client) != 0) return -1;
  int status = tessclient_sync(client, mode);
  tessclient_close(client);
  return status;
}

// DELETE_GROUP; sync may be TESSCLIENT_NO_SYNC_BYTE.
inline int Delete(const std::string& path, int sync = TESSCLIENT_NO_SYNC_BYTE) {
  TessClient* client = nullptr;
  if (tessclient_connect(nullptr, &client) != 0) return -1;
  int status = tessclient_delete_group(client, path.c_str(), sync);
  tessclient_close(client);
  return status;
}

// The value in text form, or "<status N>" when the request failed.
inline std::string Get(const std::string& path) {
  TessClient* client = nullptr;
  if (tessclient_connect(nullptr, &client) != 0) return "<no connection>";
  char* value = nullptr;
  int status = tessclient_get(client, path.c_str(), &value);
  std::string text = status == TESSCLIENT_OK ? value : "<status " + std::to_string(status) + ">";
  free(value);
  tessclient_close(client);
  return text;
}

}  // namespace tessard::test
