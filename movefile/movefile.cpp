#include "movefile/movefile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/handles.h"
#include "base/log.h"

// Last, so that dirname and basename are the POSIX functions (basename may change its argument).
#include <libgen.h>

namespace {

constexpr const char* kSource = "movefile";
constexpr size_t kPathMax = 4096;
constexpr size_t kLinkStep = 80;
constexpr int kRetries = 5;
constexpr const char* kSafeMove = "safe_move_file";
constexpr int kNoName = -2;

// The temporary copy of safe_move_file: unlinked unless it was renamed into place.
class TempFile {
 public:
  explicit TempFile(char* path) : path_(path) {}
  ~TempFile() {
    if (path_) unlink(path_.get());
  }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  const char* path() const { return path_.get(); }
  void keep() { path_.reset(); }

 private:
  CString path_;
};

// A path cut at kPathMax characters, in a buffer that dirname and basename may change.
struct PathBuffer {
  explicit PathBuffer(const char* path) {
    strncpy(text, path, kPathMax);
    text[kPathMax] = '\0';
  }
  char text[kPathMax + 1];
};

char* copy_or_die(const char* text) {
  char* copy = strdup(text);
  if (copy == nullptr) log_fatal(kSource, "Out of memory!");
  return copy;
}

// The loop shared by read_fully and write_fully; TRANSFER moves bytes from offset DONE on.
template <typename Transfer>
int transfer_fully(int32_t count, bool stop_at_end, Transfer transfer) {
  if (count < 1) return 0;
  int32_t done = 0;
  int tries = kRetries;
  while (done < count) {
    ssize_t n = transfer(done);
    if (n < 0) {
      if ((errno == EAGAIN || errno == EBUSY) && --tries > 0) continue;
      return -1;
    }
    tries = kRetries;
    // A write that returns 0 just goes round again: Linux returns 0 from write only for a count
    // of 0, which this loop never asks for.
    if (n == 0 && stop_at_end) break;
    done += static_cast<int32_t>(n);
  }
  return done;
}

// /tmp/BASENAME.temp for the /tmp variant of open_param_temp_file: its descriptor, -1 when it
// cannot be created, kNoName (logged) when the base name cannot be taken.
int create_tmp_file_in_tmp(const char* target, char** tmp_path) {
  CString copy(strdup(target));
  if (!copy) {
    log_error(kSource, "%s: Could not extract filename: %s\n", "open_param_temp_file",
              "Out of memory!");
    return kNoName;
  }
  const char* base = basename(copy.get());
  if (base == nullptr) {
    log_error(kSource, "%s: Could not extract filename: %s\n", "open_param_temp_file",
              errno_text(errno));
    return kNoName;
  }
  return create_tmp_file("/tmp/", base, tmp_path);
}

// Owner, group and mode that the copy made by safe_move_file receives.
struct Placement {
  uid_t uid;
  gid_t gid;
  mode_t mode;
};

int copy_symlink(const char* source, const char* destination, const struct stat& src) {
  CString target(sreadlink(source));
  if (!target) return -1;
  if (symlink(target.get(), destination) != 0) {
    log_error(kSource, "%s Cannot create symlink `%s': %m", kSafeMove, destination);
    return -1;
  }
  if (lchown(destination, src.st_uid, src.st_gid) != 0) {
    log_error(kSource, "%s: Unable to preserve ownership of `%s': %m", kSafeMove, destination);
  }
  return 0;
}

// The refusals for a destination that exists already.
bool destination_accepts(const char* source, const char* destination, const struct stat& src,
                         const struct stat& dst) {
  if (S_ISLNK(src.st_mode)) {
    log_error(kSource, "%s: Cannot create symlink, destination exists!", kSafeMove);
    return false;
  }
  if (S_ISDIR(dst.st_mode) && !S_ISDIR(src.st_mode)) {
    log_error(kSource, "%s: Cannot overwrite directory with non-directory", kSafeMove);
    return false;
  }
  if (!S_ISDIR(dst.st_mode) && S_ISDIR(src.st_mode)) {
    log_error(kSource, "%s: Cannot overwrite non-directory with directory", kSafeMove);
    return false;
  }
  if (src.st_dev == dst.st_dev && src.st_ino == dst.st_ino) {
    log_error(kSource, "%s: `%s' and `%s' are the same file", kSafeMove, source, destination);
    return false;
  }
  return true;
}

int copy_contents(int in, int out) {
  long page = sysconf(_SC_PAGESIZE);
  auto size = static_cast<int32_t>(page > 0 ? page : 4096);
  CString buf(static_cast<char*>(malloc(size)));
  if (!buf) {
    log_error(kSource, "%s: Out of memory!", kSafeMove);
    return -2;
  }
  // A failure that sets no error of its own is reported as this one.
  errno = EINVAL;
  for (;;) {
    int n = read_fully(in, buf.get(), size);
    if (n == 0) return 0;
    if (n < 0 || write_fully(out, buf.get(), n) < 0) return -1;
  }
}

void apply_placement(int fd, const char* destination, Placement place) {
  if (fchown(fd, place.uid, place.gid) != 0) {
    place.mode &= ~static_cast<mode_t>(06000);
    log_error(kSource, "%s: Unable to preserve ownership of `%s': %m", kSafeMove, destination);
  }
  if (fchmod(fd, place.mode & 07777) != 0) {
    log_error(kSource, "%s: Unable to preserve permissions of `%s': %m", kSafeMove, destination);
  }
}

// Copies the regular file SOURCE into DESTINATION.temp, renames that over DESTINATION, then
// removes SOURCE.
int copy_regular(const char* source, const char* destination, const struct stat& src,
                 Placement place) {
  if (!S_ISREG(src.st_mode)) {
    log_error(kSource, "%s: File '%s' has invalid type!", kSafeMove, source);
    return -1;
  }
  UniqueFd in(open(source, O_RDONLY));
  if (in.get() < 0) {
    log_error(kSource, "%s: Failed to open source file '%s': %m", kSafeMove, source);
    return -1;
  }
  char* raw_path = nullptr;
  UniqueFd out(create_tmp_file_for(destination, &raw_path));
  if (out.get() < 0) {
    log_error(kSource, "%s: Failed to create temporary file for '%s'", kSafeMove, destination);
    return -1;
  }
  TempFile tmp(raw_path);
  int copied = copy_contents(in.get(), out.get());
  if (copied == -1) {
    log_error(kSource, "%s: Failed to copy '%s' to '%s': %m", kSafeMove, source, tmp.path());
  }
  if (copied != 0) return -1;
  in.reset();
  apply_placement(out.get(), destination, place);
  if (fsync(out.get()) != 0) {
    log_error(kSource, "%s: Failed to sync file '%s': %m", kSafeMove, tmp.path());
    return -1;
  }
  if (close(out.release()) != 0) {
    log_error(kSource, "%s: Failed to close output filedescriptor: %m", kSafeMove);
    return -1;
  }
  if (rename(tmp.path(), destination) != 0) {
    log_error(kSource, "%s: Failed to rename '%s' to '%s': %m", kSafeMove, tmp.path(), destination);
    return -1;
  }
  tmp.keep();
  return 0;
}

// The steps after the copy is in place: the source's times, the directory sync, the source's
// removal. Ownership and mode came from an existing destination, times always from the source.
int finish_move(const char* source, const char* destination, const struct stat& src) {
  struct utimbuf times {};
  times.actime = src.st_atime;
  times.modtime = src.st_mtime;
  if (utime(destination, &times) != 0) {
    log_error(kSource, "%s: Unable to preserve times of `%s': %m", kSafeMove, destination);
  }
  sync_directory_of(destination);
  if (remove(source) != 0) {
    log_error(kSource, "%s: Failed to remove '%s': %m", kSafeMove, source);
    return -1;
  }
  return 0;
}

}  // namespace

