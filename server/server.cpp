#include "server/server.h"

#include <fcntl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "init/init.h"
#include "init/log.h"
#include "movefile/handles.h"
#include "server/clientserver.h"
#include "server/requests.h"

namespace {

struct ClientNode {
  int fd;
  ClientNode* next;
  ClientNode* previous;
};

// Clients in the order they connected; nearer the head is served first.
ClientNode* client_head = nullptr;
ClientNode* client_tail = nullptr;

using RequestHandler = void (*)(int fd, const unsigned char* payload, int length);

// Indexed by request type; an empty slot drops the request without a reply.
constexpr int kRequestTypes = 11;
const std::array<RequestHandler, kRequestTypes> kHandlers = {
    serveGetRequest,     // GET
    serveSetRequest,     // SET
    serveSyncRequest,    // SNC
    serveGetParamInfo,   // GETPARAMINFO
    serveGetParamOption, // GETPARAMOPTION
    serveGetGroupInfo,   // GETGROUPINFO
    serveCreateGroupRequest,
    serveDeleteGroupRequest,
    handleReadFileRequest,
    handleGetNameValueList,
    serveCreateGroupRequest2,
};

void append_client(ClientNode* node) {
  node->next = nullptr;
  node->previous = client_tail;
  if (client_tail != nullptr) {
    client_tail->next = node;
  } else {
    client_head = node;
  }
  client_tail = node;
}

int fill_read_set(int listen_fd, fd_set* set) {
  FD_ZERO(set);
  FD_SET(listen_fd, set);
  int highest = listen_fd;
  for (ClientNode* c = client_head; c != nullptr; c = c->next) {
    FD_SET(c->fd, set);
    if (c->fd > highest) highest = c->fd;
  }
  return highest;
}

int first_readable_client(const fd_set* set) {
  for (ClientNode* c = client_head; c != nullptr; c = c->next) {
    if (FD_ISSET(c->fd, set)) return c->fd;
  }
  return -1;
}

// Accepts a new client and registers it at the tail. A descriptor that select() could not watch
// is refused at once, so no fd_set is ever written out of bounds.
int accept_client(int listen_fd) {
  sockaddr_un address{};
  socklen_t length = 110;
  int fd = accept(listen_fd, reinterpret_cast<sockaddr*>(&address), &length);
  if (fd < 0) return -1;
  if (fd >= FD_SETSIZE) {
    log_warning("server", "Refusing client: descriptor %d is beyond the select limit", fd);
    close(fd);
    return -1;
  }
  if (!set_cloexec(fd)) log_error("server", "Failed to set close-on-exec on client %d", fd);
  auto* node = static_cast<ClientNode*>(malloc(sizeof(ClientNode)));
  // Without a node the connection is still served this once; it just never enters the list.
  if (node != nullptr) {
    node->fd = fd;
    append_client(node);
  }
  return fd;
}

void serve_one_request(int fd) {
  unsigned char prefix[2];
  if (read_exact(fd, prefix, 2) != 0) {
    removeActiveConnection(fd);
    return;
  }
  int total = prefix[0] | (prefix[1] << 8);
  // A frame must carry at least its type byte; anything shorter cannot be a request.
  if (total < 3) {
    removeActiveConnection(fd);
    return;
  }
  std::unique_ptr<unsigned char, FreeDeleter> body(static_cast<unsigned char*>(malloc(total - 2)));
  if (!body) {
    log_error("server", "Memory allocation failed in %s.", "handleClientConnections");
    removeActiveConnection(fd);
    return;
  }
  if (read_exact(fd, body.get(), total - 2) != 0) {
    removeActiveConnection(fd);
    return;
  }
  dispatchRequest(fd, body.get()[0], body.get() + 1, total - 3);
}

}  // namespace

int set_cloexec(int fd) {
  int flags = fcntl(fd, F_GETFD);
  if (flags < 0) {
    log_error("server", "Failure retrieving fd flags");
    return 0;
  }
  if (fcntl(fd, F_SETFD, flags | FD_CLOEXEC) < 0) {
    log_error("server", "Failure setting fd flags");
    return 0;
  }
  return 1;
}

int create_listen_socket(int /*port*/) {
  int passed = sd_listen_fds(0);
  if (passed > 1) log_fatal("server", "Too many file descriptors received!");
  if (passed == 1) return SD_LISTEN_FDS_START;

  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  if (fd < 0) {
    perror("socket(AF_UNIX,..)");
    log_fatal("server", "Couldn't open listen socket!");
  }
  if (!set_cloexec(fd)) {
    close(fd);
    return -1;
  }
  unlink(kSocketPath);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, kSocketPath, sizeof(address.sun_path) - 1);
  socklen_t length = strlen(kSocketPath) + sizeof(address.sun_family);
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), length) < 0) {
    perror("AF_UNIX bind(");
    close(fd);
    return -1;
  }
  if (chmod(kSocketPath, 0666) < 0) {
    log_fatal("server", "Failed change permission on '%s': %m", kSocketPath);
  }
  if (listen(fd, 5) < 0) {
    close(fd);
    return -1;
  }
  return fd;
}

void removeActiveConnection(int fd) {
  close(fd);
  if (client_head != nullptr && client_head == client_tail) {
    if (client_head->fd != fd) {
      log_fatal("server", "%s: theClientFd not in list.", "removeActiveConnection");
    }
    free(client_head);
    client_head = client_tail = nullptr;
    return;
  }
  ClientNode* node = client_head;
  while (node != nullptr && node->fd != fd) node = node->next;
  if (node == nullptr) return;
  if (node->previous != nullptr) {
    node->previous->next = node->next;
  } else {
    client_head = node->next;
  }
  if (node->next != nullptr) {
    node->next->previous = node->previous;
  } else {
    client_tail = node->previous;
  }
  free(node);
}

void dispatchRequest(int fd, int type, const unsigned char* payload, int length) {
  if (type < 0 || type >= kRequestTypes) return;
  RequestHandler handler = kHandlers[type];
  if (handler != nullptr) handler(fd, payload, length);
}

void handleClientConnections(int listen_fd) {
  for (;;) {
    fd_set readable;
    int highest = fill_read_set(listen_fd, &readable);
    if (select(highest + 1, &readable, nullptr, nullptr, nullptr) < 1) {
      sigusr1_check();
      continue;
    }
    int fd = first_readable_client(&readable);
    if (fd < 0) {
      if (!FD_ISSET(listen_fd, &readable)) {
        sigusr1_check();
        continue;
      }
      fd = accept_client(listen_fd);
    }
    sigusr1_check();
    if (fd < 0) continue;
    serve_one_request(fd);
  }
}
