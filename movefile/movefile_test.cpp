#include "movefile/movefile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "base/handles.h"

namespace {

struct Owner {
  uid_t uid;
  gid_t gid;
  mode_t mode;
};

constexpr time_t kOldTime = 1000000000;

std::string read_text(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

void make_file(const std::string& path, const std::string& text, Owner owner) {
  std::ofstream(path) << text;
  ASSERT_EQ(chown(path.c_str(), owner.uid, owner.gid), 0) << path;
  ASSERT_EQ(chmod(path.c_str(), owner.mode), 0) << path;
}

struct stat lstat_of(const std::string& path) {
  struct stat st {};
  EXPECT_EQ(lstat(path.c_str(), &st), 0) << path << ": " << strerror(errno);
  return st;
}

bool exists(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0;
}

void expect_owner(const std::string& path, Owner owner) {
  struct stat st = lstat_of(path);
  EXPECT_EQ(st.st_uid, owner.uid) << path;
  EXPECT_EQ(st.st_gid, owner.gid) << path;
  EXPECT_EQ(st.st_mode & 07777, owner.mode) << path;
}

class MoveFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string name = std::string(TESSARD_TEST_DIR) + "/movefile.XXXXXX";
    ASSERT_NE(mkdtemp(name.data()), nullptr) << strerror(errno);
    root_ = name;
  }
  void TearDown() override {
    for (const std::string& mount_point : mounts_) umount2(mount_point.c_str(), MNT_DETACH);
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }

  // Moves this process into a private mount namespace. Needs root; the test fails if it cannot.
  static void enter_mount_namespace() {
    ASSERT_EQ(unshare(CLONE_NEWNS), 0) << "cannot make a mount namespace: " << strerror(errno);
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0) << strerror(errno);
  }

  // Mounts a fresh tmpfs on DIR (inside the private namespace), so that renames into it fail
  // with EXDEV.
  void mount_tmpfs(const std::string& dir) {
    mkdir(dir.c_str(), 0755);
    // A test directory below DIR (a build tree in /tmp) is bound back at its own path.
    bool hides_root = root_.compare(0, dir.size() + 1, dir + "/") == 0;
    int kept = hides_root ? open(root_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC) : -1;
    ASSERT_EQ(mount("tmpfs", dir.c_str(), "tmpfs", 0, "mode=0755"), 0) << strerror(errno);
    mounts_.insert(mounts_.begin(), dir);
    if (hides_root) {
      std::string make = "mkdir -p '" + root_ + "'";
      std::string source = "/proc/self/fd/" + std::to_string(kept);
      ASSERT_EQ(system(make.c_str()), 0);
      ASSERT_EQ(mount(source.c_str(), root_.c_str(), nullptr, MS_BIND | MS_REC, nullptr), 0)
          << strerror(errno);
      close(kept);
    }
  }

  std::string root_;
  std::vector<std::string> mounts_;
};

TEST_F(MoveFileTest, CreateTmpFileTrimsSlashesAndDeletesStrayFile) {
  for (const char* suffix : {"", "/", "///"}) {
    SCOPED_TRACE(suffix);
    std::string expected = root_ + "/x.temp";
    std::ofstream(expected) << "left over";
    char* path = nullptr;
    int fd = create_tmp_file((root_ + suffix).c_str(), "x", &path);
    ASSERT_GE(fd, 0);
    close(fd);
    EXPECT_STREQ(path, expected.c_str());
    free(path);
    EXPECT_EQ(lstat_of(expected).st_size, 0);
    EXPECT_EQ(lstat_of(expected).st_mode & 0077, 0u);
  }
}

TEST_F(MoveFileTest, CreateTmpFileFailsOnStrayDirectory) {
  ASSERT_EQ(mkdir((root_ + "/x.temp").c_str(), 0755), 0);
  char* path = nullptr;
  EXPECT_EQ(create_tmp_file(root_.c_str(), "x", &path), -1);
  EXPECT_EQ(path, nullptr);
  EXPECT_EQ(create_tmp_file(nullptr, "x", &path), -1);
  EXPECT_EQ(create_tmp_file_for(nullptr, &path), -1);
}

