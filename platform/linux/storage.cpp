#include "platform/storage.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <utility>

#include "platform/linux/mounts.h"
#include "platform/linux/root.h"
#include "platform/log.h"
#include "platform/os.h"

namespace {

constexpr mode_t kFileMode = 0640;
constexpr mode_t kFolderMode = 0750;

int getMountState(const char* mountPoint, int* state) {
  char path[PATH_MAX];
  if (!rooted(mountPoint, path, sizeof path)) return -1;
  const int mounted = mountState("/proc/self/mountinfo", path);
  if (mounted < 0) return -1;
  *state = mounted;
  return 0;
}

// Returns true iff `path` has neither a part ".." nor a control character.
bool isSafe(const char* path) {
  const char* part = path;
  for (const char* c = path;; ++c) {
    const auto byte = static_cast<unsigned char>(*c);
    if (*c != '\0' && (byte < ' ' || byte == 0x7f)) return false;
    if (*c != '/' && *c != '\0') continue;
    if (c - part == 2 && part[0] == '.' && part[1] == '.') return false;
    if (*c == '\0') return true;
    part = c + 1;
  }
}

// Logs the refusal, without the control characters that may be the reason. Returns -1.
int refuse(const char* path) {
  char shown[256];
  std::size_t length = 0;
  for (; path[length] != '\0' && length < sizeof shown - 1; ++length) {
    const auto byte = static_cast<unsigned char>(path[length]);
    shown[length] = byte < ' ' || byte == 0x7f ? '?' : path[length];
  }
  shown[length] = '\0';
  logEx(2, "unsafe path refused: %s", shown);
  errno = EACCES;
  return -1;
}

// A descriptor that closes itself and keeps errno.
class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() { reset(-1); }
  void reset(int fd) {
    const int error = errno;
    if (fd_ >= 0) os::close(fd_);
    fd_ = fd;
    errno = error;
  }
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

// Opens the folder `name` in `parent`, creating it if need be. Below the mount point (`depth` 0) no
// part may be a symbolic link: a storage that somebody plugs in must not lead elsewhere.
int openFolder(int parent, const char* name, int depth) {
  const int flags = O_PATH | O_DIRECTORY | O_CLOEXEC | (depth > 0 ? O_NOFOLLOW : 0);
  int fd = openat(parent, name, flags);
  if (fd < 0 && errno == ENOENT) {
    if (mkdirat(parent, name, kFolderMode) != 0 && errno != EEXIST) return -1;
    fd = openat(parent, name, flags);
  }
  if (fd >= 0 || errno != ENOTDIR) return fd;
  struct stat status {};
  const bool link =
      fstatat(parent, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(status.st_mode);
  errno = link ? ELOOP : ENOTDIR;
  return -1;
}

int openFile(int parent, const char* name, int flags) {
  // Without waiting, so that a pipe under the name of a file can't hold the caller.
  Fd file(openat(parent, name, flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, kFileMode));
  struct stat status {};
  if (file.get() < 0 || fstat(file.get(), &status) != 0) return -1;
  if (S_ISREG(status.st_mode)) return file.release();
  errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
  return -1;
}

}  // namespace

int get_usb_mount_state(int* state) { return getMountState("/usb", state); }

int get_smb_mount_state(int* state) { return getMountState("/smb", state); }

int get_free_space_percent(const char* path) {
  constexpr int kFull = 100;
  char full[PATH_MAX];
  struct statvfs status {};
  if (!rooted(path, full, sizeof full) || statvfs(full, &status) != 0) return kFull;
  // As df counts: of what the superuser alone may fill nothing is free.
  const std::uint64_t used = status.f_blocks - std::min(status.f_bfree, status.f_blocks);
  const std::uint64_t all = used + status.f_bavail;
  if (all == 0) return kFull;
  return static_cast<int>((used * kFull + all - 1) / all);
}

int open2(const char* path, int flags) {
  if (*path != '/' || !isSafe(path)) return refuse(path);
  Fd folder(open(platformRoot().empty() ? "/" : platformRoot().c_str(),
                 O_PATH | O_DIRECTORY | O_CLOEXEC));
  const char* part = path;
  for (int depth = 0; folder.get() >= 0; ++depth) {
    part += std::strspn(part, "/");
    const std::size_t length = std::strcspn(part, "/");
    char name[NAME_MAX + 1];
    if (length > NAME_MAX) {
      errno = ENAMETOOLONG;
      return -1;
    }
    std::memcpy(name, part, length);
    name[length] = '\0';
    const bool last = part[length] == '\0';
    const int fd =
        last ? openFile(folder.get(), name, flags) : openFolder(folder.get(), name, depth);
    if (fd < 0 && errno == ELOOP) return refuse(path);
    if (last) return fd;
    folder.reset(fd);
    part += length;
  }
  return -1;
}

int slash(const char* source, char* destination, int capacity, int how) {
  constexpr int kNoLeading = 1;
  constexpr int kLeading = 2;
  constexpr int kNoTrailing = 4;
  constexpr int kTrailing = 8;
  if (capacity < 1) return -1;
  *destination = '\0';
  if (!isSafe(source)) return refuse(source);
  const std::size_t size = std::strlen(source);
  std::size_t begin = 0;
  std::size_t end = size;
  if (how & (kNoLeading | kLeading)) begin = std::strspn(source, "/");
  if (how & (kNoTrailing | kTrailing))
    while (end > begin && source[end - 1] == '/') --end;
  // Of slashes alone one is left, where one is wanted and none forbidden.
  const bool bare = begin == end;
  if (size == 0 || (bare && (how & (kNoLeading | kNoTrailing)))) return 0;
  const bool leading = (how & kLeading) != 0;
  const bool trailing = (how & kTrailing) != 0 && !(bare && leading);
  const std::size_t length = end - begin + (leading ? 1 : 0) + (trailing ? 1 : 0);
  if (length >= static_cast<std::size_t>(capacity)) {
    logEx(2, "path too long: %s", source);
    return -1;
  }
  char* out = destination;
  if (leading) *out++ = '/';
  out = std::copy(source + begin, source + end, out);
  if (trailing) *out++ = '/';
  *out = '\0';
  return static_cast<int>(length);
}
