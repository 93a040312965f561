#include "tools/boardctl/usb.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <vector>

namespace {

constexpr char kUsb[] = "/usb";
// Where the disk is while it is not plugged in: nobody in the box looks there.
constexpr char kSpareParent[] = "/board";
constexpr char kSpare[] = "/board/usb";
constexpr char kFiller[] = "/usb/full";

ino_t namespaceOf(pid_t pid, const char* kind) {
  struct stat about {};
  const std::string path = "/proc/" + (pid == 0 ? "self" : std::to_string(pid)) + "/ns/" + kind;
  return stat(path.c_str(), &about) == 0 ? about.st_ino : 0;
}

// Returns one process of each box that runs in the board: programs in a box of their own have
// mounts of their own.
std::vector<pid_t> boxesOf(const std::string& folder) {
  std::map<ino_t, pid_t> boxes;
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(folder + "/run", ignored)) {
    if (entry.path().extension() != ".pid") continue;
    pid_t pid = 0;
    std::ifstream(entry.path()) >> pid;
    std::string name;
    std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/comm"), name);
    // A number that meanwhile belongs to another program is not the board's.
    if (pid <= 0 || name != entry.path().stem().string().substr(0, 15)) continue;
    const ino_t mounts = namespaceOf(pid, "mnt");
    if (mounts != 0 && mounts != namespaceOf(0, "mnt")) boxes[mounts] = pid;
  }
  std::vector<pid_t> pids;
  pids.reserve(boxes.size());
  for (const auto& box : boxes) pids.push_back(box.second);
  return pids;
}

bool isMounted(const char* path) {
  struct statx about {};
  return statx(AT_FDCWD, path, 0, 0, &about) == 0 &&
         (about.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

bool joinNamespace(pid_t pid, const char* kind, int type) {
  const std::string path = "/proc/" + std::to_string(pid) + "/ns/" + kind;
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  const bool joined = fd >= 0 && setns(fd, type) == 0;
  if (fd >= 0) close(fd);
  return joined;
}

bool enterBox(pid_t pid) {
  // Root's boxes have no users of their own. In a box of somebody else its maker has all rights.
  const bool ownUsers = namespaceOf(pid, "user") != namespaceOf(0, "user");
  return (!ownUsers || joinNamespace(pid, "user", CLONE_NEWUSER)) &&
         joinNamespace(pid, "mnt", CLONE_NEWNS);
}

// Calls `action` inside the box of `pid`, in a process of its own. Returns 0 or what it left in
// `errno`.
int insideBox(pid_t pid, const std::function<bool()>& action) {
  // Not by fork(): a sanitizer would begin its thread there, and only a process with a single one
  // may change to other users.
  const auto child = static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, 0L));
  if (child == 0) {
    const bool done = enterBox(pid) && action();
    _exit(done ? 0 : errno);
  }
  int status = 0;
  while (child > 0 && waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (child < 0) return errno;
  return WIFEXITED(status) ? WEXITSTATUS(status) : EINTR;
}

bool inEveryBox(const std::string& folder, const std::function<bool()>& action,
                std::string* error) {
  const std::vector<pid_t> boxes = boxesOf(folder);
  if (boxes.empty()) {
    *error = "no program runs in a box of " + folder + " (proot makes none)";
    return false;
  }
  for (const pid_t pid : boxes) {
    const int result = insideBox(pid, action);
    if (result == 0) continue;
    *error = "the box of process " + std::to_string(pid) + ": " + std::strerror(result);
    return false;
  }
  return true;
}

bool makeFolder(const char* path) { return mkdir(path, 0755) == 0 || errno == EEXIST; }

bool unplug() {
  if (!isMounted(kUsb)) return true;
  if (!isMounted(kSpare) && !(makeFolder(kSpareParent) && makeFolder(kSpare) &&
                              mount(kUsb, kSpare, nullptr, MS_BIND, nullptr) == 0))
    return false;
  // As when somebody pulls it out: who has files open there keeps them, and finds nothing new.
  return umount2(kUsb, MNT_DETACH) == 0;
}

bool plug() {
  if (!isMounted(kSpare)) return isMounted(kUsb);  // it is where it belongs
  if (isMounted(kUsb) && umount2(kUsb, MNT_DETACH) != 0) return false;
  return mount(kSpare, kUsb, nullptr, MS_BIND, nullptr) == 0 && umount2(kSpare, MNT_DETACH) == 0;
}

bool fill(long size) {
  const std::string options = "mode=0755,size=" + std::to_string(size);
  if (!unplug() || mount("usb", kUsb, "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) != 0)
    return false;
  const int fd = open(kFiller, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  const std::array<char, 4096> nothing{};
  while (write(fd, nothing.data(), nothing.size()) > 0) {
  }
  const bool full = errno == ENOSPC;
  close(fd);
  return full;
}

}  // namespace

bool plugUsb(const std::string& folder, std::string* error) {
  return inEveryBox(folder, plug, error);
}

bool unplugUsb(const std::string& folder, std::string* error) {
  return inEveryBox(folder, unplug, error);
}

bool fillUsb(const std::string& folder, long size, std::string* error) {
  return inEveryBox(
      folder, [size] { return fill(size); }, error);
}