TEST_F(MoveFileTest, OpenParamTempFileWritesBesideTargetAndNullsAreRefused) {
  std::string target = root_ + "/param.conf";
  std::ofstream(target) << "old";
  char* path = nullptr;
  FILE* stream = open_param_temp_file(target.c_str(), &path, 0);
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(std::string(path), target + ".temp");
  fputs("new content\n", stream);
  ASSERT_EQ(safe_close_file(&stream, target.c_str()), 0);
  EXPECT_EQ(stream, nullptr);
  ASSERT_EQ(move_file(path, target.c_str()), 0);
  free(path);
  EXPECT_EQ(read_text(target), "new content\n");
  EXPECT_FALSE(exists(target + ".temp"));
  EXPECT_EQ(open_param_temp_file(nullptr, &path, 0), nullptr);
  EXPECT_EQ(safe_close_file(nullptr, "x"), -1);
  FILE* none = nullptr;
  EXPECT_EQ(safe_close_file(&none, nullptr), -1);
}

TEST_F(MoveFileTest, ReadAndWriteFullyHandleEndOfFileAndRepeatedEagain) {
  int fds[2];
  ASSERT_EQ(pipe2(fds, O_NONBLOCK), 0);
  char buf[128] = {};
  EXPECT_EQ(read_fully(fds[0], buf, sizeof buf), -1) << "empty pipe must give up after EAGAIN";
  EXPECT_EQ(write_fully(fds[1], "0123456789", 10), 10);
  EXPECT_EQ(write_fully(fds[1], "x", 0), 0);
  close(fds[1]);
  EXPECT_EQ(read_fully(fds[0], buf, sizeof buf), 10);
  EXPECT_EQ(std::string(buf, 10), "0123456789");
  EXPECT_EQ(read_fully(fds[0], buf, sizeof buf), 0);
  close(fds[0]);

  ASSERT_EQ(pipe2(fds, O_NONBLOCK), 0);
  std::string big(1 << 20, 'a');
  EXPECT_EQ(write_fully(fds[1], big.data(), static_cast<int32_t>(big.size())), -1)
      << "a full pipe must give up after EAGAIN";
  close(fds[0]);
  close(fds[1]);
}

TEST_F(MoveFileTest, SreadlinkReadsTargetsAroundBufferSteps) {
  for (size_t length : {1, 79, 80, 81, 159, 160, 161, 500}) {
    SCOPED_TRACE(length);
    std::string target(length, 't');
    std::string link = root_ + "/link" + std::to_string(length);
    ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
    char* text = sreadlink(link.c_str());
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(std::string(text), target);
    free(text);
  }
  EXPECT_EQ(sreadlink((root_ + "/missing").c_str()), nullptr);
}

TEST_F(MoveFileTest, RenameWithinFileSystemTakesSourceAsItIs) {
  std::string source = root_ + "/new";
  std::string destination = root_ + "/old";
  make_file(source, "fresh", {0, 0, 0600});
  make_file(destination, "stale", {1234, 5678, 0644});
  ASSERT_EQ(move_file(source.c_str(), destination.c_str()), 0);
  EXPECT_EQ(read_text(destination), "fresh");
  expect_owner(destination, {0, 0, 0600});
  EXPECT_FALSE(exists(source));
}

class CrossFsMoveTest : public MoveFileTest {
 protected:
  void SetUp() override {
    MoveFileTest::SetUp();
    other_ = root_ + "/other";
    enter_mount_namespace();
    if (HasFatalFailure()) return;
    mount_tmpfs(other_);
    source_ = root_ + "/source";
  }
  std::string other_;
  std::string source_;
};

TEST_F(CrossFsMoveTest, OntoExistingFileKeepsItsOwnerAndModeAndTakesSourceTimes) {
  std::string destination = other_ + "/dest.conf";
  make_file(source_, "copied across", {0, 0, 0600});
  struct utimbuf times {
    kOldTime, kOldTime + 5
  };
  ASSERT_EQ(utime(source_.c_str(), &times), 0);
  make_file(destination, "previous", {1234, 5678, 0640});
  std::ofstream(destination + ".temp") << "stray";
  ASSERT_EQ(move_file(source_.c_str(), destination.c_str()), 0);
  // Times first: reading the file would move its access time.
  EXPECT_EQ(lstat_of(destination).st_atime, kOldTime);
  EXPECT_EQ(lstat_of(destination).st_mtime, kOldTime + 5);
  EXPECT_EQ(read_text(destination), "copied across");
  expect_owner(destination, {1234, 5678, 0640});
  EXPECT_FALSE(exists(source_));
  EXPECT_FALSE(exists(destination + ".temp"));
}

TEST_F(CrossFsMoveTest, ToNewNameCopiesSourceOwnerAndMode) {
  std::string destination = other_ + "/fresh";
  make_file(source_, std::string(10000, 'z'), {1234, 5678, 04754});
  ASSERT_EQ(move_file(source_.c_str(), destination.c_str()), 0);
  EXPECT_EQ(read_text(destination), std::string(10000, 'z'));
  expect_owner(destination, {1234, 5678, 04754});
  EXPECT_FALSE(exists(source_));
}

