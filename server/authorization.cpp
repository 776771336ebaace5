#include "server/authorization.h"

#include <errno.h>
#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_map>

#include "base/log.h"
#include "dynamic/dynamic.h"
#include "mapping/quibmapping.h"
#include "server/clientserver.h"
#include "server/server.h"

namespace {

struct GroupName {
  char* name;
  GroupName* next;
};

struct CachedUser {
  char* name;
  unsigned int uid;
  unsigned int gid;
  GroupName* groups;  // newest first; the primary group is added first
  CachedUser* next;
};

// Newest first: the list runs in reverse order of the password database.
CachedUser* user_cache = nullptr;

// Group names by gid, as the group database held them when the cache was built; where two groups
// share a gid the first one counts, as for getgrgid().
std::unordered_map<unsigned int, std::string> group_names;

void free_user(CachedUser* user) {
  for (GroupName* g = user->groups; g != nullptr;) {
    GroupName* next = g->next;
    free(g->name);
    free(g);
    g = next;
  }
  free(user->name);
  free(user);
}

void free_user_cache() {
  for (CachedUser* u = user_cache; u != nullptr;) {
    CachedUser* next = u->next;
    free_user(u);
    u = next;
  }
  user_cache = nullptr;
  group_names.clear();
}

bool push_group(CachedUser* user, const char* name) {
  auto* entry = static_cast<GroupName*>(malloc(sizeof(GroupName)));
  char* copy = strdup(name);
  if (entry == nullptr || copy == nullptr) {
    free(entry);
    free(copy);
    return false;
  }
  entry->name = copy;
  entry->next = user->groups;
  user->groups = entry;
  return true;
}

bool add_user(const passwd* pw) {
  auto* user = static_cast<CachedUser*>(calloc(1, sizeof(CachedUser)));
  if (user == nullptr) return false;
  user->name = strdup(pw->pw_name);
  user->uid = pw->pw_uid;
  user->gid = pw->pw_gid;
  user->next = user_cache;
  user_cache = user;
  if (user->name == nullptr) return false;
  const group* primary = getgrgid(pw->pw_gid);
  return primary == nullptr || push_group(user, primary->gr_name);
}

bool load_users() {
  setpwent();
  bool ok = true;
  while (const passwd* pw = getpwent()) {
    if (!add_user(pw)) {
      log_error("authorization", "Memory allocation failed in %s.", "populateUserList");
      ok = false;
      break;
    }
  }
  endpwent();
  return ok;
}

CachedUser* find_member(const char* member, unsigned int gid) {
  for (CachedUser* u = user_cache; u != nullptr; u = u->next) {
    if (strcmp(u->name, member) == 0 && u->gid != gid) return u;
  }
  return nullptr;
}

bool load_group_members() {
  setgrent();
  bool ok = true;
  while (ok) {
    const group* gr = getgrent();
    if (gr == nullptr) break;
    group_names.emplace(gr->gr_gid, gr->gr_name);
    for (char** member = gr->gr_mem; *member != nullptr; member++) {
      CachedUser* user = find_member(*member, gr->gr_gid);
      if (user != nullptr && !push_group(user, gr->gr_name)) {
        log_error("authorization", "Memory allocation failed in %s.", "populateUserCache");
        ok = false;
        break;
      }
    }
  }
  endgrent();
  return ok;
}

int access_bit_of(int request_type) {
  switch (request_type) {
    case GET:
      return ACCESS_READ;
    case SET:
      return ACCESS_WRITE;
    case DELETE_GROUP:
      return ACCESS_DELETE;
    case CREATE_GROUP:
    case CREATE_GROUP_2:
      return ACCESS_CREATE;
    default:
      return 0;
  }
}

// Reads the mask of the entry whose ':' is at `colon`. False for a malformed mask: no digits, or
// something other than the end, a tab, a blank or ';' behind them.
bool read_mask(const char* colon, long* mask) {
  char* end = nullptr;
  errno = 0;
  *mask = strtol(colon + 1, &end, 16);
  if (end == colon + 1) return false;
  // strtol accepts leading blanks and a sign; "0x" alone reads as 0 with end behind the 0.
  return *end == '\0' || *end == '\t' || *end == ' ' || *end == ';';
}

bool entry_applies(std::string_view group, unsigned int uid, const char* group_of_gid) {
  if (group.empty()) return true;
  std::string name(group);
  return name == group_of_gid || uid_in_group(uid, name.c_str());
}

bool peer_matches_claim(unsigned int uid, unsigned int gid, int type, const char* path, int fd) {
  ucred peer{};
  if (int error = peerCredentials(fd, &peer); error != 0) {
    log_error("authorization",
              "Refuse request of action(%d) of param(%s): failed to get uid_gid from socket, "
              "errno:%d",
              type, path, error);
    return false;
  }
  // A root peer may act for anybody.
  if (peer.uid == 0 && peer.gid == 0) return true;
  if (peer.uid == uid && peer.gid == gid) return true;
  log_error("authorization",
            "Refuse request of action(%d) of param(%s): uid_gid from data(%d,%d) are different "
            "from socket(%d, %d)",
            type, path, static_cast<int>(uid), static_cast<int>(gid), static_cast<int>(peer.uid),
            static_cast<int>(peer.gid));
  return false;
}

enum class Lookup { kFound, kNoObject, kNoTemplate };

// Finds the `accessControl` text that rules the request's object. An object that exists without
// the option leaves `text` empty and gives kFound: such objects are closed to every client.
Lookup find_access_text(int type, const char* path, std::string* text, bool* has_text) {
  *has_text = false;
  const Option* option = nullptr;
  if (type == GET || type == SET) {
    Param* param = map_getParamByPath(path);
    if (param == nullptr || param->value == nullptr) return Lookup::kNoObject;
    option = map_getParamOption(param, "accessControl");
  } else if (type == DELETE_GROUP) {
    Group* group = map_getGroupByPath(path);
    if (group == nullptr) return Lookup::kNoObject;
    option = map_getGroupOption(group, "accessControl");
  } else {
    char* value = nullptr;
    if (get_option_from_template(path, "accessControl", &value) == 2) return Lookup::kNoTemplate;
    if (value != nullptr) {
      *text = value;
      *has_text = true;
      free(value);
    }
    return Lookup::kFound;
  }
  if (option != nullptr) {
    *text = option->value;
    *has_text = true;
  }
  return Lookup::kFound;
}

int decide(unsigned int uid, unsigned int gid, int type, const std::string& text) {
  if (uid == 0 || uid_in_group(uid, "system")) return STATUS_OK;
  auto group_name = group_names.find(gid);
  if (group_name == group_names.end()) {
    log_error("authorization", "%s: Couldn't find group for gid: %d.", "checkAccessControl",
              static_cast<int>(gid));
    return STATUS_ACCESS_REFUSED;
  }
  return evaluateAccessControl(text.c_str(), uid, group_name->second.c_str(), access_bit_of(type));
}

}  // namespace

