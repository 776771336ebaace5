// The listening socket and the loop that serves every client, one request at a time.
#pragma once

inline constexpr const char* kSocketPath = "/run/tessard/tessardsocket";

// Returns the listening descriptor: the one socket passed by systemd (descriptor 3, used as it is)
// or an own AF_UNIX stream socket bound to kSocketPath; -1 on failure. `port` is ignored.
int create_listen_socket(int port);

// Serves clients forever; never returns.
[[noreturn]] void handleClientConnections(int listen_fd);

// Closes `fd` and forgets its client.
void removeActiveConnection(int fd);

// Sets FD_CLOEXEC; 1 on success, 0 on failure.
int set_cloexec(int fd);

// Hands one request to the handler of its type. `payload` holds the `length` bytes after the
// type byte. Types without a handler are dropped without a reply.
void dispatchRequest(int fd, int type, const unsigned char* payload, int length);
