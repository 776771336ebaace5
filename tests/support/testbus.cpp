#include "tests/support/testbus.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "dbussend/dbussend.h"
#include "dbussend/dbussend_internal.h"

namespace testbus {
namespace {

constexpr char kBusName[] = "org.freedesktop.DBus";
std::string bus_config(const std::string& socket_path) {
  return "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
         " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
         "<busconfig><type>session</type><listen>unix:path=" +
         socket_path +
         "</listen><auth>EXTERNAL</auth>\n"
         "<policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
         "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n";
}

// Forks a child that runs `child` with the write end of a pipe (it never returns), and waits up to
// 10 s for the first line the child writes there. The child's pid goes to *pid.
bool spawn(const std::function<void(int)>& child, pid_t* pid, std::string* line) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return false;
  *pid = fork();
  if (*pid == 0) {
    close(fds[0]);
    child(fds[1]);
    _exit(127);
  }
  close(fds[1]);
  char c = 0;
  pollfd p{fds[0], POLLIN, 0};
  bool ok = *pid > 0;
  while (ok && (ok = poll(&p, 1, 10000) > 0 && read(fds[0], &c, 1) == 1) && c != '\n') *line += c;
  close(fds[0]);
  return ok;
}

void stop_child(pid_t* pid) {
  if (*pid <= 0) return;
  kill(*pid, SIGTERM);
  waitpid(*pid, nullptr, 0);
  *pid = -1;
}

uint64_t now_usec() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

// Appends the next argument of m as text; false at the end of the message.
bool render_arg(sd_bus_message* m, std::string* out) {
  char type = 0;
  const char* contents = nullptr;
  if (sd_bus_message_peek_type(m, &type, &contents) <= 0) return false;
  if (contents == nullptr) {
    std::string text;
    dbussend::read_basic_text(m, type, &text);
    *out += text;
    return true;
  }
  sd_bus_message_enter_container(m, type, contents);
  std::string open = type == 'a' ? (contents[0] == '{' ? "{" : "[") : "";
  *out += open;
  for (bool first = true;; first = false) {
    std::string item;
    if (!render_arg(m, &item)) break;
    *out += (first ? "" : (type == 'e' ? "=" : ",")) + item;
  }
  sd_bus_message_exit_container(m);
  *out += open == "{" ? "}" : (open == "[" ? "]" : "");
  return true;
}

// A client of the bus at `address`; nullptr on failure.
sd_bus* open_client(const std::string& address) {
  sd_bus* bus = nullptr;
  if (sd_bus_new(&bus) < 0) return nullptr;
  if (sd_bus_set_address(bus, address.c_str()) < 0 || sd_bus_set_bus_client(bus, 1) < 0 ||
      sd_bus_start(bus) < 0) {
    return sd_bus_unref(bus);
  }
  return bus;
}

std::string text_of(const char* s) {
  return s ? s : "";
}

uint8_t type_of(sd_bus_message* m) {
  uint8_t type = 0;
  sd_bus_message_get_type(m, &type);
  return type;
}

int answer_call(sd_bus_message* m, void* userdata, sd_bus_error*) {
  if (type_of(m) != SD_BUS_MESSAGE_METHOD_CALL) return 0;
  std::string member = text_of(sd_bus_message_get_member(m));
  for (const auto& [name, answer] : *static_cast<const ServiceChild::Answers*>(userdata)) {
    DbusSendMessage* parsed =
        name == member ? dbus_send_from_string(("/ a.b.c " + answer).c_str(), nullptr) : nullptr;
    if (parsed == nullptr) continue;
    sd_bus_message* reply = nullptr;
    sd_bus_message_new_method_return(m, &reply);
    dbussend::append_args(reply, *parsed);
    sd_bus_send(nullptr, reply, nullptr);
    sd_bus_message_unref(reply);
    dbus_send_free(parsed);
    return 1;
  }
  sd_bus_reply_method_errorf(m, "org.tessard.Test.Error", "no answer for %s", member.c_str());
  return 1;
}

}  // namespace

