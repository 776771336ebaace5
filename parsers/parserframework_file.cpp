// Running a parser over a backing file: the file is found (a symbolic link stands for its
// target), created when missing, locked, read whole and handed to the parser; in write mode the
// parser's output replaces the file through a temporary file beside it.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "base/handles.h"
#include "base/log.h"
#include "mapping/quibmapping.h"
#include "movefile/movefile.h"
#include "parsers/parserframework.h"

namespace {

constexpr const char* kSource = "parserframework";

// The temporary file of a write-mode run. Removed unless it was moved into place.
class TempFile {
 public:
  TempFile() = default;
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
  ~TempFile() {
    if (stream_ != nullptr) {
      fclose(stream_);
    }
    if (path_ != nullptr && !moved_) {
      unlink(path_.get());
    }
  }
  bool open(const char* target) {
    char* path = nullptr;
    stream_ = open_param_temp_file(target, &path, 0);
    path_.reset(path);
    if (stream_ != nullptr) {
      // The whole text goes out in one write: no stream buffer (and no probe of the file for one).
      setvbuf(stream_, nullptr, _IONBF, 0);
    }
    return stream_ != nullptr && path_ != nullptr;
  }
  FILE* stream() const { return stream_; }
  const char* path() const { return path_.get(); }
  // Flushes, syncs and closes the stream, which is gone afterwards whatever the result.
  bool close(const char* target) {
    FILE* stream = stream_;
    stream_ = nullptr;
    return safe_close_file(&stream, target) == 0;
  }
  void set_moved() { moved_ = true; }

 private:
  FILE* stream_ = nullptr;
  CString path_;
  bool moved_ = false;
};

struct SavedAttributes {
  mode_t mode;
  uid_t uid;
  gid_t gid;
};

const ParserEntry* parser_of_param(Param* param) {
  Option* option = map_getParamOption(param, "parser");
  const char* name = option != nullptr ? option->value : nullptr;
  const ParserEntry* entry = parser_find(name);
  if (entry == nullptr) {
    log_error(kSource, "Specified parser (%s) for '%s' doesn't exist!",
              name != nullptr ? name : "<unknown>", param->path);
  }
  return entry;
}

// The file to read and replace: a symbolic link stands for its target (a relative target is
// taken from the link's directory). False after a logged failure.
bool resolve_backing_path(const char* path, std::string* resolved) {
  struct stat st;
  *resolved = path;
  if (lstat(path, &st) != 0) {
    if (errno == ENOENT) {
      return true;
    }
    log_error(kSource, "%s: Unable to stat source'%s': %m", "parser_invokeForParam", path);
    return false;
  }
  if (!S_ISLNK(st.st_mode)) {
    return true;
  }
  CString target(sreadlink(path));
  if (target == nullptr) {
    return false;
  }
  std::string_view link(path);
  size_t slash = link.rfind('/');
  if (target.get()[0] == '/' || slash == std::string_view::npos) {
    *resolved = target.get();
  } else {
    *resolved = std::string(link.substr(0, slash + 1)) + target.get();
  }
  return true;
}

// Opens the backing file for reading, creating it empty when it is missing. -1 after a logged
// failure.
int open_backing_file(const char* path) {
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0 && errno == ENOENT) {
    UniqueFd created(open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
    if (created.get() < 0) {
      log_error(kSource, "Couldn't create missing file '%s'!: %m", path);
      return -1;
    }
    fd = open(path, O_RDONLY | O_CLOEXEC);
  }
  if (fd < 0) {
    log_error(kSource, "Couldn't open file '%s' for input!: %m", path);
  }
  return fd;
}

// Opens and locks the backing file and gives its status in `locked`. A writer that held the lock
// may have replaced the file meanwhile; then the lock is on a file no longer at the path, and the
// new one is taken. -1 after a logged failure.
int open_locked(const char* path, struct stat* locked) {
  for (;;) {
    UniqueFd fd(open_backing_file(path));
    if (fd.get() < 0) {
      return -1;
    }
    if (flock(fd.get(), LOCK_EX) != 0) {
      log_error(kSource, "Failed to lock file %s: %m\n", path);
      return -1;
    }
    struct stat current;
    if (fstat(fd.get(), locked) == 0 && stat(path, &current) == 0 &&
        locked->st_dev == current.st_dev && locked->st_ino == current.st_ino) {
      return fd.release();
    }
  }
}

// A file's bytes as read, in a buffer that is not cleared first.
struct FileText {
  std::unique_ptr<char[]> bytes;
  size_t size = 0;
  std::string_view view() const { return {bytes.get(), size}; }
};

// Reads straight into a buffer sized by the file's length (`st`); a file that grows meanwhile is
// read on to its end all the same.
bool read_whole_file(int fd, const struct stat& st, const char* path, FileText* text) {
  size_t capacity = st.st_size > 0 ? static_cast<size_t>(st.st_size) : 0;
  capacity += 1;  // room to see the end without growing
  text->bytes = std::make_unique_for_overwrite<char[]>(capacity);
  text->size = 0;
  for (;;) {
    if (text->size == capacity) {
      auto grown = std::make_unique_for_overwrite<char[]>(2 * capacity);
      memcpy(grown.get(), text->bytes.get(), text->size);
      text->bytes = std::move(grown);
      capacity *= 2;
    }
    ssize_t n = read(fd, text->bytes.get() + text->size, capacity - text->size);
    if (n == 0) {
      return true;
    }
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n < 0) {
      log_error(kSource, "Couldn't read file '%s': %m", path);
      return false;
    }
    text->size += static_cast<size_t>(n);
  }
}

