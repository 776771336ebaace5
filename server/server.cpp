#include "server/server.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "base/handles.h"
#include "base/log.h"
#include "server/clientserver.h"
#include "server/requests.h"

namespace {

using Clock = std::chrono::steady_clock;

// A request begun must be whole, and queued replies must move, within this time.
constexpr Clock::duration kDeadline = std::chrono::seconds(5);
constexpr int kDeadlineSeconds = 5;
// Queued reply bytes beyond which a client is not read until they drain.
constexpr size_t kOutputBound = 1 << 20;
// The longest frame is 65535 bytes, so an input buffer this full always holds a whole request.
constexpr size_t kInputBound = 65536;
// Buffers larger than this are given back once they empty.
constexpr size_t kKeptCapacity = 4096;
constexpr int kMaxEvents = 256;
constexpr uint32_t kIn = EPOLLIN;
constexpr uint32_t kOut = EPOLLOUT;
constexpr int kAcceptsPerPass = 64;
// Without descriptors the listening socket rests until a client leaves or this time passes.
constexpr Clock::duration kAcceptPause = std::chrono::seconds(1);
constexpr Clock::duration kAcceptLogInterval = std::chrono::seconds(60);

using RequestHandler = void (*)(int fd, const unsigned char* payload, int length);

// Indexed by request type; an empty slot drops the request without a reply.
constexpr int kRequestTypes = 11;
const std::array<RequestHandler, kRequestTypes> kHandlers = {
    serveGetRequest,      // GET
    serveSetRequest,      // SET
    serveSyncRequest,     // SNC
    serveGetParamInfo,    // GETPARAMINFO
    serveGetParamOption,  // GETPARAMOPTION
    serveGetGroupInfo,    // GETGROUPINFO
    serveCreateGroupRequest, serveDeleteGroupRequest,  handleReadFileRequest,
    handleGetNameValueList,  serveCreateGroupRequest2,
};

struct Connection;

// A connection's place in one of the loop's queues.
struct Link {
  Connection* prev = nullptr;
  Connection* next = nullptr;
  bool linked = false;
  Clock::time_point since;
};

// A first-in first-out queue threaded through the connections. The deadlines of the loop are a
// fixed time after the moment a connection joins, so the front is always the first one due.
class Queue {
 public:
  explicit Queue(Link Connection::*member) : member_(member) {}
  Connection* front() const { return head_; }
  size_t size() const { return size_; }
  void push(Connection* c, Clock::time_point since);
  void remove(Connection* c);

