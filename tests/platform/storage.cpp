// Mounts, free space, paths and files of recordings.
#include "platform/storage.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "platform/linux/mounts.h"
#include "platform/os.h"
#include "tests/platform/storage_mounts.h"
#include "tests/platform/support.h"

namespace {

namespace fs = std::filesystem;

class Storage : public testing::Test {
 protected:
  Storage() { fs::create_directories(root_.path("/usb")); }

  // Returns the result of slash(), "-" for a failure.
  static std::string slashed(const std::string& source, int how, int capacity = 128) {
    std::string text(static_cast<std::size_t>(capacity) + 1, '#');
    const int length = slash(source.c_str(), text.data(), capacity, how);
    EXPECT_EQ(text.back(), '#') << "written past the capacity";
    const std::string result = text.c_str();
    if (length < 0) {
      EXPECT_EQ(result, "");
      return "-";
    }
    EXPECT_EQ(static_cast<std::size_t>(length), result.size());
    return result;
  }
  int state(const std::string& mountinfo, const char* point) {
    writeFile(root_.path("/mountinfo"), mountinfo);
    return mountState(root_.path("/mountinfo").c_str(), point);
  }

  TempRoot root_;
  LogReader log_{root_};
};

TEST_F(Storage, SetsSlashesAtBothEnds) {
  for (const char* source : {"usb", "/usb", "usb/", "//usb//"}) {
    EXPECT_EQ(slashed(source, 10), "/usb/");
    EXPECT_EQ(slashed(source, 9), "usb/");
    EXPECT_EQ(slashed(source, 5), "usb");
    EXPECT_EQ(slashed(source, 6), "/usb");
    EXPECT_EQ(slashed(source, 0), source);
  }
  EXPECT_EQ(slashed("//usb//", 1), "usb//");
  EXPECT_EQ(slashed("//usb//", 8), "//usb/");
  EXPECT_EQ(slashed("a//b/c", 10), "/a//b/c/");
}

TEST_F(Storage, NothingStaysNothingAndSlashesAloneBecomeOneOrNone) {
  for (int how = 0; how < 16; ++how) EXPECT_EQ(slashed("", how), "");
  EXPECT_EQ(slashed("/", 10), "/");
  EXPECT_EQ(slashed("///", 10), "/");
  EXPECT_EQ(slashed("///", 8), "/");
  EXPECT_EQ(slashed("///", 9), "");
  EXPECT_EQ(slashed("/", 5), "");
}

TEST_F(Storage, SlashNeverWritesPastTheCapacity) {
  EXPECT_EQ(slashed("pics", 9, 6), "pics/");
  EXPECT_EQ(slashed("pics", 9, 5), "-");
  EXPECT_TRUE(log_.waitFor("2 path too long: pics"));
  EXPECT_EQ(slashed("", 9, 1), "");
  char untouched = '#';
  EXPECT_EQ(slash("pics", &untouched, 0, 9), -1);
  EXPECT_EQ(untouched, '#');
  for (int capacity = 1; capacity < 80; ++capacity)
    EXPECT_EQ(slashed(std::string(63, 'n'), 10, capacity) == "-", capacity < 66) << capacity;
}

TEST_F(Storage, ANameThatTriesToLeaveItsMountPointIsRefused) {
  for (const char* name : {"..", "../etc", "a/../../etc", "a/..", "/..", "a\nb", "a\x7f", "\x01"})
    EXPECT_EQ(slashed(name, 9), "-") << name;
  const auto lines = log_.lines();
  for (const char* name : {"../etc", "a?b"})
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "2 unsafe path refused: " + std::string(name)),
              1);
  for (const char* name : {"...", "..a", "a..", "a/...", "a/b..c", ".", "\xc3\xa4"})
    EXPECT_NE(slashed(name, 9), "-") << name;
  EXPECT_EQ(slashed("/etc", 9), "etc/");  // an absolute name begins at the mount point
}

TEST_F(Storage, OpenCreatesFoldersAndFilesForTheGroupOnly) {
  const mode_t before = umask(0);
  const int fd = open2("/usb//pics/./2026-01-02/12-00-00.jpg", O_WRONLY | O_CREAT);
  umask(before);
  ASSERT_GE(fd, 0) << std::strerror(errno);
  EXPECT_EQ(os::write(fd, "picture", 7), 7);
  EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_EQ(os::close(fd), 0);
  const std::string file = root_.path("/usb/pics/2026-01-02/12-00-00.jpg");
  EXPECT_EQ(readFile(file), "picture");
  struct stat status {};
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777u, 0640u);
  ASSERT_EQ(stat(root_.path("/usb/pics").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777u, 0750u);
}

