// The folders of continuous recordings, and the share that may go away.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <thread>
#include <vector>

#include "platform/linux/safe_path.h"
#include "platform/os.h"
#include "platform/storage.h"
#include "tests/platform/storage_mounts.h"
#include "tests/platform/support.h"

namespace {

namespace fs = std::filesystem;

class Recordings : public testing::Test {
 protected:
  Recordings() { fs::create_directories(root_.path("/smb/camera")); }

  void folder(const std::string& path) { fs::create_directories(root_.path(path)); }
  void file(const std::string& path) { writeFile(root_.path(path), "x"); }

  // Returns what get_oldest_name() finds, or the name of its error.
  static std::string oldest(const std::string& folder, int size = 256) {
    std::string name(static_cast<std::size_t>(size) + 1, '#');
    errno = 0;
    const int result = get_oldest_name(folder.c_str(), name.data(), size);
    const int error = errno;
    EXPECT_EQ(name.back(), '#') << "written past the size";
    if (result == 0) return name.c_str();
    EXPECT_EQ(result, -1);
    EXPECT_TRUE(size == 0 || name[0] == '\0');
    return strerrorname_np(error);
  }
  // The same for get_folder().
  static std::string folderOf(const std::string& path, int size = 256) {
    std::string folder(static_cast<std::size_t>(size) + 1, '#');
    errno = 0;
    const int result = get_folder(path.c_str(), folder.data(), size);
    const int error = errno;
    EXPECT_EQ(folder.back(), '#') << "written past the size";
    return result == 0 ? folder.c_str() : strerrorname_np(error);
  }