 private:
  Link& link(Connection* c) const;
  Link Connection::*member_;
  Connection* head_ = nullptr;
  Connection* tail_ = nullptr;
  size_t size_ = 0;
};

// One client. The loop owns it from accept to removal; handlers see only its descriptor.
struct Connection {
  int fd = -1;
  ucred peer{};        // read once at accept: credentials are fixed at connect
  int peer_error = 0;  // errno of that read, 0 when it succeeded
  std::string input;   // received bytes; those before input_start are served
  size_t input_start = 0;
  std::string output;  // queued reply bytes; those before output_start are written
  size_t output_start = 0;
  bool peer_closed = false;  // the client sends nothing more
  uint64_t served_pass = 0;  // the loop's pass that last served one of its requests
  uint32_t events = 0;       // what epoll watches for now
  Link ready;                // a whole request waits
  Link request;              // a request has begun and is not whole yet
  Link stalled;              // replies wait for the client to read them
};

Link& Queue::link(Connection* c) const {
  return c->*member_;
}

void Queue::push(Connection* c, Clock::time_point since) {
  Link& l = link(c);
  if (l.linked) return;
  l = Link{tail_, nullptr, true, since};
  if (tail_ != nullptr) {
    link(tail_).next = c;
  } else {
    head_ = c;
  }
  tail_ = c;
  size_++;
}

void Queue::remove(Connection* c) {
  Link& l = link(c);
  if (!l.linked) return;
  if (l.prev != nullptr) {
    link(l.prev).next = l.next;
  } else {
    head_ = l.next;
  }
  if (l.next != nullptr) {
    link(l.next).prev = l.prev;
  } else {
    tail_ = l.prev;
  }
  l = Link{};
  size_--;
}

struct Server {
  int epoll_fd = -1;
  int listen_fd = -1;
  int accept_budget = 1;  // accepts per pass: one when the listening socket blocks
  bool accepting = true;  // whether the listening socket is watched
  Clock::time_point accept_resume;
  Clock::time_point accept_logged;
  bool accept_ever_logged = false;
  ServerHooks hooks{};
  uint64_t pass = 0;  // counts the loop's passes; each serves a client at most once
  std::vector<Connection*> by_fd;
  Queue ready{&Connection::ready};
  Queue requests{&Connection::request};
  Queue stalled{&Connection::stalled};
};

Server server;

// The signal relay: handlers set a flag and wake the loop through the pipe.
int relay_pipe[2] = {-1, -1};
volatile sig_atomic_t got_terminate = 0;
volatile sig_atomic_t got_sigusr1 = 0;

unsigned char scratch[kInputBound];

Connection* connection_of(int fd) {
  if (fd < 0 || static_cast<size_t>(fd) >= server.by_fd.size()) return nullptr;
  return server.by_fd[fd];
}

size_t buffered_input(const Connection* c) {
  return c->input.size() - c->input_start;
}
size_t pending_output(const Connection* c) {
  return c->output.size() - c->output_start;
}

const unsigned char* next_frame(const Connection* c) {
  return reinterpret_cast<const unsigned char*>(c->input.data()) + c->input_start;
}

int frame_length(const Connection* c) {
  return next_frame(c)[0] | (next_frame(c)[1] << 8);
}

bool wants_input(const Connection* c) {
  return !c->peer_closed && buffered_input(c) < kInputBound && pending_output(c) <= kOutputBound;
}

void watch(Connection* c) {
  uint32_t want = (wants_input(c) ? kIn : 0) | (pending_output(c) > 0 ? kOut : 0);
  if (want == c->events) return;
  epoll_event event{};
  event.events = want;
  event.data.fd = c->fd;
  if (epoll_ctl(server.epoll_fd, EPOLL_CTL_MOD, c->fd, &event) == 0) c->events = want;
}

void watch_listener(bool on) {
  epoll_event event{};
  event.events = on ? kIn : 0;
  event.data.fd = server.listen_fd;
  epoll_ctl(server.epoll_fd, EPOLL_CTL_MOD, server.listen_fd, &event);
  server.accepting = on;
}

// Closes the client's descriptor and forgets it. A listening socket resting for want of
// descriptors is watched again.
void removeActiveConnection(Connection* c) {
  server.ready.remove(c);
  server.requests.remove(c);
  server.stalled.remove(c);
  epoll_ctl(server.epoll_fd, EPOLL_CTL_DEL, c->fd, nullptr);
  close(c->fd);
  server.by_fd[c->fd] = nullptr;
  delete c;
  if (!server.accepting) watch_listener(true);
}

void drop_output(Connection* c) {
  c->output.clear();
  c->output_start = 0;
  if (c->output.capacity() > kKeptCapacity) c->output.shrink_to_fit();
  server.stalled.remove(c);
}

// Writes queued replies until the socket takes no more. Progress restarts the stall deadline.
int flush(Connection* c, Clock::time_point now) {
  bool moved = false;
  while (pending_output(c) > 0) {
    ssize_t put = send(c->fd, c->output.data() + c->output_start, pending_output(c),
                       MSG_NOSIGNAL | MSG_DONTWAIT);
    if (put > 0) {
      c->output_start += put;
      moved = true;
    } else if (put < 0 && errno == EINTR) {
      continue;
    } else if (put < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
      log_warning("clientserver", "Failed to write to file. %m");
      drop_output(c);
      return -1;
    } else {
      break;
    }
  }
  if (pending_output(c) == 0) {
    drop_output(c);
  } else if (moved || !c->stalled.linked) {
    server.stalled.remove(c);
    server.stalled.push(c, now);
  }
  return 0;
}

// Brings the queues and the watched events in line with what the connection holds. A frame too
// short to hold its type byte, or a closed peer with nothing left to serve or send, ends the
// connection. False when it was removed.
bool refresh(Connection* c, Clock::time_point now) {
  size_t have = buffered_input(c);
  if (have >= 2 && frame_length(c) < 3) {
    removeActiveConnection(c);
    return false;
  }
  bool whole = have >= 2 && have >= static_cast<size_t>(frame_length(c));
  bool held = pending_output(c) > kOutputBound;
  if (whole && !held) {
    server.ready.push(c, now);
  } else {
    server.ready.remove(c);
  }
  // The deadline runs only while the loop is reading the client.
  if (!whole && have > 0 && !held && !c->peer_closed) {
    server.requests.push(c, now);
  } else {
    server.requests.remove(c);
  }
  if (c->peer_closed && !whole && pending_output(c) == 0) {
    removeActiveConnection(c);
    return false;
  }
  watch(c);
  return true;
}

void append_input(Connection* c, const unsigned char* bytes, size_t length) {
  if (c->input_start > 0) {
    c->input.erase(0, c->input_start);
    c->input_start = 0;
  }
  c->input.append(reinterpret_cast<const char*>(bytes), length);
}

// One read per pass, so that a fast sender gets no more turns than anybody else.
bool on_readable(Connection* c, Clock::time_point now) {
  if (!wants_input(c)) return true;
  ssize_t got = read(c->fd, scratch, kInputBound - buffered_input(c));
  if (got < 0) {
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return true;
    log_error("clientserver", "Failed to read from file. %m");
    removeActiveConnection(c);
    return false;
  }
  if (got == 0) {
    c->peer_closed = true;
  } else {
    append_input(c, scratch, got);
  }
  return refresh(c, now);
}

bool on_writable(Connection* c, Clock::time_point now) {
  if (pending_output(c) == 0) return true;
  flush(c, now);
  return refresh(c, now);
}

void consume_input(Connection* c, size_t length) {
  c->input_start += length;
  if (c->input_start < c->input.size()) return;
  c->input.clear();
  c->input_start = 0;
  if (c->input.capacity() > kKeptCapacity) c->input.shrink_to_fit();
}

void serve_request(Connection* c) {
  c->served_pass = server.pass;
  server.ready.remove(c);
  int total = frame_length(c);
  const unsigned char* frame = next_frame(c);
  dispatchRequest(c->fd, frame[2], frame + 3, total - 3);
  consume_input(c, total);
  refresh(c, Clock::now());
}

// Each pass serves one request of every client that has a whole one, in the order they became
// ready: first those left waiting from earlier passes, then each client as its read completes a
// request (answering at once lets the client go on while the loop reads the others). A client
// with more goes to the back and waits for the next pass.
void serve_waiting_clients() {
  for (size_t turns = server.ready.size(); turns > 0; turns--) {
    Connection* c = server.ready.front();
    if (c == nullptr || c->served_pass == server.pass) break;
    serve_request(c);
  }
}

void serve_if_ready(Connection* c) {
  if (c->ready.linked && c->served_pass != server.pass) serve_request(c);
}

void rest_listener(Clock::time_point now) {
  if (!server.accept_ever_logged || now - server.accept_logged >= kAcceptLogInterval) {
    log_warning("server", "Failed to accept a client: %m. New clients wait for a free descriptor.");
    server.accept_logged = now;
    server.accept_ever_logged = true;
  }
  watch_listener(false);
  server.accept_resume = now + kAcceptPause;
}

Connection* new_connection(int fd) {
  auto* c = new (std::nothrow) Connection;
  if (c == nullptr) return nullptr;
  c->fd = fd;
  socklen_t length = sizeof(c->peer);
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &c->peer, &length) != 0) {
    c->peer_error = errno;
  } else if (length != sizeof(c->peer)) {
    c->peer_error = EINVAL;
  }
  return c;
}