TEST_F(Storage, OpenLeavesWhatAFileHolds) {
  writeFile(root_.path("/usb/a"), "0123456789");
  const int fd = open2("/usb/a", O_WRONLY | O_CREAT);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(os::write(fd, "ab", 2), 2);
  os::close(fd);
  EXPECT_EQ(readFile(root_.path("/usb/a")), "ab23456789");
}

TEST_F(Storage, OpenRefusesPathsAndLinksThatLeadElsewhere) {
  for (const char* path : {"/usb/../etc/passwd", "usb/a", "", "/usb/a\nb", "/usb/.."})
    EXPECT_EQ(open2(path, O_WRONLY | O_CREAT), -1) << path;
  EXPECT_TRUE(log_.waitFor("2 unsafe path refused: /usb/a?b"));
  fs::create_directories(root_.path("/etc"));
  fs::create_directory_symlink(root_.path("/etc"), root_.path("/usb/folder"));
  fs::create_symlink(root_.path("/etc/file"), root_.path("/usb/file"));
  EXPECT_EQ(open2("/usb/folder/file", O_WRONLY | O_CREAT), -1);
  EXPECT_TRUE(log_.waitFor("2 unsafe path refused: /usb/folder/file"));
  EXPECT_EQ(open2("/usb/file", O_WRONLY | O_CREAT), -1);
  EXPECT_TRUE(log_.waitFor("2 unsafe path refused: /usb/file"));
  EXPECT_FALSE(fs::exists(root_.path("/etc/file")));
}