bool PrivateBus::start(std::string* error, const std::string& socket_path) {
  address_.clear();
  std::string pattern = std::string(getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp") + "/busXXXXXX";
  dir_ = mkdtemp(pattern.data()) ? pattern : "";
  if (dir_.empty() || !(std::ofstream(dir_ + "/bus.conf")
                        << bus_config(socket_path.empty() ? dir_ + "/bus_socket" : socket_path))) {
    *error = "cannot prepare a directory for dbus-daemon";
    return false;
  }
  auto daemon = [&](int fd) {
    // Descriptor 3 must survive exec; the pipe's own descriptor is closed on exec.
    if (fd == 3) fcntl(fd, F_SETFD, 0);
    if (fd != 3) dup2(fd, 3);
    std::string config = "--config-file=" + dir_ + "/bus.conf";
    execlp("dbus-daemon", "dbus-daemon", config.c_str(), "--nofork", "--print-address=3", nullptr);
  };
  bool ok = spawn(daemon, &pid_, &address_);
  if (!ok) *error = "dbus-daemon did not start (is it installed?)";
  return ok;
}

void PrivateBus::stop() {
  stop_child(&pid_);
  std::error_code ignored;
  if (!dir_.empty()) std::filesystem::remove_all(dir_, ignored);
  dir_.clear();
}

void PrivateBus::export_address() const {
  setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
  setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
}

bool Recorder::connect(const std::string& address, const char* name, std::string* error) {
  bus_ = open_client(address);
  if (bus_ == nullptr || sd_bus_request_name(bus_, name, 0) < 0 ||
      sd_bus_add_match(bus_, nullptr, "type='signal'", nullptr, nullptr) < 0 ||
      sd_bus_add_filter(bus_, nullptr, on_message, this) < 0) {
    *error = "the recorder cannot connect to the bus";
    return false;
  }
  return true;
}

// Every message is taken as handled, so that sd-bus answers none of them: the recorder only
// listens.
int Recorder::on_message(sd_bus_message* m, void* self, sd_bus_error*) {
  uint8_t type = type_of(m);
  Recorded r{type == SD_BUS_MESSAGE_SIGNAL,
             text_of(sd_bus_message_get_destination(m)),
             text_of(sd_bus_message_get_path(m)),
             text_of(sd_bus_message_get_interface(m)),
             text_of(sd_bus_message_get_member(m)),
             text_of(sd_bus_message_get_signature(m, 1)),
             {}};
  if ((type != SD_BUS_MESSAGE_SIGNAL && type != SD_BUS_MESSAGE_METHOD_CALL) ||
      text_of(sd_bus_message_get_sender(m)) == kBusName || r.destination == kBusName) {
    return 1;
  }
  for (std::string arg; render_arg(m, &arg); arg.clear()) r.args.push_back(arg);
  static_cast<Recorder*>(self)->recorded_.push_back(std::move(r));
  return 1;
}

// Handles incoming messages until done() holds or timeout_ms has passed; returns done().
bool Recorder::wait_until(const std::function<bool()>& done, int timeout_ms) {
  uint64_t deadline = now_usec() + static_cast<uint64_t>(timeout_ms) * 1000;
  for (;;) {
    while (sd_bus_process(bus_, nullptr) > 0) {
    }
    uint64_t now = now_usec();
    if (done() || now >= deadline) return done();
    sd_bus_wait(bus_, deadline - now);
  }
}

const std::vector<Recorded>& Recorder::wait_for(size_t count, int timeout_ms) {
  wait_until([&] { return recorded_.size() >= count; }, timeout_ms);
  return recorded_;
}

std::vector<Recorded> Recorder::wait_before(const std::string& member, int timeout_ms) {
  auto marker = recorded_.end();
  auto found = [&] {
    marker = std::find_if(recorded_.begin(), recorded_.end(),
                          [&](const Recorded& r) { return r.member == member; });
    return marker != recorded_.end();
  };
  if (!wait_until(found, timeout_ms)) {
    Recorded missing;
    missing.member = "no " + member + " arrived";
    return {missing};
  }
  std::vector<Recorded> before(recorded_.begin(), marker);
  recorded_.erase(recorded_.begin(), marker + 1);
  return before;
}

bool ServiceChild::start(const std::string& address, const char* name, const Answers& answers,
                         std::string* error) {
  std::string line;
  auto serve = [&](int ready_fd) {
    sd_bus* bus = open_client(address);
    if (bus == nullptr || sd_bus_request_name(bus, name, 0) < 0) _exit(1);
    sd_bus_add_filter(bus, nullptr, answer_call, const_cast<Answers*>(&answers));
    if (write(ready_fd, "R\n", 2) != 2) _exit(1);
    close(ready_fd);
    for (;;) {
      int r = sd_bus_process(bus, nullptr);
      if (r < 0) _exit(1);
      if (r == 0) sd_bus_wait(bus, UINT64_MAX);
    }
  };
  bool ok = spawn(serve, &pid_, &line);
  if (!ok) *error = std::string("the test service could not take the name ") + name;
  return ok;
}

void ServiceChild::stop() {
  stop_child(&pid_);
}

}  // namespace testbus
