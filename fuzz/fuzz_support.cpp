#include "fuzz/fuzz_support.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "base/log.h"
#include "dynamic/dynamic.h"
#include "init/init.h"
#include "mapping/quibmapping.h"
#include "parsers/mappinginterface.h"
#include "parsers/parserframework.h"
#include "server/authorization.h"

namespace fs = std::filesystem;

namespace tessard::fuzz {
namespace {

void print_line(int /*priority*/, const char* message) {
  if (getenv("TESSARD_FUZZ_LOG") != nullptr) fprintf(stderr, "%s\n", message);
}

std::string scratch;  // removed at a normal exit

void remove_scratch() {
  std::error_code ignored;
  fs::remove_all(scratch, ignored);
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

}  // namespace

void silence_log() {
  log_setSink(print_line);
}

std::string scratch_dir() {
  silence_log();
  const char* base = getenv("TMPDIR");
  scratch = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/tessard-fuzz.XXXXXX";
  if (mkdtemp(scratch.data()) == nullptr) {
    perror("mkdtemp");
    abort();
  }
  atexit(remove_scratch);
  std::string no_bus = "unix:path=" + scratch + "/no-bus";
  setenv("DBUS_SYSTEM_BUS_ADDRESS", no_bus.c_str(), 1);
  setenv("DBUS_SESSION_BUS_ADDRESS", no_bus.c_str(), 1);
  return scratch;
}

void start_parsers() {
  static bool started = false;
  if (started) return;
  started = true;
  silence_log();
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
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
  }
  fs::create_directories(dir + "/tmp", ignored);
  if (!started) {
    started = true;
    dyn_setScratchDir((dir + "/tmp").c_str());
    dyn_init((dir + "/usr/etc/sysconfig/template").c_str(),
             (dir + "/etc/sysconfig/template").c_str(), (dir + "/etc/dynamic/param").c_str(),
             (dir + "/etc/dynamic").c_str());
    start_parsers();
    init_installMapHooks();
    populateUserCache();
  }
  fs::create_directories(dir + "/etc/dynamic/param", ignored);
  map_init((dir + "/etc/tessard/tessard.conf").c_str());
  map_sync(0, 1);
}

}  // namespace tessard::fuzz
