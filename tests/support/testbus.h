// Test support (not part of the daemon): a private dbus-daemon, a client that records what
// reaches it, and a small service in a child process that answers method calls.
#pragma once

#include <sys/types.h>
#include <systemd/sd-bus.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace testbus {

// The classes below own a process or a connection: none is copied.
struct NoCopy {
  NoCopy() = default;
  NoCopy(const NoCopy&) = delete;
  NoCopy& operator=(const NoCopy&) = delete;
};

// A dbus-daemon of our own that allows everything, listening on `socket_path` (whose directory
// must exist) or on a socket in a temporary directory of its own when that is empty.
class PrivateBus : NoCopy {
 public:
  ~PrivateBus() { stop(); }

  bool start(std::string* error, const std::string& socket_path = {});
  void stop();
  const std::string& address() const { return address_; }
  // Points DBUS_SYSTEM_BUS_ADDRESS and DBUS_SESSION_BUS_ADDRESS at this bus.
  void export_address() const;

 private:
  std::string dir_;
  std::string address_;
  pid_t pid_ = -1;
};

// A signal or method call as the recorder saw it. Arguments are text: basic values as the sending
// library writes them, a variant as its content, an array as [a,b], a dict as {k=v,k=v}.
struct Recorded {
  bool signal = false;
  std::string destination, path, interface, member, signature;
  std::vector<std::string> args;
};

// A signal that tests send after the messages they watch for; see Recorder::wait_for_marker.
inline constexpr char kMarkerText[] = "/org/tessard/Test org.tessard.Test.Marker";

// A connection that records every signal on the bus and every method call sent to its name.
// Traffic with the bus itself is left out.
class Recorder : NoCopy {
 public:
  ~Recorder() { sd_bus_flush_close_unref(bus_); }

  bool connect(const std::string& address, const char* name, std::string* error);
  // Waits until `count` messages have been recorded or `timeout_ms` has passed; all so far.
  const std::vector<Recorded>& wait_for(size_t count, int timeout_ms = 5000);
  // Waits for the first message of `member` and returns what was recorded before it, dropping
  // both; on time-out a single entry with the member "no <member> arrived". Since one
  // connection's messages arrive in order, this shows all that the sender sent before it.
  std::vector<Recorded> wait_before(const std::string& member, int timeout_ms = 5000);
  std::vector<Recorded> wait_for_marker() { return wait_before("Marker"); }

 private:
  static int on_message(sd_bus_message* m, void* self, sd_bus_error* error);
  bool wait_until(const std::function<bool()>& done, int timeout_ms);

  sd_bus* bus_ = nullptr;
  std::vector<Recorded> recorded_;
};

// A service in a child process that owns a bus name and answers method calls by member name, each
// with one argument in the message-text form ("int32:42", "variant:uint16:7"). Other members get
// an error reply.
class ServiceChild : NoCopy {
 public:
  using Answers = std::vector<std::pair<std::string, std::string>>;

  ~ServiceChild() { stop(); }

  // Returns once the child owns the name.
  bool start(const std::string& address, const char* name, const Answers& answers,
             std::string* error);
  void stop();

 private:
  pid_t pid_ = -1;
};

}  // namespace testbus
