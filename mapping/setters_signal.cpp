// Setters: signals to the processes named by a "daemon" option, found through /proc, and the
// per-synchronisation list of signals already sent.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/handles.h"
#include "base/log.h"
#include "mapping/setters.h"

namespace {

constexpr const char* kSource = "setters_signal.cpp";
// An entry of the signal list that names no signal: its processes are sent nothing.
constexpr int kNoSignal = INT_MIN;
// Only this much of a process's command line is read.
constexpr size_t kCmdlineMax = 132;

// The signals sent to one process in this synchronisation (bit n: signal n). New processes are
// appended at the tail; the map beside the list finds a pid's record without walking it.
struct SignalledProcess {
  SignalledProcess* next;
  int32_t pid;
  int32_t signalMask;
};

struct SignalledList {
  SignalledProcess* head = nullptr;
  SignalledProcess* tail = nullptr;
  std::unordered_map<int32_t, SignalledProcess*> index;
};

SignalledList& signalled() {
  static SignalledList list;
  return list;
}

SignalledProcess* addPidSignal(int32_t pid) {
  auto* entry = static_cast<SignalledProcess*>(malloc(sizeof(SignalledProcess)));
  if (entry == nullptr) {
    log_fatal(kSource, "Out of memory in addPidSignal!");
  }
  *entry = SignalledProcess{nullptr, pid, 0};
  SignalledList& list = signalled();
  (list.tail != nullptr ? list.tail->next : list.head) = entry;
  list.tail = entry;
  list.index[pid] = entry;
  return entry;
}

// Sends signal to pid unless it was sent there already in this synchronisation.
void deliver(int32_t pid, int signal) {
  if (signal == kNoSignal) {
    return;
  }
  auto found = signalled().index.find(pid);
  SignalledProcess* entry = found != signalled().index.end() ? found->second : nullptr;
  uint32_t bit = 1u << signal;
  if (entry != nullptr && (static_cast<uint32_t>(entry->signalMask) & bit) != 0) {
    return;
  }
  if (entry == nullptr) {
    entry = addPidSignal(pid);
  }
  kill(pid, signal);  // a process that went away meanwhile is no error
  entry->signalMask = static_cast<int32_t>(static_cast<uint32_t>(entry->signalMask) | bit);
}

const char* skip_space(const char* text) {
  while (isspace(static_cast<unsigned char>(*text))) {
    ++text;
  }
  return text;
}

// A decimal number as it is; otherwise the first letters decide.
int parse_signal(const char* entry) {
  char* end = nullptr;
  long number = strtol(entry, &end, 10);
  // Numbers beyond the classic signals (also negative ones) become SIGHUP.
  if (end != entry) {
    return number > 31 || number < 0 ? SIGHUP : static_cast<int>(number);
  }
  if (strncmp(entry, "USR1", 4) == 0) {
    return SIGUSR1;
  }
  if (strncmp(entry, "USR2", 4) == 0) {
    return SIGUSR2;
  }
  if (strncmp(entry, "HUP", 3) == 0) {
    return SIGHUP;
  }
  if (strncmp(entry, "IO", 2) == 0) {
    return SIGIO;
  }
  return kNoSignal;
}

struct Target {
  std::string name;
  int signal;
};

// Pairs each name of daemonList with its entry of signalList; once the signal list is used up,
// a name takes the signal of the name before it.
std::vector<Target> targets_of(const char* daemonList, const char* signalList) {
  std::vector<Target> targets;
  const char* cursor = signalList;
  int previous = kNoSignal;
  std::string_view names = daemonList;
  for (size_t start = 0; start <= names.size();) {
    size_t comma = std::min(names.find(',', start), names.size());
    std::string name(names.substr(start, comma - start));
    start = comma + 1;
    if (cursor != nullptr && *(cursor = skip_space(cursor)) != '\0') {
      previous = parse_signal(cursor);
      const char* next = strchr(cursor, ',');
      cursor = next != nullptr ? next + 1 : nullptr;
    }
    targets.push_back(Target{std::string(skip_space(name.c_str())), previous});
  }
  return targets;
}

// The program name of a process: its first command-line word after the last "/"; empty when
// the command line cannot be read (or is empty, as for kernel threads).
std::string program_name(const char* pid) {
  std::string path = std::string("/proc/") + pid + "/cmdline";
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return {};
  }
  char buffer[kCmdlineMax + 1];
  size_t length = 0;
  for (ssize_t n = 1; n > 0 && length < kCmdlineMax; length += n) {
    n = read(fd, buffer + length, kCmdlineMax - length);
    if (n < 0) {
      n = 0;
    }
  }
  close(fd);
  buffer[length] = '\0';
  const char* slash = strrchr(buffer, '/');
  return slash != nullptr ? slash + 1 : buffer;
}

bool is_pid(const char* name) {
  if (*name == '\0') {
    return false;
  }
  for (const char* c = name; *c != '\0'; ++c) {
    if (!isdigit(static_cast<unsigned char>(*c))) {
      return false;
    }
  }
  return true;
}

}  // namespace

void update_sendSignal(const char* daemonList, const char* signalList) {
  if (daemonList == nullptr || daemonList[0] == '\0') {
    return;
  }
  std::vector<Target> targets = targets_of(daemonList, signalList);
  UniqueDir proc(opendir("/proc"));
  if (proc == nullptr) {
    // Out of descriptors, say: the change stands, only its signal is not sent.
    log_error(kSource, "Couldn't open /proc!");
    return;
  }
  while (const dirent* entry = readdir(proc.get())) {
    if (!is_pid(entry->d_name)) {
      continue;
    }
    std::string program = program_name(entry->d_name);
    if (program.empty()) {
      continue;
    }
    for (const Target& target : targets) {
      if (target.name == program) {
        deliver(static_cast<int32_t>(atol(entry->d_name)), target.signal);
      }
    }
  }
}

void update_clearSignalledProcesses() {
  SignalledList& list = signalled();
  list.index.clear();
  while (SignalledProcess* entry = list.head) {
    list.head = entry->next;
    free(entry);
  }
  list.tail = nullptr;
}
