// Client requests that whole-daemon tests make as their own user through the client library, one
// connection per call. A failed connection shows as the status -1 or the text "<no connection>".
#pragma once

#include <tessard/tessclient.h>

#include <cstdlib>
#include <string>

namespace tessard::test {

// Calls `request` with a fresh connection; its status, or -1 when none could be made.
template <typename Request>
int WithClient(Request request) {
  TessClient* client = nullptr;
  if (tessclient_connect(nullptr, &client) != 0) return -1;
  int status = request(client);
  tessclient_close(client);
  return status;
}

inline int Set(const std::string& path, const std::string& value, int sync) {
  return WithClient(
      [&](TessClient* c) { return tessclient_set(c, path.c_str(), value.c_str(), sync); });
}

inline int Sync(int mode) {
  return WithClient([&](TessClient* c) { return tessclient_sync(c, mode); });
}

// DELETE_GROUP; sync may be TESSCLIENT_NO_SYNC_BYTE.
inline int Delete(const std::string& path, int sync = TESSCLIENT_NO_SYNC_BYTE) {
  return WithClient([&](TessClient* c) { return tessclient_delete_group(c, path.c_str(), sync); });
}

// The value in text form, or "<status N>" when the request failed.
inline std::string Get(const std::string& path) {
  std::string text = "<no connection>";
  WithClient([&](TessClient* c) {
    char* value = nullptr;
    int status = tessclient_get(c, path.c_str(), &value);
    text = status == TESSCLIENT_OK ? value : "<status " + std::to_string(status) + ">";
    free(value);
    return status;
  });
  return text;
}

}  // namespace tessard::test
