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

#include "platform/linux/mounts.h"
#include "platform/linux/root.h"
#include "platform/linux/safe_path.h"
#include "platform/log.h"
#include "platform/os.h"

namespace {

int getMountState(const char* mountPoint, int* state) {
  char path[PATH_MAX];
  if (!rooted(mountPoint, path, sizeof path)) return -1;
  const int mounted = mountState("/proc/self/mountinfo", path);
  if (mounted < 0) return -1;
  *state = mounted;
  return 0;
}

// Returns true iff it is a file; otherwise `errno` tells what is wrong with it.
bool isFile(const struct stat& status) {
  if (S_ISREG(status.st_mode)) return true;
  errno = S_ISDIR(status.st_mode) ? EISDIR : S_ISLNK(status.st_mode) ? ELOOP : EINVAL;
  return false;
}

// What has the name already is looked at before it is opened: on a storage that somebody plugs in
// it may be a device, which does something when it is opened.
int openFile(int parent, const char* name, int flags) {
  // Without waiting, so that a pipe under the name of a file can't hold the caller.
  const int always = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
  if ((flags & O_CREAT) != 0) {
    const int made = openat(parent, name, flags | O_EXCL | always, kFileMode);
    if (made >= 0 || errno != EEXIST || (flags & O_EXCL) != 0) return made;
  }
  struct stat status {};
  if (fstatat(parent, name, &status, AT_SYMLINK_NOFOLLOW) != 0 || !isFile(status)) return -1;
  Fd file(openat(parent, name, (flags & ~O_CREAT) | always));
  return file.valid() && fstat(file.get(), &status) == 0 && isFile(status) ? file.release() : -1;
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
  char name[NAME_MAX + 1];
  const Fd folder = openFolderOf(path, Walk::kMake, name);
  const int fd = folder.valid() ? openFile(folder.get(), name, flags) : -1;
  return fd < 0 && errno == ELOOP ? refusePath(path) : fd;
}

int slash(const char* source, char* destination, int capacity, int how) {
  constexpr int kNoLeading = 1;
  constexpr int kLeading = 2;
  constexpr int kNoTrailing = 4;
  constexpr int kTrailing = 8;
  if (capacity < 1) return -1;
  *destination = '\0';
  if (!isSafePath(source)) return refusePath(source);
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
