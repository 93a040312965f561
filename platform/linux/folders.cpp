#include "platform/linux/folders.h"

#include <sys/stat.h>

#include <cerrno>

bool makeFolders(const std::string& path) {
  constexpr mode_t kMode = 0750;
  // From the longest part that exists onwards would save calls, but this runs once per file at
  // most.
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1))
    if (mkdir(path.substr(0, slash).c_str(), kMode) != 0 && errno != EEXIST && errno != EROFS &&
        errno != EACCES)
      return false;
  if (mkdir(path.c_str(), kMode) == 0) return true;
  struct stat found {};
  const int error = errno;
  if (stat(path.c_str(), &found) == 0 && S_ISDIR(found.st_mode)) return true;
  errno = error == EEXIST ? ENOTDIR : error;
  return false;
}