int checkAccessControl(unsigned int uid, unsigned int gid, int request_type, const char* path,
                       int quiet, int client_fd) {
  if (!peer_matches_claim(uid, gid, request_type, path, client_fd)) return STATUS_ACCESS_REFUSED;
  bool decided_by_rules = request_type == GET || request_type == SET ||
                          request_type == DELETE_GROUP || request_type == CREATE_GROUP ||
                          request_type == CREATE_GROUP_2;
  if (!decided_by_rules) return STATUS_OK;
  std::string text;
  bool has_text = false;
  Lookup found = find_access_text(request_type, path, &text, &has_text);
  if (found == Lookup::kNoObject) return STATUS_OK;
  if (found == Lookup::kNoTemplate) return STATUS_FAILED;
  int status = has_text ? decide(uid, gid, request_type, text) : STATUS_ACCESS_REFUSED;
  if (status != STATUS_OK && !quiet) {
    log_warning("authorization",
                "Authorization failure: client UID=%u, GID=%urequest type %s data=[%s], param "
                "accessControl=\"%s\"\n",
                uid, gid, requestTypeName(request_type), path,
                has_text ? text.c_str() : "(not read)");
  }
  return status;
}

int populateUserCache() {
  free_user_cache();
  if (!load_users() || !load_group_members()) {
    free_user_cache();
    return -1;
  }
  return 0;
}

int uid_in_group(unsigned int uid, const char* group_name) {
  const CachedUser* user = user_cache;
  while (user != nullptr && user->uid != uid) user = user->next;
  if (user == nullptr) {
    log_error("authorization", "tessard: %s: Uid: %d wasn't found in user list.", "uid_in_group",
              static_cast<int>(uid));
    return 0;
  }
  for (const GroupName* g = user->groups; g != nullptr; g = g->next) {
    if (strcmp(g->name, group_name) == 0) return 1;
  }
  return 0;
}

int evaluateAccessControl(const char* text, unsigned int uid, const char* group_of_gid, int bit) {
  const char* entry = text;
  while (*entry != '\0') {
    // The group name is everything before the next ':', whatever it holds.
    const char* colon = strchr(entry, ':');
    if (colon == nullptr) {
      log_error("authorization", "Bad format for accessControl: %s\n", text);
      return STATUS_ACCESS_REFUSED;
    }
    if (entry_applies(std::string_view(entry, colon - entry), uid, group_of_gid)) {
      long mask = 0;
      if (!read_mask(colon, &mask)) {
        log_error("authorization", "Bad format for accessControl: %s\n", text);
        return STATUS_ACCESS_REFUSED;
      }
      if (mask & bit) return STATUS_OK;
    }
    const char* next = strchr(colon, ';');
    if (next == nullptr) return STATUS_ACCESS_REFUSED;
    entry = next + 1;
  }
  return STATUS_ACCESS_REFUSED;
}