// False when nothing more can be accepted now.
bool accept_client(Clock::time_point now) {
  int fd = accept4(server.listen_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd < 0) {
    if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)
      rest_listener(now);
    return false;
  }
  Connection* c = new_connection(fd);
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = fd;
  if (c == nullptr || epoll_ctl(server.epoll_fd, EPOLL_CTL_ADD, fd, &event) != 0) {
    log_error("server", "Memory allocation failed in %s.", "handleClientConnections");
    delete c;
    close(fd);
    return false;
  }
  c->events = EPOLLIN;
  if (static_cast<size_t>(fd) >= server.by_fd.size()) server.by_fd.resize(fd + 1, nullptr);
  server.by_fd[fd] = c;
  return true;
}

void accept_clients(Clock::time_point now) {
  for (int i = 0; i < server.accept_budget && server.accepting; i++) {
    if (!accept_client(now)) break;
  }
}

void drain_relay() {
  char bytes[64];
  while (read(relay_pipe[0], bytes, sizeof(bytes)) > 0) {
  }
}

void handle_signals() {
  if (got_terminate) {
    if (server.hooks.terminate != nullptr) server.hooks.terminate();
    exit(0);
  }
  if (got_sigusr1) {
    got_sigusr1 = 0;
    if (server.hooks.users_changed != nullptr) server.hooks.users_changed();
  }
}

void drop_overdue_clients(Clock::time_point now) {
  while (Connection* c = server.requests.front()) {
    if (now - c->request.since < kDeadline) break;
    log_info("server", "Dropping client: request not complete within %d s.", kDeadlineSeconds);
    removeActiveConnection(c);
  }
  while (Connection* c = server.stalled.front()) {
    if (now - c->stalled.since < kDeadline) break;
    log_info("server", "Dropping client: no reply read for %d s.", kDeadlineSeconds);
    removeActiveConnection(c);
  }
  if (!server.accepting && now >= server.accept_resume) watch_listener(true);
}

