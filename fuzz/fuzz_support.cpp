#include "fuzz/fuzz_support.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>

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

// The example device's files in `dir`/example, with their absolute paths moved below `dir` and
// without the lines that would run programs or send D-Bus messages.
void copy_example(const std::string& dir) {
  std::string command = "cp -r '" TESSARD_EXAMPLE_DIR "' '" + dir + "/example' && find '" + dir +
                        "/example' -type f -exec sed -i -e '/setter\\|getter\\|dbus/d' -e "
                        "'s|\"/etc/|\"" +
                        dir + "/etc/|g' {} +";
  if (system(command.c_str()) != 0) {
    fprintf(stderr, "Cannot copy the example device from %s\n", TESSARD_EXAMPLE_DIR);
    abort();
  }
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
  static bool started = false;
  if (!started) copy_example(dir);
  std::error_code ignored;
  fs::remove_all(dir + "/etc", ignored);
  fs::remove_all(dir + "/tmp", ignored);
  fs::copy(dir + "/example", dir,
           fs::copy_options::recursive | fs::copy_options::overwrite_existing, ignored);
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
