#include "platform/linux/unix_address.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

bool UnixAddress::set(const char* path) {
  clear();
  address = {};
  address.sun_family = AF_UNIX;
  if (std::strlen(path) < sizeof address.sun_path) {
    std::strcpy(address.sun_path, path);
    return true;
  }
  const char* const slash = std::strrchr(path, '/');
  if (slash == nullptr) {
    errno = ENAMETOOLONG;
    return false;
  }
  char parent[PATH_MAX];
  const auto parentLength = static_cast<std::size_t>(slash - path);
  if (parentLength >= sizeof parent) {
    errno = ENAMETOOLONG;
    return false;
  }
  std::memcpy(parent, path, parentLength);
  parent[parentLength] = '\0';
  folder = open(parent, O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (folder < 0) return false;
  const int length =
      std::snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d%s", folder, slash);
  if (length < static_cast<int>(sizeof address.sun_path)) return true;
  clear();
  errno = ENAMETOOLONG;
  return false;
}

void UnixAddress::clear() {
  if (folder >= 0) close(folder);
  folder = -1;
}