  TempRoot root_;
  LogReader log_{root_};
};

TEST_F(Recordings, TheOldestDayIsFound) {
  for (const char* day : {"20261121", "20251231", "20260101", "99999999"})
    folder(std::string("/smb/camera/") + day);
  file("/smb/camera/000000.avi");  // recordings beside days don't count
  EXPECT_EQ(oldest("/smb/camera"), "/smb/camera/20251231");
  EXPECT_EQ(oldest("/smb/camera/"), "/smb/camera/20251231");
  EXPECT_EQ(oldest("//smb/./camera//"), "//smb/./camera/20251231");
}

TEST_F(Recordings, OnlyFoldersNamedByEightDigitsAreDays) {
  for (const char* name :
       {"2026112 1", "20261121;rm", "2026112", "202611211", "0000000a", "-0000001", "00000000 ",
        "00000000\n", "$(reboot)", "`x`", "a", ".0000000", "00000000."})
    folder(std::string("/smb/camera/") + name);
  file("/smb/camera/00000000");
  folder("/elsewhere");
  fs::create_directory_symlink(root_.path("/elsewhere"), root_.path("/smb/camera/00000001"));
  ASSERT_EQ(mkfifo(root_.path("/smb/camera/00000002").c_str(), 0600), 0);
  EXPECT_EQ(oldest("/smb/camera"), "ENOENT");
  folder("/smb/camera/20261121");
  EXPECT_EQ(oldest("/smb/camera"), "/smb/camera/20261121");
}

TEST_F(Recordings, TheOldestRecordingOfADayIsFound) {
  const std::string day = "/smb/camera/20261121/";
  folder(day);
  for (const char* name : {"120000-10.avi", "120000-2.avi", "120000-02.raw", "120001.avi"})
    file(day + name);
  const auto expect = [&](const char* name) { EXPECT_EQ(oldest(day), day + name); };
  expect("120000-02.raw");
  fs::remove(root_.path(day + "120000-02.raw"));
  expect("120000-2.avi");
  file(day + "120000-1.raw");
  expect("120000-1.raw");
  file(day + "120000.avi");
  expect("120000.avi");
  file(day + "115959-99999999999999999999999.raw");
  expect("115959-99999999999999999999999.raw");
  file(day + "115959-99999999999999999999998.raw");
  expect("115959-99999999999999999999998.raw");
}

TEST_F(Recordings, OnlyFilesNamedLikeRecordingsAreRecordings) {
  const std::string day = "/smb/camera/20261121/";
  folder(day);
  for (const char* name :
       {"000000", "000000.AVI", "000000.jpg", "000000.avi~", "000000-.avi", "00000.avi",
        "0000000.avi", "000000-1a.avi", "000000--1.avi", "000000-1-2.avi", "a00000.avi",
        " 000000.avi", "000000 .avi", "000000;rm.avi", ".avi", "000000.avi.part"})
    file(day + name);
  folder(day + "000000-7.avi");
  writeFile(root_.path("/elsewhere.avi"), "x");
  fs::create_symlink(root_.path("/elsewhere.avi"), root_.path(day + "000000-8.avi"));
  EXPECT_EQ(oldest(day), "ENOENT");
  file(day + "235959.raw");
  EXPECT_EQ(oldest(day), day + "235959.raw");
}

TEST_F(Recordings, TheOldestOfManyIsFound) {
  onSmallDisk(root_, "/smb", [&] {
    EXPECT_EQ(mount("many", root_.path("/smb").c_str(), "tmpfs", 0, "nr_inodes=0"), 0);
    EXPECT_EQ(mkdir2("/smb/20261121"), 0);
    const int folder = open(root_.path("/smb/20261121").c_str(), O_RDONLY | O_DIRECTORY);
    for (long i = 0; i < 100000; ++i) {
      // In an order that is none, with the oldest somewhere in the middle.
      const std::string name = std::to_string((i * 7919 + 50000) % 100000 + 100000) + ".avi";
      const int file = openat(folder, name.c_str(), O_WRONLY | O_CREAT, 0640);
      if (file < 0) ADD_FAILURE() << std::strerror(errno);
      close(file);
    }
    EXPECT_EQ(oldest("/smb/20261121"), "/smb/20261121/100000.avi");
    return verdict();
  });
}

TEST_F(Recordings, WhatCantBeReadOrDoesNotFitIsAnError) {
  EXPECT_EQ(oldest("/smb/camera"), "ENOENT");
  EXPECT_EQ(oldest("/smb/none"), "ENOENT");
  file("/smb/file");
  EXPECT_EQ(oldest("/smb/file"), "ENOTDIR");
  EXPECT_EQ(oldest("/smb/" + std::string(256, 'n')), "ENAMETOOLONG");
  folder("/smb/camera/20261121");
  const int fits = static_cast<int>(std::strlen("/smb/camera/20261121")) + 1;
  EXPECT_EQ(oldest("/smb/camera", fits), "/smb/camera/20261121");
  for (int size = 0; size < fits; ++size) EXPECT_EQ(oldest("/smb/camera", size), "ENAMETOOLONG");
  fs::create_directory_symlink(root_.path("/smb/camera"), root_.path("/smb/link"));
  EXPECT_EQ(oldest("/smb/link"), "ELOOP");
}

TEST_F(Recordings, AFolderThatMayNotBeReadIsAnError) {
  if (getuid() == 0) GTEST_SKIP() << "root may read everything";
  folder("/smb/camera/20261121");
  fs::permissions(root_.path("/smb/camera"), fs::perms::none);
  EXPECT_EQ(oldest("/smb/camera"), "EACCES");
  EXPECT_FALSE(test_dir("/smb/camera/20261121"));
  fs::permissions(root_.path("/smb/camera"), fs::perms::owner_all);
}

TEST_F(Recordings, WithoutDescriptorsTheErrorIsTold) {
  folder("/smb/camera/20261121");
  rlimit usual{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
  std::vector<int> taken;
  for (int fd; (fd = open("/dev/null", O_RDONLY)) >= 0;) {
    taken.push_back(fd);
    if (taken.size() > 16) {  // enough, without waiting for the usual limit
      const rlimit few{static_cast<rlim_t>(fd) + 1, usual.rlim_max};
      setrlimit(RLIMIT_NOFILE, &few);
    }
  }
  for (int free = 0; free < 2; ++free) {  // two are enough: a folder and the next one in it
    EXPECT_EQ(oldest("/smb/camera"), "EMFILE") << free;
    close(taken.back());
    taken.pop_back();
  }
  EXPECT_EQ(oldest("/smb/camera"), "/smb/camera/20261121");
  setrlimit(RLIMIT_NOFILE, &usual);
  for (const int fd : taken) close(fd);
}

TEST_F(Recordings, TheFolderOfAPathIsEverythingAheadOfItsName) {
  EXPECT_EQ(folderOf("/smb/camera/20261121/120000.avi"), "/smb/camera/20261121");
  EXPECT_EQ(folderOf("/smb/camera/20261121/"), "/smb/camera");
  EXPECT_EQ(folderOf("/smb//120000.avi"), "/smb");
  EXPECT_EQ(folderOf("//smb//a//"), "//smb");
  EXPECT_EQ(folderOf("/a/b"), "/a");
  for (const char* path : {"/", "//", "/a", "/a/", "///a//"})
    EXPECT_EQ(folderOf(path), "ENOENT") << path;
  EXPECT_EQ(folderOf("/abc/d", 5), "/abc");
  for (int size = 0; size < 5; ++size) EXPECT_EQ(folderOf("/abc/d", size), "ENAMETOOLONG");
}

TEST_F(Recordings, PathsThatLeadElsewhereAreRefusedByAll) {
  folder("/smb/a");
  char name[256] = "#";
  const auto paths = {"/smb/../etc", "smb/a", "", "/smb/a\n", "/smb/.."};
  for (const char* path : paths) EXPECT_EQ(oldest(path), "EACCES") << path;
  for (const char* path : paths) {
    EXPECT_EQ(get_folder(path, name, sizeof name), -1) << path;
    EXPECT_EQ(errno, EACCES);
    EXPECT_STREQ(name, "");
  }
  for (const char* path : paths) EXPECT_FALSE(test_dir(path)) << path;
  for (const char* path : paths) {
    EXPECT_EQ(mkdir2(path), -1) << path;
    EXPECT_EQ(errno, EACCES);
  }
  const auto lines = log_.lines();
  for (const char* line : {"2 unsafe path refused: /smb/../etc", "2 unsafe path refused: /smb/a?"})
    EXPECT_EQ(std::count(lines.begin(), lines.end(), line), 1) << line;  // repeats are folded
}

TEST_F(Recordings, FoldersAreLookedFor) {
  file("/smb/file");
  fs::create_directory_symlink(root_.path("/smb/camera"), root_.path("/smb/link"));
  EXPECT_TRUE(test_dir("/"));
  EXPECT_TRUE(test_dir("/smb"));
  EXPECT_TRUE(test_dir("/smb/camera/"));
  for (const char* path :
       {"/none", "/smb/none", "/smb/file", "/smb/file/a", "/smb/link", "/smb/camera/20261121"})
    EXPECT_FALSE(test_dir(path)) << path;
  EXPECT_FALSE(fs::exists(root_.path("/smb/none")));
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(Recordings, FoldersAreMadeForTheGroupOnly) {
  const mode_t before = umask(0);
  EXPECT_EQ(mkdir2("/usb//a/./b/"), 0);
  umask(before);
  for (const char* made : {"/usb", "/usb/a", "/usb/a/b"}) {
    struct stat status {};
    ASSERT_EQ(stat(root_.path(made).c_str(), &status), 0) << made;
    EXPECT_EQ(status.st_mode & 07777u, 0750u) << made;
  }
  EXPECT_EQ(mkdir2("/usb/a/b"), 0) << "it exists";
  EXPECT_EQ(mkdir2("/"), 0);
}

TEST_F(Recordings, AFolderIsNotMadeInAFileOrBehindALink) {
  folder("/usb");
  folder("/etc");
  file("/usb/file");
  fs::create_directory_symlink(root_.path("/etc"), root_.path("/usb/link"));
  EXPECT_EQ(mkdir2("/usb/file"), -1);
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_EQ(mkdir2("/usb/file/a"), -1);
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_EQ(mkdir2(("/usb/" + std::string(256, 'n')).c_str()), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_TRUE(log_.lines().empty());
  EXPECT_EQ(mkdir2("/usb/link/a"), -1);
  EXPECT_EQ(errno, EACCES);
  EXPECT_TRUE(log_.waitFor("2 unsafe path refused: /usb/link/a"));
  EXPECT_TRUE(fs::is_empty(root_.path("/etc")));
}

// Somebody may have put the link there after the file was found.
TEST_F(Recordings, AFileBehindALinkIsNotRemoved) {
  folder("/etc");
  file("/etc/120000.avi");
  folder("/smb/camera");
  fs::create_directory_symlink(root_.path("/etc"), root_.path("/smb/camera/20260102"));
  EXPECT_EQ(os::unlink("/smb/camera/20260102/120000.avi"), -1);
  EXPECT_EQ(errno, ELOOP);
  EXPECT_EQ(os::unlink("/smb/camera/../../etc/120000.avi"), -1);
  EXPECT_EQ(errno, EACCES);
  EXPECT_TRUE(fs::exists(root_.path("/etc/120000.avi")));
  EXPECT_EQ(os::unlink("/smb/camera/20260102"), 0) << "the link itself";
  file("/smb/camera/120000.avi");
  EXPECT_EQ(os::unlink("/smb/camera/120000.avi"), 0);
  EXPECT_FALSE(fs::exists(root_.path("/smb/camera/120000.avi")));
}

TEST_F(Recordings, FoldersThatOthersMakeAtTheSameTimeAreNoError) {
  std::atomic<int> failed{0};
  atOnce(4, 50, [&](int, int n) {
    const std::string path = "/usb/" + std::to_string(n) + "/a/b";
    if (mkdir2(path.c_str()) != 0) ++failed;
  });
  EXPECT_EQ(failed, 0);
}

// Nothing fills the disk that is to stay free for the camera itself.
TEST_F(Recordings, NothingIsMadeInTheMountPointOfAShareThatIsNotMounted) {
  for (const char* path :
       {"/smb", "/smb/camera", "/smb/camera/20261121", "//./smb/a", "/./smb/a"}) {
    EXPECT_EQ(mkdir2(path), -1) << path;
    EXPECT_EQ(errno, ENODEV) << path;
  }
  EXPECT_EQ(open2("/smb/a", O_WRONLY | O_CREAT), -1);
  EXPECT_EQ(errno, ENODEV);
  EXPECT_TRUE(fs::is_empty(root_.path("/smb/camera")));
  fs::remove_all(root_.path("/smb"));
  EXPECT_EQ(mkdir2("/smb/a"), -1);
  EXPECT_EQ(errno, ENODEV);
  EXPECT_FALSE(fs::exists(root_.path("/smb"))) << "the mount point itself";
  EXPECT_EQ(mkdir2("/smbx/a"), 0);
  EXPECT_EQ(mkdir2("/a/smb/b"), 0);
}

TEST_F(Recordings, WhatWasOpenedOnAShareStaysOnIt) {
  onSmallDisk(root_, "/smb", [&] {
    EXPECT_EQ(mkdir2("/smb/camera/20261121"), 0) << std::strerror(errno);
    EXPECT_EQ(oldest("/smb/camera"), "/smb/camera/20261121");
    char name[NAME_MAX + 1];
    const Fd opened = openFolderOf("/smb/camera/20261121/a", Walk::kMake, name);
    EXPECT_STREQ(name, "a");
    EXPECT_EQ(umount2(root_.path("/smb").c_str(), MNT_DETACH), 0);
    const int fd = openat(opened.get(), name, O_WRONLY | O_CREAT, 0640);
    EXPECT_GE(fd, 0) << "on what is no longer mounted, it is there still";
    close(fd);
    EXPECT_EQ(mkdir2("/smb/camera/20261122"), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_TRUE(fs::is_empty(root_.path("/smb/camera"))) << "the mount point's own folder";
    return verdict();
  });
}

TEST_F(Recordings, AShareThatComesAndGoesNeverLetsAnythingIntoItsMountPoint) {
  const std::string smb = root_.path("/smb");
  onSmallDisk(root_, "/smb", [&] {
    std::atomic<bool> done{false};
    std::atomic<int> made{0};
    std::thread recorder([&] {
      for (int n = 0; !done; n = (n + 1) % 100) {
        if (mkdir2(("/smb/camera/" + std::to_string(n)).c_str()) == 0) ++made;
      }
    });
    for (int round = 0; round < 200; ++round) {
      EXPECT_EQ(umount2(smb.c_str(), MNT_DETACH), 0);
      EXPECT_EQ(mount("small", smb.c_str(), "tmpfs", 0, "size=64k"), 0);
    }
    EXPECT_TRUE(eventually([&] { return made > 0; }));
    done = true;
    recorder.join();
    EXPECT_EQ(umount2(smb.c_str(), MNT_DETACH), 0);
    EXPECT_TRUE(fs::is_empty(smb + "/camera"));
    return verdict();
  });
}

TEST_F(Recordings, AFullOrReadOnlyShareSaysSo) {
  const std::string smb = root_.path("/smb");
  onSmallDisk(root_, "/smb", [&] {
    EXPECT_EQ(mount(nullptr, smb.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
    EXPECT_EQ(mkdir2("/smb/a"), -1);
    EXPECT_EQ(errno, EROFS);
    EXPECT_EQ(umount2(smb.c_str(), MNT_DETACH), 0);
    EXPECT_EQ(mount("small", smb.c_str(), "tmpfs", 0, "nr_inodes=2"), 0);
    EXPECT_EQ(mkdir2("/smb/a"), 0);
    EXPECT_EQ(mkdir2("/smb/b"), -1);
    EXPECT_EQ(errno, ENOSPC);
    return verdict();
  });
}

// A mount that shows another folder of the same disk has the same device.
TEST_F(Recordings, AFolderBoundToTheMountPointIsMounted) {
  folder("/disk");
  folder("/usb");
  onSmallDisk(root_, "/usb", [&] {
    const std::string disk = root_.path("/disk");
    EXPECT_EQ(mount(disk.c_str(), root_.path("/smb").c_str(), nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(mkdir2("/smb/a"), 0) << std::strerror(errno);
    EXPECT_TRUE(fs::exists(disk + "/a"));
    return verdict();
  });
}

}  // namespace