// The temporary file takes the locked file's mode, owner and group (`st`) when it is written.
bool prepare_write(const struct stat& st, const char* path, TempFile* temp,
                   SavedAttributes* saved) {
  if (!temp->open(path)) {
    log_error(kSource, "Couldn't create temporary file for '%s'!", path);
    return false;
  }
  *saved = SavedAttributes{st.st_mode & 07777, st.st_uid, st.st_gid};
  return true;
}

void apply_attributes(TempFile* temp, const SavedAttributes& saved) {
  if (saved.mode == 0) {
    return;
  }
  int fd = fileno(temp->stream());
  if (fchmod(fd, saved.mode) != 0) {
    log_error(kSource, "Couldn't set file permissions %o on %s: %s", saved.mode, temp->path(),
              errno_text(errno));
  }
  if (fchown(fd, saved.uid, saved.gid) != 0) {
    log_error(kSource, "Couldn't set file ownership %u:%u on %s: %s", saved.uid, saved.gid,
              temp->path(), errno_text(errno));
  }
}

// Puts the rewritten text in place of the backing file through its temporary file.
bool write_back(const char* path, TempFile* temp, const SavedAttributes& saved,
                const std::string& text) {
  if (fwrite(text.data(), 1, text.size(), temp->stream()) != text.size()) {
    log_error(kSource, "Couldn't write temporary file %s: %m", temp->path());
    return false;
  }
  apply_attributes(temp, saved);
  if (!temp->close(path)) {
    return false;
  }
  if (move_file(temp->path(), path) != 0) {
    log_error(kSource, "Couldn't rename temporary file %s to %s: %s", temp->path(), path,
              errno_text(errno));
    return false;
  }
  temp->set_moved();
  log_info(kSource, "Updated configuration file %s.", path);
  return true;
}

// What a parser's file can hold in one value.
struct ValueLimit {
  const char* parser;
  bool line_break;    // a value may hold CR and LF
  size_t max_length;  // 0 for no limit
};

constexpr ValueLimit kValueLimits[] = {
    {"Resolvparser", false, 0},      {"SinglevalueParser", false, 0},
    {"Camsettingsparser", false, 0}, {"ShellParser", true, kTokenValueMax},
    {"Standardparser", true, 0},     {"Standard2parser", true, 0},
};

}  // namespace

bool parser_canHoldValue(Param* param, std::string_view text) {
  Option* option = map_getParamOption(param, "parser");
  if (option == nullptr || option->value == nullptr) {
    return true;
  }
  for (const ValueLimit& limit : kValueLimits) {
    if (strcmp(limit.parser, option->value) != 0) {
      continue;
    }
    if (!limit.line_break && text.find_first_of("\r\n") != std::string_view::npos) {
      return false;
    }
    return limit.max_length == 0 || text.size() <= limit.max_length;
  }
  return true;
}

int parser_invokeForParam(Param* param, const char* group_path, int readonly) {
  const ParserEntry* entry = parser_of_param(param);
  if (entry == nullptr) {
    return 1;
  }
  Option* file = map_getParamOption(param, "file");
  if (file == nullptr || file->value == nullptr) {
    return 1;
  }
  std::string path;
  if (!resolve_backing_path(file->value, &path)) {
    return 1;
  }
  struct stat st;
  UniqueFd input(open_locked(path.c_str(), &st));
  if (input.get() < 0) {
    return 1;
  }
  FileText text;
  if (!read_whole_file(input.get(), st, path.c_str(), &text)) {
    return 1;
  }
  TempFile temp;
  SavedAttributes saved{};
  if (readonly == 0 && !prepare_write(st, path.c_str(), &temp, &saved)) {
    return 1;
  }
  std::string output;
  int result =
      parser_runOnText(entry->parse, text.view(), path.c_str(), group_path, readonly, &output);
  if (readonly != 0) {
    return result;
  }
  if (result != 0 || parser_lastInputMalformed()) {
    log_error(kSource, "File %s does not parse cleanly, not rewritten.", path.c_str());
    return 1;
  }
  // The lock is held until the new file is in place: a writer waiting for it then finds the
  // new file (open_locked), never the one this rename takes away.
  return write_back(path.c_str(), &temp, saved, output) ? result : 1;
}
