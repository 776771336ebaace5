#include "init/init.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "base/handles.h"
#include "base/log.h"
#include "dynamic/dynamic.h"
#include "mapping/quibmapping.h"
#include "parsers/mappinginterface.h"
#include "parsers/parserframework.h"
#include "parsers/quibconfigparser.h"
#include "server/authorization.h"
#include "server/server.h"

namespace {

constexpr int kMaxConfigDirs = 10;

struct Options {
  const char* config_file = nullptr;
  int port = 0;
  const char* config_dirs[kMaxConfigDirs] = {};
  int config_dir_count = 0;
  bool print_before_sync = false;
  bool print_after_sync = false;
  bool daemonize = false;
  bool block_dbus_on_start = false;
  bool upgrade = false;
  bool case_sensitive = false;
};

// The handlers only hand the signal to the server loop, which acts on it between requests.
void install_signal_handlers() {
  if (server_openSignalRelay() != 0) log_fatal("init", "Couldn't create the signal pipe: %m");
  struct sigaction relay {};
  relay.sa_handler = server_relaySignal;
  relay.sa_flags = SA_RESTART;
  sigemptyset(&relay.sa_mask);
  sigaction(SIGINT, &relay, nullptr);
  sigaction(SIGTERM, &relay, nullptr);
  signal(SIGPIPE, SIG_IGN);
  sigaction(SIGUSR1, &relay, nullptr);
}

// SIGINT, SIGTERM: exit(0) runs the exit handler, which removes the pid file.
void terminate() {
  exit(0);
}

void reload_users() {
  log_info("init", "Got SIGUSR1, reinitializing authorization data.\n");
  populateUserCache();
}

void remove_pid_file() {
  if (unlink(kPidFilePath) != 0 && errno != ENOENT) {
    log_error("init", "Failed removing '%s': %m", kPidFilePath);
  }
}

bool is_d_option(const char* arg) {
  return arg[0] == '-' && arg[1] == 'd' && arg[2] == '\0';
}

void add_config_dir(Options* options, const char* dir) {
  if (options->config_dir_count >= kMaxConfigDirs) {
    puts("To many -d parameters");
    log_error("init", "To many -d parameters");
    return;
  }
  options->config_dirs[options->config_dir_count++] = dir;
}

// Options are compared whole; anything unknown is skipped without a message.
void read_options(int argc, char** argv, Options* options) {
  options->config_file = argv[1];
  options->port = static_cast<int>(strtol(argv[2], nullptr, 10));
  for (int i = 3; i < argc; i++) {
    const char* arg = argv[i];
    if (is_d_option(arg)) {
      // The argument after -d is always consumed; a trailing -d has no directory to add.
      if (++i < argc) add_config_dir(options, argv[i]);
    } else if (strcmp(arg, "-daemon") == 0) {
      options->daemonize = true;
    } else if (strcmp(arg, "-upgrade") == 0) {
      options->upgrade = true;
    } else if (strcmp(arg, "-casesensitive") == 0) {
      options->case_sensitive = true;
    } else if (strcmp(arg, "-print0") == 0) {
      options->print_before_sync = true;
    } else if (strcmp(arg, "-print1") == 0) {
      options->print_after_sync = true;
    } else if (strcmp(arg, "-blockdbusonstart") == 0) {
      options->block_dbus_on_start = true;
    }
  }
}

// Another instance is running when the pid file names a live process other than ourselves.
// Only ESRCH from kill() proves the process gone; EPERM counts as alive.
void refuse_second_instance() {
  int pid = 0;
  {
    UniqueFile file(fopen(kPidFilePath, "r"));
    if (!file) return;
    if (fscanf(file.get(), "%d", &pid) != 1) return;
  }
  if (pid == 0 || pid == getpid()) return;
  if (kill(pid, 0) == 0 || errno != ESRCH) {
    log_info("init", "Already running");
    exit(1);
  }
}

// Writes our pid at the start of the file under a short flock. The file is not truncated: a
// shorter pid leaves the old tail in place.
bool write_locked_pid(FILE* file, int fd) {
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    int holder = 0;
    if (fscanf(file, "%d", &holder) != 1) holder = 0;
    log_error("init", "Can't lock, lock is held by pid %d.", holder);
    return false;
  }
  bool written = true;
  if (fprintf(file, "%d\n", static_cast<int>(getpid())) == 0) {
    log_error("init", "Can't write pid: %m\n");
    written = false;
  }
  fflush(file);
  if (flock(fd, LOCK_UN) != 0) {
    log_error("init", "Can't unlock pidfile %s: %m\n", kPidFilePath);
    written = false;
  }
  return written;
}