TEST_F(CrossFsMoveTest, SymlinkIsRecreatedAtNewNameOnlyAndSourceStays) {
  ASSERT_EQ(symlink("../some/target", source_.c_str()), 0);
  std::string destination = other_ + "/link";
  ASSERT_EQ(move_file(source_.c_str(), destination.c_str()), 0);
  char* text = sreadlink(destination.c_str());
  ASSERT_NE(text, nullptr);
  EXPECT_STREQ(text, "../some/target");
  free(text);
  EXPECT_TRUE(S_ISLNK(lstat_of(source_).st_mode));

  std::string existing = other_ + "/existing";
  make_file(existing, "keep", {0, 0, 0644});
  EXPECT_EQ(move_file(source_.c_str(), existing.c_str()), -1);
  EXPECT_EQ(read_text(existing), "keep");
  EXPECT_TRUE(exists(source_));
}

TEST_F(CrossFsMoveTest, DirectoriesAndMismatchedTypesAreRefused) {
  ASSERT_EQ(mkdir(source_.c_str(), 0755), 0);
  std::string file = other_ + "/file";
  make_file(file, "keep", {0, 0, 0644});
  EXPECT_EQ(move_file(source_.c_str(), file.c_str()), -1);
  EXPECT_EQ(read_text(file), "keep");
  EXPECT_EQ(move_file(source_.c_str(), (other_ + "/newdir").c_str()), -1);
  EXPECT_FALSE(exists(other_ + "/newdir"));
  EXPECT_FALSE(exists(other_ + "/newdir.temp"));
  EXPECT_TRUE(exists(source_));

  std::string plain = root_ + "/plain";
  make_file(plain, "data", {0, 0, 0644});
  ASSERT_EQ(mkdir((other_ + "/dir").c_str(), 0755), 0);
  EXPECT_EQ(move_file(plain.c_str(), (other_ + "/dir").c_str()), -1);
  EXPECT_EQ(read_text(plain), "data");
}

// One file system seen through two mounts: the rename fails with EXDEV, and copying the file onto
// itself would truncate it and then remove it.
TEST_F(CrossFsMoveTest, SameFileThroughSecondMountIsLeftAlone) {
  std::string second = root_ + "/second";
  ASSERT_EQ(mkdir(second.c_str(), 0755), 0);
  ASSERT_EQ(mount(other_.c_str(), second.c_str(), nullptr, MS_BIND, nullptr), 0) << strerror(errno);
  mounts_.insert(mounts_.begin(), second);
  make_file(other_ + "/f", "precious", {0, 0, 0644});
  EXPECT_EQ(move_file((second + "/f").c_str(), (other_ + "/f").c_str()), -1);
  EXPECT_EQ(read_text(other_ + "/f"), "precious");
}

// /tmp gets a tmpfs of its own. The build tree may lie under /tmp, so the test directory stays
// reachable through a bind mount made from a descriptor opened before /tmp was covered.
TEST_F(CrossFsMoveTest, TempFileInTmpIsCopiedOverTarget) {
  UniqueFd kept(open(root_.c_str(), O_PATH | O_DIRECTORY));
  ASSERT_GE(kept.get(), 0) << strerror(errno);
  mount_tmpfs("/tmp");
  std::string dir = "/tmp/kept";
  ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
  std::string source = "/proc/self/fd/" + std::to_string(kept.get());
  ASSERT_EQ(mount(source.c_str(), dir.c_str(), nullptr, MS_BIND, nullptr), 0) << strerror(errno);
  mounts_.insert(mounts_.begin(), dir);
  std::string target = dir + "/group.conf";
  make_file(target, "old", {1234, 5678, 0644});
  char* raw_path = nullptr;
  FILE* stream = open_param_temp_file(target.c_str(), &raw_path, 1);
  CString path(raw_path);
  ASSERT_NE(stream, nullptr);
  EXPECT_STREQ(path.get(), "/tmp/group.conf.temp");
  fputs("[group]\n", stream);
  ASSERT_EQ(safe_close_file(&stream, nullptr), 0);
  ASSERT_EQ(move_file(path.get(), target.c_str()), 0);
  EXPECT_EQ(read_text(target), "[group]\n");
  expect_owner(target, {1234, 5678, 0644});
  EXPECT_FALSE(exists(path.get()));
}

}  // namespace
