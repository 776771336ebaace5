#include "fuzz/fuzz_support.h"

#include <dirent.h>
#include <sanitizer/lsan_interface.h>
#include <sys/mman.h>
#include <syslog.h>
#include <unistd.h>

#include <csetjmp>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <vector>

#include "dynamic/dynamic.h"
#include "mapping/quibmapping.h"
#include "parsers/mappinginterface.h"
#include "parsers/parserframework.h"
#include "server/authorization.h"

namespace fs = std::filesystem;

namespace tessard::fuzz {
namespace {

jmp_buf* fatal_trap = nullptr;

void print_line(const char* format, va_list args) {
  if (getenv("TESSARD_FUZZ_LOG") == nullptr) return;
  vfprintf(stderr, format, args);
  fputc('\n', stderr);
}

std::vector<std::string>& scratch_dirs() {
  static std::vector<std::string> dirs;
  return dirs;
}

void remove_scratch_dirs() {
  std::error_code ignored;
  for (const std::string& dir : scratch_dirs()) fs::remove_all(dir, ignored);
}

std::string read_file(const fs::path& path) {
  std::stringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

// The example's text with its absolute paths moved below `dir` and without the lines that would
// run programs or send D-Bus messages.
std::string confined(const std::string& text, const std::string& dir) {
  std::istringstream lines(text);
  std::string result, line;
  while (std::getline(lines, line)) {
    if (line.find("setter") != std::string::npos || line.find("getter") != std::string::npos ||
        line.find("dbus") != std::string::npos) {
      continue;
    }
    for (size_t at = line.find("\"/etc/"); at != std::string::npos; at = line.find("\"/etc/", at)) {
      line.insert(at + 1, dir);
      at += dir.size() + 2;
    }
    result += line + '\n';
  }
  return result;
}

// Every file of the example device, relative path -> confined text.
std::map<std::string, std::string> example_files(const std::string& dir) {
  std::map<std::string, std::string> files;
  std::error_code error;
  for (fs::recursive_directory_iterator it(TESSARD_EXAMPLE_DIR, error), end; !error && it != end;
       it.increment(error)) {
    if (!it->is_regular_file(error)) continue;
    std::string relative = fs::relative(it->path(), TESSARD_EXAMPLE_DIR).string();
    files[relative] = confined(read_file(it->path()), dir);
  }
  if (files.empty()) {
    fprintf(stderr, "No example device files in %s\n", TESSARD_EXAMPLE_DIR);
    abort();
  }
  return files;
}

std::set<int> open_descriptors() {
  std::set<int> fds;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return fds;
  while (const dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') fds.insert(atoi(entry->d_name));
  }
  fds.erase(dirfd(dir));
  closedir(dir);
  return fds;
}

// Read-only shared mappings (the configuration parser maps its files so), as start addresses.
std::set<uintptr_t> shared_mappings() {
  std::set<uintptr_t> starts;
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line)) {
    uintptr_t start = 0, end = 0;
    char perms[5] = {};
    if (sscanf(line.c_str(), "%lx-%lx %4s", &start, &end, perms) == 3 &&
        strcmp(perms, "r--s") == 0) {
      starts.insert(start);
    }
  }
  return starts;
}

void release_leftovers(const std::set<int>& fds_before, const std::set<uintptr_t>& maps_before) {
  for (int fd : open_descriptors()) {
    if (fds_before.count(fd) == 0) close(fd);
  }
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line)) {
    uintptr_t start = 0, end = 0;
    char perms[5] = {};
    if (sscanf(line.c_str(), "%lx-%lx %4s", &start, &end, perms) == 3 &&
        strcmp(perms, "r--s") == 0 && maps_before.count(start) == 0) {
      munmap(reinterpret_cast<void*>(start), end - start);
    }
  }
}

}  // namespace

std::string scratch_dir() {
  const char* base = getenv("TMPDIR");
  std::string dir =
      std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/tessard-fuzz.XXXXXX";
  if (mkdtemp(dir.data()) == nullptr) {
    perror("mkdtemp");
    abort();
  }
  if (scratch_dirs().empty()) atexit(remove_scratch_dirs);
  scratch_dirs().push_back(dir);
  std::string no_bus = "unix:path=" + dir + "/no-bus";
  setenv("DBUS_SYSTEM_BUS_ADDRESS", no_bus.c_str(), 1);
  setenv("DBUS_SESSION_BUS_ADDRESS", no_bus.c_str(), 1);
  return dir;
}

void write_file(const std::string& path, std::string_view text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

void start_parsers() {
  static bool started = false;
  if (started) return;
  started = true;
  parser_init();
  mif_init();
}

void start_example_device(const std::string& dir) {
  static const std::map<std::string, std::string> files = example_files(dir);
  static bool started = false;
  std::error_code ignored;
  fs::remove_all(dir + "/etc", ignored);
  fs::remove_all(dir + "/tmp", ignored);
  for (const auto& [relative, text] : files) {
    fs::path path = fs::path(dir) / relative;
    fs::create_directories(path.parent_path(), ignored);
    write_file(path.string(), text);
  }
  fs::create_directories(dir + "/tmp", ignored);
  if (!started) {
    started = true;
    dyn_setScratchDir((dir + "/tmp").c_str());
    dyn_init((dir + "/usr/etc/sysconfig/template").c_str(),
             (dir + "/etc/sysconfig/template").c_str(), (dir + "/etc/dynamic/param").c_str(),
             (dir + "/etc/dynamic").c_str());
    start_parsers();
    populateUserCache();
  }
  fs::create_directories(dir + "/etc/dynamic/param", ignored);
  map_init((dir + "/etc/tessard/tessard.conf").c_str());
  map_sync(0, 1);
}

bool run_catching_fatal(void (*body)(const std::string&), const std::string& argument) {
  static const std::set<uintptr_t> maps_before = shared_mappings();
  const std::set<int> fds_before = open_descriptors();
  jmp_buf trap;
  // What the interrupted code allocated is not a leak of its own making.
  __lsan_disable();
  if (setjmp(trap) != 0) {
    fatal_trap = nullptr;
    __lsan_enable();
    release_leftovers(fds_before, maps_before);
    return false;
  }
  fatal_trap = &trap;
  body(argument);
  fatal_trap = nullptr;
  __lsan_enable();
  return true;
}

}  // namespace tessard::fuzz

extern "C" void vsyslog(int /*priority*/, const char* format, va_list args) {
  tessard::fuzz::print_line(format, args);
}

// log_fatal ends with this line before it calls exit(): a trap set by run_catching_fatal
// returns there instead.
extern "C" void syslog(int /*priority*/, const char* format, ...) {
  va_list args;
  va_start(args, format);
  tessard::fuzz::print_line(format, args);
  va_end(args);
  if (tessard::fuzz::fatal_trap != nullptr && strcmp(format, "Last error fatal. Exit.") == 0) {
    longjmp(*tessard::fuzz::fatal_trap, 1);
  }
}
