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

// A dbus-daemon of our own that allows everything, listening on a unix socket in a temporary
// directory or at a path the caller gives.
class PrivateBus {
 public:
  PrivateBus() = default;
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;
  ~PrivateBus() { stop(); }

  // Starts the daemon listening on socket_path, or on a socket in its own temporary directory
  // when that is empty (the directory of socket_path must exist); false with *error when it
  // cannot be started.
  bool start(std::string* error, const std::string& socket_path = {});
  // Stops the daemon and removes its directory.
  void stop();
  const std::string& address() const { return address_; }
  // Points DBUS_SYSTEM_BUS_ADDRESS and DBUS_SESSION_BUS_ADDRESS at this bus.
  void export_address() const;

 private:
  std::string dir_;
  std::string address_;
  pid_t pid_ = -1;
};

// One signal or method call as the recorder saw it (replies are not recorded). Arguments are given
// as text: basic values as the sending library writes them, a variant as its content, an array as
// [a,b], a dict as {k=v,k=v}.
struct Recorded {
  bool signal = false;
  std::string destination;
  std::string path;
  std::string interface;
  std::string member;
  std::string signature;
  std::vector<std::string> args;
};

// A signal that tests send after the messages they watch for; see Recorder::wait_for_marker.
inline constexpr char kMarkerText[] = "/org/tessard/Test org.tessard.Test.Marker";
inline constexpr char kMarkerMember[] = "Marker";

// A client connection that records every signal on the bus and every method call sent to its
// name; or, as a monitor, every signal and method call on the bus. Traffic to and from the bus
// itself (Hello, name changes) is left out.
class Recorder {
 public:
  Recorder() = default;
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;
  ~Recorder();

  bool connect(const std::string& address, const char* name, std::string* error);
  // Connects as a monitor of the whole bus (which the bus allows to root and its own user only).
  // A monitor only listens: it owns no name and sends nothing.
  bool monitor(const std::string& address, std::string* error);
  // Waits until at least count messages have been recorded or timeout_ms has passed, and
  // returns all recorded so far.
  const std::vector<Recorded>& wait_for(size_t count, int timeout_ms = 5000);
  // Waits for the marker signal (kMarkerText, sent by the code under test's own connection after
  // whatever it sent before) and returns what was recorded before it, dropping both. Since one
  // connection's messages arrive in order, this shows that nothing else was sent in between.
  std::vector<Recorded> wait_for_marker(int timeout_ms = 5000) {
    return wait_before(kMarkerMember, timeout_ms);
  }
  // The same for the first message of the given member: returns what was recorded before it and
  // drops both; a single entry with the member "no <member> arrived" on time-out.
  std::vector<Recorded> wait_before(const std::string& member, int timeout_ms = 5000);

 private:
  static int on_message(sd_bus_message* m, void* self, sd_bus_error* error);
  // Handles incoming messages until done() holds or timeout_ms has passed; returns done().
  bool wait_until(const std::function<bool()>& done, int timeout_ms);

  sd_bus* bus_ = nullptr;
  std::vector<Recorded> recorded_;
};

// A service in a child process that owns a bus name and answers method calls by member name.
// Each answer is one argument in the message-text form ("int32:42", "string:x",
// "variant:uint16:7"); the answer "error" makes it reply with an error. Unknown members get an
// error reply too.
class ServiceChild {
 public:
  using Answers = std::vector<std::pair<std::string, std::string>>;

  ServiceChild() = default;
  ServiceChild(const ServiceChild&) = delete;
  ServiceChild& operator=(const ServiceChild&) = delete;
  ~ServiceChild() { stop(); }

  // Returns once the child owns the name; false with *error when it could not get there.
  bool start(const std::string& address, const char* name, const Answers& answers,
             std::string* error);
  void stop();

 private:
  pid_t pid_ = -1;
};

}  // namespace testbus