void write_pid_file() {
  int fd = open(kPidFilePath, O_RDWR | O_CREAT, 0644);
  FILE* file = fd >= 0 ? fdopen(fd, "r+") : nullptr;
  if (file == nullptr) {
    if (fd >= 0) close(fd);
    log_error("init", "Can't open or create '%s'.", kPidFilePath);
    log_fatal("init", "Could not write pid.");
  }
  bool written = write_locked_pid(file, fd);
  fclose(file);
  if (!written) log_fatal("init", "Could not write pid.");
}

constexpr size_t kConfigPathMax = 511;

// The path of a directory entry as the loader forms it, cut to kConfigPathMax characters.
std::string config_entry_path(const char* dir, const char* name) {
  if (strcmp(dir, ".") == 0) return std::string(name).substr(0, kConfigPathMax);
  std::string path = std::string(dir).substr(0, kConfigPathMax);
  if (path.empty() || path.back() != '/') path += '/';
  path += name;
  return path.substr(0, kConfigPathMax);
}

// Reads every file in dir and below it as an extra configuration file, in readdir order.
void load_config_dir(const char* dir) {
  if (dir == nullptr) return;
  UniqueDir handle(opendir(dir));
  if (!handle) {
    log_error("init", "Failed to opendir(%s)", dir);
    return;
  }
  while (const dirent* entry = readdir(handle.get())) {
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    std::string path = config_entry_path(dir, entry->d_name);
    struct stat status;
    if (lstat(path.c_str(), &status) != 0) {
      int error = errno;
      perror(path.c_str());
      log_error("init", "Failed to stat/lstat %s. %s", path.c_str(), errno_text(error));
      continue;
    }
    // The loose test lets symbolic links pass as files, deliberately.
    if ((status.st_mode & 0xD000) == 0x8000) {
      config_parseFile(path.c_str(), 1);
    } else if (S_ISDIR(status.st_mode)) {
      load_config_dir(path.c_str());
    }
  }
}

// Steps that fill the parameter tree; false when start-up must end.
bool load_parameters(const Options& options) {
  if (map_init(options.config_file) != 0) {
    log_error("init", "Error initializing the Mapping Database.");  // a partial tree still serves
  }
  for (int i = 0; i < options.config_dir_count; i++) load_config_dir(options.config_dirs[i]);
  if (options.print_before_sync) map_printTree(nullptr);
  if (map_sync(0, options.block_dbus_on_start) != 0) {
    log_error("init", "Error reading parameter files.");
    return false;
  }
  return true;
}

// A parse that failed part-way leaves no half-entered section behind for the next file.
int sync_backing_file(Param* param, const char* groupPath, int readonly) {
  if (parser_invokeForParam(param, groupPath, readonly) == 0) return 0;
  mif_reset();
  return 1;
}

}  // namespace

void init_installMapHooks() {
  MapHooks hooks;
  hooks.parseConfig = config_parseFile;
  hooks.syncBackingFile = sync_backing_file;
  hooks.syncDynamic = dyn_sync;
  map_setHooks(hooks);
}

int tessard_main(int argc, char** argv) {
  install_signal_handlers();
  log_open();
  log_info("init", "Starting.");
  if (argc < 3) {
    log_error("init",
              "Usage: tessard <configfile> <port> [-d <dir>] [-d <dir2>] [-daemon] [-upgrade] "
              "[-casesensitive] [-print0] [-print1][-blockdbusonstart]");
    return 255;
  }
  Options options;
  read_options(argc, argv, &options);
  upgradeMode = options.upgrade;
  caseSensitive = options.case_sensitive;
  refuse_second_instance();

  int listen_fd = create_listen_socket(options.port);
  if (listen_fd < 0) {
    log_error("init", "Failed creating listen socket: %m");
    return -1;
  }
  atexit(remove_pid_file);
  if (options.daemonize && daemon(0, 0) != 0) {
    log_error("init", "Error daemonizing process.");
    close(listen_fd);
    return -1;
  }
  umask(022);
  write_pid_file();
  dyn_setScratchDir("/tmp");
  if (dyn_init("/usr/etc/sysconfig/template", "/etc/sysconfig/template", "/etc/dynamic/param",
               "/etc/dynamic") < 0) {
    log_error("init", "Initialization of the dynamic directories failed.");
    close(listen_fd);
    return -1;
  }

  if (parser_init() != 0) {
    log_error("init", "Error initializing the Parser Framework.");
    close(listen_fd);
    return -1;
  }
  if (mif_init() != 0) {
    log_error("init", "Error initializing the Mapping Interface.");
    close(listen_fd);
    return -1;
  }
  init_installMapHooks();
  if (!load_parameters(options)) {
    close(listen_fd);
    return -1;
  }
  if (populateUserCache() < 0) {
    log_error("init", "Failed to initialize authorization.");
    return -1;
  }
  if (options.print_after_sync) map_printTree(nullptr);

  log_info("init", "Starting server.");
  handleClientConnections(listen_fd, ServerHooks{reload_users, terminate});
}