int create_tmp_file(const char* dir, const char* name, char** tmp_path) {
  static constexpr const char* kFn = "create_tmp_file";
  if (dir == nullptr || name == nullptr) return -1;
  std::string_view trimmed(dir);
  while (!trimmed.empty() && trimmed.back() == '/') trimmed.remove_suffix(1);
  size_t size = trimmed.size() + strlen(name) + 7;
  CString path(static_cast<char*>(malloc(size)));
  if (!path) log_fatal(kSource, "Out of memory in create_tmp_file!");
  snprintf(path.get(), size, "%.*s/%s.temp", static_cast<int>(trimmed.size()), trimmed.data(),
           name);
  if (unlink(path.get()) == 0) {
    log_warning(kSource, "%s, Deleted stray temporary file '%s'", kFn, path.get());
  } else if (errno != ENOENT) {
    log_error(kSource, "%s, Could not clean up old temporary file '%s': %s", kFn, path.get(),
              errno_text(errno));
    return -1;
  }
  int fd = open(path.get(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) {
    log_error(kSource, "%s: Couldn't create temporary file '%s'! %m\n", kFn, path.get());
    return -1;
  }
  if (tmp_path != nullptr) *tmp_path = path.release();
  return fd;
}

int create_tmp_file_for(const char* target, char** tmp_path) {
  if (target == nullptr) return -1;
  PathBuffer for_dir(target);
  CString dir(copy_or_die(dirname(for_dir.text)));
  PathBuffer for_base(target);
  CString base(copy_or_die(basename(for_base.text)));
  char* raw_path = nullptr;
  int fd = create_tmp_file(dir.get(), base.get(), &raw_path);
  CString path(raw_path);
  if (fd >= 0 && tmp_path != nullptr) *tmp_path = path.release();
  return fd;
}

void sync_directory_of(const char* path) {
  static constexpr const char* kFn = "sync_directory_of";
  if (path == nullptr) return;
  PathBuffer buf(path);
  const char* dir = dirname(buf.text);
  UniqueFd fd(open(dir, O_RDONLY));
  if (fd.get() < 0) {
    log_error(kSource, "%s: unable to open dir %s: %s", kFn, dir, errno_text(errno));
    return;
  }
  if (fsync(fd.get()) != 0) {
    log_error(kSource, "%s: unable to fsync dir %s: %s", kFn, dir, errno_text(errno));
  }
}

int read_fully(int fd, void* buf, int32_t count) {
  auto* bytes = static_cast<char*>(buf);
  return transfer_fully(count, true,
                        [&](int32_t done) { return read(fd, bytes + done, count - done); });
}

int write_fully(int fd, const void* buf, int32_t count) {
  const auto* bytes = static_cast<const char*>(buf);
  return transfer_fully(count, false,
                        [&](int32_t done) { return write(fd, bytes + done, count - done); });
}

char* sreadlink(const char* path) {
  size_t size = kLinkStep;
  CString buf(static_cast<char*>(malloc(size)));
  for (;;) {
    if (!buf) log_fatal(kSource, "sreadlink: Out of memory!");
    ssize_t n = readlink(path, buf.get(), size);
    if (n < 0) {
      log_error(kSource, "sreadlink, readlink '%s' failed: %m", path);
      return nullptr;
    }
    if (static_cast<size_t>(n) < size) {
      buf.get()[n] = '\0';
      return buf.release();
    }
    size += kLinkStep;
    char* grown = static_cast<char*>(realloc(buf.get(), size));
    if (grown == nullptr) log_fatal(kSource, "sreadlink: Out of memory!");
    static_cast<void>(buf.release());  // realloc has taken the old block over
    buf.reset(grown);
  }
}

int safe_close_file(FILE** stream, const char* name) {
  static constexpr const char* kFn = "safe_close_file";
  if (stream == nullptr || *stream == nullptr) return -1;
  const char* shown = name != nullptr ? name : "file";
  int result = 0;
  if (fflush(*stream) != 0 || fsync(fileno(*stream)) != 0) {
    log_error(kSource, "%s: Failed to flush/sync '%s': %s", kFn, shown, errno_text(errno));
    result = -1;
  }
  // The stream is gone even when fclose fails; the caller's pointer is left as it was all the same,
  // so that a caller can tell a failed close from a completed one.
  if (fclose(*stream) != 0) {
    log_error(kSource, "%s: Failed to close '%s': %s", kFn, shown, errno_text(errno));
    return -1;
  }
  *stream = nullptr;
  return result;
}

FILE* open_param_temp_file(const char* target, char** tmp_path, int use_tmp) {
  static constexpr const char* kFn = "open_param_temp_file";
  if (target == nullptr) return nullptr;
  char* raw_path = nullptr;
  int raw_fd = use_tmp == 0 ? create_tmp_file_for(target, &raw_path)
                            : create_tmp_file_in_tmp(target, &raw_path);
  if (raw_fd == kNoName) return nullptr;
  CString path(raw_path);
  UniqueFd fd(raw_fd);
  if (fd.get() < 0 || !path) {
    log_error(kSource, "%s: Failed to open tmp file in directory of '%s'!\n", kFn,
              use_tmp == 0 ? target : "/tmp/");
    return nullptr;
  }
  FILE* stream = fdopen(fd.get(), "w+");
  if (stream == nullptr) {
    log_error(kSource, "%s: Failed to open temporary file for '%s': %s\n", kFn, target,
              errno_text(errno));
    unlink(path.get());
    return nullptr;
  }
  fd.release();
  if (tmp_path != nullptr) *tmp_path = path.release();
  return stream;
}

int move_file(const char* source, const char* destination) {
  if (source == nullptr || destination == nullptr) return -1;
  struct stat st {};
  if (stat(destination, &st) != 0 && errno != ENOENT) {
    log_error(kSource, "move_file, unable to stat '%s': %m", destination);
    return -1;
  }
  if (rename(source, destination) == 0) {
    sync_directory_of(destination);
    return 0;
  }
  if (errno != EXDEV) {
    log_error(kSource, "move_file, unable to rename '%s' to '%s': %m", source, destination);
    return -1;
  }
  return safe_move_file(source, destination);
}

int safe_move_file(const char* source, const char* destination) {
  if (source == nullptr || destination == nullptr) return -1;
  struct stat src {};
  if (lstat(source, &src) != 0) {
    log_error(kSource, "%s: Unable to stat source'%s': %m", kSafeMove, source);
    return -1;
  }
  struct stat dst {};
  Placement place{src.st_uid, src.st_gid, src.st_mode};
  if (stat(destination, &dst) == 0) {
    if (!destination_accepts(source, destination, src, dst)) return -1;
    place = Placement{dst.st_uid, dst.st_gid, dst.st_mode};
  } else if (errno != ENOENT) {
    log_error(kSource, "%s: Unable to stat destination '%s': %m", kSafeMove, destination);
    return -1;
  } else if (S_ISLNK(src.st_mode)) {
    // The source link stays where it is: nothing is copied, synced or removed.
    return copy_symlink(source, destination, src);
  }
  if (copy_regular(source, destination, src, place) != 0) return -1;
  return finish_move(source, destination, src);
}
