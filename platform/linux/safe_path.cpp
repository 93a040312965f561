#include "platform/linux/safe_path.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "platform/linux/printable.h"
#include "platform/linux/root.h"
#include "platform/log.h"

namespace {

constexpr char kShare[] = "smb";  // the mount point that is nothing without its mount

// Returns true iff something is mounted on `folder`, a part of `parent`. Asks no server.
bool isMountRoot(int parent, int folder) {
  struct statx about {};
  const int quiet = AT_EMPTY_PATH | AT_STATX_DONT_SYNC;
  if (statx(folder, "", quiet, 0, &about) == 0 &&
      (about.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) != 0)
    return (about.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
  // An older kernel does not tell; another device does, for all but a folder of the same one.
  struct stat outside {};
  struct stat inside {};
  return fstat(parent, &outside) == 0 && fstat(folder, &inside) == 0 &&
         outside.st_dev != inside.st_dev;
}

// Opens the folder `name` in `parent`, the part number `depth` of a path.
Fd step(int parent, const char* name, int depth, Walk walk) {
  const int flags = O_PATH | O_DIRECTORY | O_CLOEXEC | (depth > 0 ? O_NOFOLLOW : 0);
  const bool share = walk == Walk::kMake && depth == 0 && std::strcmp(name, kShare) == 0;
  Fd fd(openat(parent, name, flags));
  if (share) {
    if (fd.valid() && isMountRoot(parent, fd.get())) return fd;
    errno = ENODEV;
    return Fd();
  }
  if (!fd.valid() && errno == ENOENT && walk == Walk::kMake) {
    if (mkdirat(parent, name, kFolderMode) != 0 && errno != EEXIST) return Fd();
    fd.reset(openat(parent, name, flags));
  }
  if (fd.valid() || errno != ENOTDIR) return fd;
  struct stat status {};
  const bool link =
      fstatat(parent, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(status.st_mode);
  errno = link ? ELOOP : ENOTDIR;
  return fd;
}

// Takes the part at the beginning of `path` into `name`. Returns where it ends, null with `errno`
// when it is too long.
const char* takePart(const char* path, char (&name)[NAME_MAX + 1]) {
  const std::size_t length = std::strcspn(path, "/");
  if (length > NAME_MAX) {
    errno = ENAMETOOLONG;
    return nullptr;
  }
  std::memcpy(name, path, length);
  name[length] = '\0';
  return path + length;
}

Fd openRoot(const char* path) {
  if (*path != '/' || !isSafePath(path)) {
    refusePath(path);
    return Fd();
  }
  return Fd(open(platformRoot().empty() ? "/" : platformRoot().c_str(),
                 O_PATH | O_DIRECTORY | O_CLOEXEC));
}

// Opens the folders of `path` one in the other; the last part, which `name` becomes, iff `wholly`.
Fd walkDown(const char* path, Walk walk, bool wholly, char (&name)[NAME_MAX + 1]) {
  Fd folder = openRoot(path);
  const char* part = path;
  for (int depth = 0; folder.valid();) {
    part = takePart(part + std::strspn(part, "/"), name);
    if (part == nullptr) return Fd();
    if (wholly ? *name == '\0' : *part == '\0') break;
    if (std::strcmp(name, ".") == 0) continue;
    folder = step(folder.get(), name, depth++, walk);
  }
  return folder;
}

}  // namespace

bool isSafePath(const char* path) {
  const char* part = path;
  for (const char* c = path;; ++c) {
    if (*c != '\0' && isControl(*c)) return false;
    if (*c != '/' && *c != '\0') continue;
    if (c - part == 2 && part[0] == '.' && part[1] == '.') return false;
    if (*c == '\0') return true;
    part = c + 1;
  }
}

int refusePath(const char* path) {
  char shown[256];
  std::size_t length = 0;
  for (; path[length] != '\0' && length < sizeof shown - 1; ++length) {
    shown[length] = isControl(path[length]) ? '?' : path[length];
  }
  shown[length] = '\0';
  logEx(2, "unsafe path refused: %s", shown);
  errno = EACCES;
  return -1;
}

Fd openFolderOf(const char* path, Walk walk, char (&name)[NAME_MAX + 1]) {
  return walkDown(path, walk, false, name);
}

Fd openFolder(const char* path, Walk walk) {
  char name[NAME_MAX + 1];
  return walkDown(path, walk, true, name);
}