TEST_F(Storage, OpenFailsWhereAFolderOrAPipeIsInTheWay) {
  writeFile(root_.path("/usb/plain"), "x");
  fs::create_directories(root_.path("/usb/folder"));
  ASSERT_EQ(mkfifo(root_.path("/usb/pipe").c_str(), 0600), 0);
  EXPECT_EQ(open2("/usb/plain/a", O_WRONLY | O_CREAT), -1);
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_EQ(open2("/usb/folder", O_WRONLY | O_CREAT), -1);
  EXPECT_EQ(open2("/usb/pipe", O_WRONLY | O_CREAT), -1);  // and does not wait for a reader
  EXPECT_EQ(open2(("/usb/" + std::string(256, 'n')).c_str(), O_WRONLY | O_CREAT), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
}

// Opening one may rewind a tape, or begin to watch over the system.
TEST_F(Storage, OpenDoesNotTouchADeviceThatHasTheNameOfAFile) {
  ASSERT_EQ(mkfifo(root_.path("/usb/pipe").c_str(), 0600), 0);
  // A reader is told of every writer that opens the pipe, even of one that closes it at once.
  const int reader = open(root_.path("/usb/pipe").c_str(), O_RDONLY | O_NONBLOCK);
  EXPECT_EQ(open2("/usb/pipe", O_WRONLY | O_CREAT), -1);
  EXPECT_EQ(errno, EINVAL);
  pollfd told{reader, POLLIN, 0};
  EXPECT_EQ(poll(&told, 1, 0), 0) << "it was opened";
  close(reader);
  if (mknod(root_.path("/usb/null").c_str(), S_IFCHR | 0600, makedev(1, 3)) != 0)
    GTEST_SKIP() << "no devices can be made here";
  EXPECT_EQ(open2("/usb/null", O_WRONLY | O_CREAT), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(Storage, ReadsTheListOfMounts) {
  const std::string list =
      "21 1 8:1 / / rw,relatime shared:1 - ext4 /dev/root rw\n"
      "22 21 8:17 / /usb rw,nosuid - vfat /dev/sdb1 rw\n"
      "23 21 0:40 / /smb rw - autofs systemd-1 rw\n"
      "24 21 8:18 / /mnt/a\\040b\\134c\\011d rw shared:2 master:3 - vfat /dev/sdc1 rw\n"
      "25 21 0:41 / /long rw - overlay overlay lowerdir=" +
      std::string(20000, 'x') + "\n26 21 0:42 / /after rw - tmpfs none rw\n";
  EXPECT_EQ(state(list, "/usb"), 1);
  EXPECT_EQ(state(list, "/"), 1);
  EXPECT_EQ(state(list, "/mnt/a b\\c\td"), 1);
  EXPECT_EQ(state(list, "/long"), 1);
  EXPECT_EQ(state(list, "/after"), 1);
  EXPECT_EQ(state(list, "/us"), 0);
  EXPECT_EQ(state(list, "/usb/a"), 0);
  EXPECT_EQ(state(list, "/smb"), 0);  // an automounter waits there, nothing is mounted
  EXPECT_EQ(state(list + "27 23 0:43 / /smb rw - cifs //s/camera rw\n", "/smb"), 1);
}

TEST_F(Storage, AStrangeListOfMountsMountsNothing) {
  for (const char* list :
       {"", "\n", "\n\n22 21 8:17 /", "22 21 8:17 / /usb", "22 21 8:17 / /usb\n",
        "22 21 8:17 / /usb rw -\n", "a b c d e f\n", "22 21 8:17 / /us\\1 rw - a b\n"})
    EXPECT_EQ(state(list, "/usb"), 0) << list;
  EXPECT_EQ(mountState(root_.path("/none").c_str(), "/usb"), -1);
  EXPECT_EQ(mountState(root_.path("/").c_str(), "/usb"), -1);
}

TEST_F(Storage, NothingIsMountedInAPlainFolder) {
  int state = 9;
  EXPECT_EQ(get_usb_mount_state(&state), 0);
  EXPECT_EQ(state, 0);
  state = 9;
  EXPECT_EQ(get_smb_mount_state(&state), 0);
  EXPECT_EQ(state, 0);
}

TEST_F(Storage, TheUsedShareCountsAsDfDoes) {
  struct statvfs status {};
  ASSERT_EQ(statvfs(root_.path("/usb").c_str(), &status), 0);
  const double used = static_cast<double>(status.f_blocks - status.f_bfree);
  const double share = 100 * used / (used + static_cast<double>(status.f_bavail));
  EXPECT_NEAR(get_free_space_percent("/usb"), share, 1.5);
  EXPECT_EQ(get_free_space_percent("/none"), 100);
  EXPECT_EQ(get_free_space_percent("/mountinfo"), 100);
}

TEST_F(Storage, AFullDiskSaysSoAndKeepsWhatItHas) {
  onSmallDisk(root_, "/usb", [&] {
    int state = 9;
    EXPECT_EQ(get_usb_mount_state(&state), 0);
    EXPECT_EQ(state, 1);
    EXPECT_LE(get_free_space_percent("/usb"), 10);
    const std::string picture(40 * 1024, 'p');
    int fd = open2("/usb/one", O_WRONLY | O_CREAT);
    EXPECT_EQ(os::write(fd, picture.data(), picture.size()), static_cast<long>(picture.size()));
    os::close(fd);
    EXPECT_GE(get_free_space_percent("/usb"), 60);
    EXPECT_LT(get_free_space_percent("/usb"), 96);
    fd = open2("/usb/two", O_WRONLY | O_CREAT);
    EXPECT_LT(os::write(fd, picture.data(), picture.size()), static_cast<long>(picture.size()));
    os::close(fd);
    EXPECT_EQ(get_free_space_percent("/usb"), 100);
    EXPECT_TRUE(readFile(root_.path("/usb/one")) == picture);
    return verdict();
  });
}

TEST_F(Storage, AStorageThatIsPulledWhileWritingIsSeenAsNotMounted) {
  onSmallDisk(root_, "/usb", [&] {
    const int fd = open2("/usb/one", O_WRONLY | O_CREAT);
    EXPECT_EQ(os::write(fd, "x", 1), 1);
    EXPECT_EQ(umount2(root_.path("/usb").c_str(), MNT_DETACH), 0);
    EXPECT_EQ(os::write(fd, "y", 1), 1);
    os::close(fd);
    int state = 9;
    EXPECT_EQ(get_usb_mount_state(&state), 0);
    EXPECT_EQ(state, 0);
    return verdict();
  });
}

TEST_F(Storage, AReadOnlyStorageOpensNothing) {
  onSmallDisk(root_, "/usb", [&] {
    const std::string usb = root_.path("/usb");
    EXPECT_EQ(mount(nullptr, usb.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0)
        << std::strerror(errno);
    EXPECT_EQ(open2("/usb/a", O_WRONLY | O_CREAT), -1);
    EXPECT_EQ(errno, EROFS);
    EXPECT_EQ(open2("/usb/pics/a", O_WRONLY | O_CREAT), -1);
    EXPECT_EQ(errno, EROFS);
    return verdict();
  });
}

}  // namespace
