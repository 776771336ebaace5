#include "movefile/movefile.h"

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
#include <string>

#include "base/handles.h"
#include "tests/support/textfile.h"

namespace {

using tessard::test::read_text;

// "uid:gid:mode" of the file itself (not of a link's target), or "none".
std::string owner(const std::string& path) {
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0) return "none";
  char text[64];
  snprintf(text, sizeof text, "%u:%u:%o", st.st_uid, st.st_gid, st.st_mode & 07777);
  return text;
}

void make_file(const std::string& path, const std::string& text, uid_t uid = 0, gid_t gid = 0,
               mode_t mode = 0644) {
  std::ofstream(path) << text;
  ASSERT_EQ(chown(path.c_str(), uid, gid), 0) << path;
  ASSERT_EQ(chmod(path.c_str(), mode), 0) << path;
}

// Moves across file systems go to a tmpfs on `other_` in a private mount namespace (needs root;
// the test fails if it cannot make one).
class MoveFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string name = std::string(TESSARD_TEST_DIR) + "/movefile.XXXXXX";
    ASSERT_NE(mkdtemp(name.data()), nullptr) << strerror(errno);
    root_ = name;
    ASSERT_EQ(unshare(CLONE_NEWNS), 0) << "cannot make a mount namespace: " << strerror(errno);
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0) << strerror(errno);
    mount_on(other_ = root_ + "/other");
    source_ = root_ + "/source";
  }
  void TearDown() override {
    for (const char* dir : {"/second", "/other"}) umount2((root_ + dir).c_str(), MNT_DETACH);
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }

  // Mounts `source` (a fresh tmpfs when null) on `dir`, so that renames into it fail with EXDEV.
  void mount_on(const std::string& dir, const char* source = nullptr) {
    mkdir(dir.c_str(), 0755);
    ASSERT_EQ(source != nullptr ? mount(source, dir.c_str(), nullptr, MS_BIND, nullptr)
                                : mount("tmpfs", dir.c_str(), "tmpfs", 0, "mode=0755"),
              0)
        << strerror(errno);
  }

  std::string root_;
  std::string other_;
  std::string source_;
};

TEST_F(MoveFileTest, CreateTmpFileReplacesAStrayFile) {
  std::string expected = root_ + "/x.temp";
  std::ofstream(expected) << "left over";
  char* path = nullptr;
  int fd = create_tmp_file((root_ + "/").c_str(), "x", &path);
  ASSERT_GE(fd, 0);
  close(fd);
  EXPECT_STREQ(CString(path).get(), expected.c_str());
  EXPECT_EQ(read_text(expected), "");
  EXPECT_EQ(owner(expected), "0:0:600");
  ASSERT_EQ(mkdir((root_ + "/d.temp").c_str(), 0755), 0);
  EXPECT_EQ(create_tmp_file(root_.c_str(), "d", nullptr), -1) << "a directory in the way stays";
}

TEST_F(MoveFileTest, LinksAreReadAroundBufferStepsAndMovedAcross) {
  for (size_t length : {1, 80, 81, 161}) {
    std::string target(length, 't');
    std::string link = root_ + "/link" + std::to_string(length);
    ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
    CString text(sreadlink(link.c_str()));
    EXPECT_EQ(std::string(text ? text.get() : "<null>"), target);
  }
  ASSERT_EQ(move_file((root_ + "/link80").c_str(), (other_ + "/link").c_str()), 0);
  EXPECT_STREQ(CString(sreadlink((other_ + "/link").c_str())).get(), std::string(80, 't').c_str());
}

TEST_F(MoveFileTest, OntoExistingFileKeepsItsOwnerAndModeAndTakesSourceTimes) {
  std::string destination = other_ + "/dest.conf";
  make_file(source_, "copied across", 0, 0, 0600);
  const utimbuf times{1000000000, 1000000005};
  ASSERT_EQ(utime(source_.c_str(), &times), 0);
  make_file(destination, "previous", 1234, 5678, 0640);
  std::ofstream(destination + ".temp") << "stray";
  ASSERT_EQ(move_file(source_.c_str(), destination.c_str()), 0);
  struct stat st {};
  ASSERT_EQ(stat(destination.c_str(), &st), 0);  // times first: reading moves the access time
  EXPECT_EQ(st.st_atime, times.actime);
  EXPECT_EQ(st.st_mtime, times.modtime);
  EXPECT_EQ(read_text(destination), "copied across");
  EXPECT_EQ(owner(destination), "1234:5678:640");
  EXPECT_EQ(owner(source_) + owner(destination + ".temp"), "nonenone");
  // A new name takes the source's owner and mode.
  make_file(source_, std::string(10000, 'z'), 1234, 5678, 04754);
  ASSERT_EQ(move_file(source_.c_str(), (other_ + "/fresh").c_str()), 0);
  EXPECT_EQ(read_text(other_ + "/fresh"), std::string(10000, 'z'));
  EXPECT_EQ(owner(other_ + "/fresh"), "1234:5678:4754");
  EXPECT_EQ(owner(source_), "none");
}

// A file is not moved onto a directory. One file system seen through two mounts makes the rename
// fail with EXDEV, and copying the file onto itself would truncate it and then remove it.
TEST_F(MoveFileTest, RefusedMovesLeaveBothFilesAlone) {
  make_file(source_, "data");
  ASSERT_EQ(mkdir((other_ + "/dir").c_str(), 0755), 0);
  EXPECT_EQ(move_file(source_.c_str(), (other_ + "/dir").c_str()), -1);
  EXPECT_EQ(read_text(source_), "data");
  mount_on(root_ + "/second", other_.c_str());
  make_file(other_ + "/f", "precious");
  EXPECT_EQ(move_file((root_ + "/second/f").c_str(), (other_ + "/f").c_str()), -1);
  EXPECT_EQ(read_text(other_ + "/f"), "precious");
}

}  // namespace
