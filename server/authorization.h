// Who may do what: peer credentials, the user cache and `accessControl` rules.
#pragma once

#include <sys/types.h>

// Frees the user cache and builds it anew from the password and group databases: every user with
// its groups, and every group's name by gid. Requests are decided from it alone, never from the
// databases. 0, or -1 when memory ran out (the cache is then empty).
int populateUserCache();

// 1 when the cached user with `uid` has the group `group_name` (primary or supplementary).
int uid_in_group(unsigned int uid, const char* group_name);

// Decides a request: 0 allowed, 3 refused, 1 when the template of a group creation does not
// exist. The claimed uid/gid must match the peer credentials the client connected with (a root
// peer may claim any identity); GET, SET, CREATE_GROUP, type 10 and DELETE_GROUP are then decided
// by the object's `accessControl` option. `quiet` suppresses the "Authorization failure" line.
int checkAccessControl(unsigned int uid, unsigned int gid, int request_type, const char* path,
                       int quiet, int client_fd);

// Access bits of an `accessControl` mask.
enum AccessBit { ACCESS_READ = 1, ACCESS_WRITE = 2, ACCESS_DELETE = 4, ACCESS_CREATE = 8 };

// Evaluates an `accessControl` text for a user that is neither root nor in "system":
// 0 allowed, 3 refused (a malformed entry reached by the walk logs "Bad format for accessControl").
// `group_of_gid` is the name of the claimed gid's group.
int evaluateAccessControl(const char* text, unsigned int uid, const char* group_of_gid, int bit);
