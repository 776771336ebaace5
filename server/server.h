// The listening socket and the event loop that serves every client.
//
// The loop never blocks on a client: sockets are non-blocking, each connection has an input
// buffer (a request is dispatched only once all its bytes are there) and an output queue (a reply
// is written as the socket takes it). Clients with a whole request are served in turn, one request
// each per pass. A request begun must be complete within a deadline, and a client whose queued
// replies pass a bound is not read until they drain; either kind of stall ends in dropping that
// client, never in waiting for it.
#pragma once

#include <sys/socket.h>

inline constexpr const char* kSocketPath = "/run/tessard/tessardsocket";

// Returns the listening descriptor: the one socket passed by systemd (descriptor 3, used as it is)
// or an own AF_UNIX stream socket bound to kSocketPath; -1 on failure. `port` is ignored.
int create_listen_socket(int port);

// What the loop does on the signals start-up hands to it. Both run between requests.
struct ServerHooks {
  void (*users_changed)();  // SIGUSR1: rebuild the user cache
  void (*terminate)();      // SIGTERM, SIGINT: end the process (must not return)
};

// Makes the pipe that carries signals into the loop; 0, or -1 with errno set. Call it before any
// handler that calls server_relaySignal is installed.
int server_openSignalRelay();

// Hands a signal to the loop. Async-signal-safe: a signal handler calls only this.
void server_relaySignal(int signo);

// Raises the soft open-files limit to the hard one and serves clients forever.
[[noreturn]] void handleClientConnections(int listen_fd, const ServerHooks& hooks);

// Sets FD_CLOEXEC; 1 on success, 0 on failure.
int set_cloexec(int fd);

// Hands one request to the handler of its type. `payload` holds the `length` bytes after the
// type byte. Types without a handler are dropped without a reply.
void dispatchRequest(int fd, int type, const unsigned char* payload, int length);

// The peer credentials of a client, read once when it connected (a descriptor the loop does not
// serve is asked directly). 0, or the errno of the failed read.
int peerCredentials(int fd, ucred* peer);

// Queues a reply for a client and writes as much of it as the socket takes now; a descriptor the
// loop does not serve is written at once, whole. 0, or -1 when the write failed (logged as
// "Failed to write to file. %m" at warning level; the queued replies are then dropped).
int sendReply(int fd, const void* bytes, int length);
