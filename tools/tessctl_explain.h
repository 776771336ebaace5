// tessctl explain: what decides how one parameter behaves, gathered from the running daemon with
// the ordinary requests (GET and GETPARAMOPTION), and the caller's rights worked out here from
// the caller's own groups with the daemon's accessControl rules.
#pragma once

#include <tessard/tessclient.h>

#include <string>
#include <vector>

struct ExplainResult {
  int status = TESSCLIENT_OK;    // of the request that failed, else TESSCLIENT_OK
  int request = TESSCLIENT_GET;  // the request that failed
};

// Appends the explanation of the parameter at `path` (a full path) to `out`, as text or JSON.
ExplainResult tessctl_explain(TessClient* client, const std::string& path, bool json,
                              std::string* out);

// The decision of the daemon's access check for `rule` (the accessControl text, null when the
// parameter has none) and the request bit (1 read, 2 write) for a caller with uid and the names
// of its primary and other groups. `reason` tells why, naming the granting entry.
bool tessctl_access_allowed(const char* rule, int bit, unsigned uid, const std::string& primary,
                            const std::vector<std::string>& groups, std::string* reason);