// Milliseconds until the next deadline: 0 while requests wait, -1 when nothing is due.
int wait_time(Clock::time_point now) {
  if (server.ready.size() > 0) return 0;
  Clock::time_point due = Clock::time_point::max();
  if (Connection* c = server.requests.front()) due = std::min(due, c->request.since + kDeadline);
  if (Connection* c = server.stalled.front()) due = std::min(due, c->stalled.since + kDeadline);
  if (!server.accepting) due = std::min(due, server.accept_resume);
  if (due == Clock::time_point::max()) return -1;
  auto ms = std::chrono::ceil<std::chrono::milliseconds>(due - now).count();
  return static_cast<int>(std::clamp<decltype(ms)>(ms, 0, INT_MAX));
}

void handle_event(const epoll_event& event, Clock::time_point now) {
  int fd = event.data.fd;
  if (fd == relay_pipe[0]) return drain_relay();
  if (fd == server.listen_fd) return accept_clients(now);
  Connection* c = connection_of(fd);
  if (c == nullptr) return;
  if ((event.events & (EPOLLOUT | EPOLLERR | EPOLLHUP)) && !on_writable(c, now)) return;
  if ((event.events & (EPOLLIN | EPOLLERR | EPOLLHUP)) && !on_readable(c, now)) return;
  serve_if_ready(c);
}

void watch_descriptor(int fd) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = fd;
  if (epoll_ctl(server.epoll_fd, EPOLL_CTL_ADD, fd, &event) != 0) {
    log_fatal("server", "Couldn't watch descriptor %d: %m", fd);
  }
}

// Clients are limited only by the open-files limit, so take all of it.
void raise_open_files_limit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
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

  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
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
  if (listen(fd, SOMAXCONN) < 0) {
    close(fd);
    return -1;
  }
  return fd;
}

int server_openSignalRelay() {
  if (relay_pipe[0] >= 0) return 0;
  return pipe2(relay_pipe, O_NONBLOCK | O_CLOEXEC);
}

void server_relaySignal(int signo) {
  int saved = errno;
  if (signo == SIGUSR1) {
    got_sigusr1 = 1;
  } else {
    got_terminate = 1;
  }
  // A full pipe already wakes the loop; the flags say what happened.
  if (relay_pipe[1] >= 0 && write(relay_pipe[1], "s", 1) < 0) {
  }
  errno = saved;
}

void dispatchRequest(int fd, int type, const unsigned char* payload, int length) {
  if (type < 0 || type >= kRequestTypes) return;
  RequestHandler handler = kHandlers[type];
  if (handler != nullptr) handler(fd, payload, length);
}

int peerCredentials(int fd, ucred* peer) {
  if (const Connection* c = connection_of(fd)) {
    *peer = c->peer;
    return c->peer_error;
  }
  socklen_t length = sizeof(*peer);
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, peer, &length) != 0) return errno;
  return length == sizeof(*peer) ? 0 : EINVAL;
}

int sendReply(int fd, const void* bytes, int length) {
  Connection* c = connection_of(fd);
  if (c == nullptr) return write_all(fd, bytes, length, 1);
  if (length < 1) return 0;
  c->output.append(static_cast<const char*>(bytes), length);
  return flush(c, Clock::now());
}

void handleClientConnections(int listen_fd, const ServerHooks& hooks) {
  raise_open_files_limit();
  server.hooks = hooks;
  server.listen_fd = listen_fd;
  // A passed socket is used as it is; when it blocks, one accept per readable report is safe.
  int flags = fcntl(listen_fd, F_GETFL);
  server.accept_budget = flags >= 0 && (flags & O_NONBLOCK) ? kAcceptsPerPass : 1;
  server.epoll_fd = epoll_create1(EPOLL_CLOEXEC);
  if (server.epoll_fd < 0) log_fatal("server", "Couldn't create the event loop: %m");
  watch_descriptor(listen_fd);
  if (relay_pipe[0] >= 0) watch_descriptor(relay_pipe[0]);

  std::array<epoll_event, kMaxEvents> events;
  for (;;) {
    int count = epoll_wait(server.epoll_fd, events.data(), kMaxEvents, wait_time(Clock::now()));
    Clock::time_point now = Clock::now();
    server.pass++;
    serve_waiting_clients();
    for (int i = 0; i < count; i++) handle_event(events[i], now);
    handle_signals();
    drop_overdue_clients(now);
  }
}
