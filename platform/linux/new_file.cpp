#include "platform/linux/new_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "platform/linux/file_io.h"
#include "platform/linux/safe_path.h"

namespace {

// Beyond them something else is wrong than a few files of the same second.
constexpr int kMostNames = 10000;
constexpr off_t kLockAt = off_t{1} << 42;

int create(int folder, const char* name) {
  int fd = -1;
  do fd = openat(folder, name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, kFileMode);
  while (fd < 0 && errno == EINTR);
  return fd;
}

}  // namespace

Fd createNewFile(const char* path, char* name, int size) {
  char last[NAME_MAX + 1];
  const Fd folder = openFolderOf(path, Walk::kMake, last);
  if (!folder.valid()) return Fd();
  if (*last == '\0') {
    errno = EISDIR;
    return Fd();
  }
  const int above = static_cast<int>(std::strlen(path) - std::strlen(last));
  const char* const dot = std::strrchr(last, '.');
  const char* const end = dot != nullptr && dot != last ? dot : last + std::strlen(last);
  const int stem = static_cast<int>(end - last);
  for (int number = 0; number < kMostNames; ++number) {
    char suffix[12] = "";
    if (number > 0) std::snprintf(suffix, sizeof suffix, "-%d", number);
    char whole[PATH_MAX];
    const int length = std::snprintf(whole, sizeof whole, "%.*s%.*s%s%s", above, path, stem, last,
                                     suffix, last + stem);
    if (length >= size || length >= PATH_MAX) {
      errno = ENAMETOOLONG;
      return Fd();
    }
    Fd file(create(folder.get(), whole + above));
    if (file.valid()) std::memcpy(name, whole, static_cast<std::size_t>(length) + 1);
    if (file.valid() || errno != EEXIST) return file;
  }
  return Fd();
}

void removeFile(const char* path, int fd) {
  const ErrnoKeeper keeper;
  char last[NAME_MAX + 1];
  const Fd folder = openFolderOf(path, Walk::kLook, last);
  struct stat there {};
  struct stat own {};
  if (folder.valid() && fstat(fd, &own) == 0 &&
      fstatat(folder.get(), last, &there, AT_SYMLINK_NOFOLLOW) == 0 && there.st_dev == own.st_dev &&
      there.st_ino == own.st_ino)
    unlinkat(folder.get(), last, 0);
}

bool lockForWriting(int fd) {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = kLockAt;
  lock.l_len = 1;
  if (fcntl(fd, F_OFD_SETLK, &lock) == 0) return true;
  if (errno == EACCES) errno = EAGAIN;
  return false;
}
