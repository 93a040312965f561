#include "tests/platform/storage_mounts.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <string>

namespace {

// Gets a list of mounts of its own: as the superuser at once, otherwise as one in a user namespace.
bool ownMounts() {
  const std::string user = std::to_string(getuid());
  const std::string group = std::to_string(getgid());
  if (unshare(CLONE_NEWNS) == 0)
    return mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
  if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
  writeFile("/proc/self/setgroups", "deny");
  writeFile("/proc/self/uid_map", "0 " + user + " 1");
  writeFile("/proc/self/gid_map", "0 " + group + " 1");
  return true;
}

}  // namespace

void onSmallDisk(const TempRoot& root, const char* point, const std::function<int()>& body) {
  constexpr int kNotPermitted = 77;
  if (emulated()) GTEST_SKIP() << "no mounts of one's own in an emulation";
  const std::string path = root.path(point);
  Child child([&] {
    if (!ownMounts() || mount("small", path.c_str(), "tmpfs", 0, "size=64k") != 0)
      return kNotPermitted;
    return body();
  });
  const int status = child.wait();
  if (status == kNotPermitted) GTEST_SKIP() << "no mounts of one's own here";
  EXPECT_EQ(status, 0) << child.output();
}

int verdict() { return testing::Test::HasFailure() ? 1 : 0; }
