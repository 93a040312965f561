// The folders of continuous recordings: which is the oldest, and making room for new ones.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>

#include "platform/linux/safe_path.h"
#include "platform/storage.h"

namespace {

struct CloseFolder {
  void operator()(DIR* folder) const {
    const int error = errno;
    closedir(folder);
    errno = error;
  }
};
using Folder = std::unique_ptr<DIR, CloseFolder>;

using Name = char[NAME_MAX + 1];

std::size_t digits(const char* text) { return std::strspn(text, "0123456789"); }

bool isDay(const char* name) { return digits(name) == 8 && name[8] == '\0'; }

// Where the number of a recording's name begins, "17" of "120000-17.avi"; null when it is no
// recording's name. Where there is no number, the extension begins there.
const char* recordingNumber(const char* name) {
  constexpr std::size_t kTimeDigits = 6;
  if (digits(name) != kTimeDigits) return nullptr;
  const char* number = name + kTimeDigits;
  if (*number == '-') {
    ++number;
    if (digits(number) == 0) return nullptr;
  }
  const char* const extension = number + digits(number);
  const bool known = std::strcmp(extension, ".avi") == 0 || std::strcmp(extension, ".raw") == 0;
  return known ? number : nullptr;
}

bool isRecording(const char* name) { return recordingNumber(name) != nullptr; }

bool dayIsOlder(const char* a, const char* b) { return std::strcmp(a, b) < 0; }

// By the time of day; among those of the same second the one without a number is the oldest, and
// "-2" is older than "-10".
bool recordingIsOlder(const char* a, const char* b) {
  const int time = std::strncmp(a, b, 6);
  if (time != 0) return time < 0;
  const auto significant = [](const char* name) {
    const char* const number = recordingNumber(name);
    return number + std::strspn(number, "0");
  };
  const char* const numberA = significant(a);
  const char* const numberB = significant(b);
  const std::size_t lengthA = digits(numberA);
  const std::size_t lengthB = digits(numberB);
  if (lengthA != lengthB) return lengthA < lengthB;
  const int number = std::strncmp(numberA, numberB, lengthA);
  return number != 0 ? number < 0 : std::strcmp(a, b) < 0;
}

// Returns true iff the entry itself, and not what it leads to, is of the type `wanted`
// (S_IFDIR...).
bool isOfType(int folder, const dirent& entry, mode_t wanted) {
  if (entry.d_type != DT_UNKNOWN) return entry.d_type == IFTODT(wanted);
  struct stat status {};
  return fstatat(folder, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
         (status.st_mode & S_IFMT) == wanted;
}

// Keeps `entry` in `oldest`, empty so far or older ones', when it is one of these and older.
void keepOlder(int folder, const dirent& entry, mode_t type,
               bool (*isOlder)(const char*, const char*), Name& oldest) {
  if (*oldest != '\0' && !isOlder(entry.d_name, oldest)) return;
  if (isOfType(folder, entry, type)) std::strcpy(oldest, entry.d_name);
}

// Finds the oldest entry of `folder`, which is read once. Returns false with `errno`.
bool findOldest(DIR* folder, Name& oldest) {
  Name recording = "";
  *oldest = '\0';
  errno = 0;
  while (const dirent* const entry = readdir(folder)) {
    if (isDay(entry->d_name))
      keepOlder(dirfd(folder), *entry, S_IFDIR, dayIsOlder, oldest);
    else if (*oldest == '\0' && isRecording(entry->d_name))
      keepOlder(dirfd(folder), *entry, S_IFREG, recordingIsOlder, recording);
    errno = 0;
  }
  if (errno != 0) return false;
  if (*oldest == '\0') std::strcpy(oldest, recording);
  errno = ENOENT;
  return *oldest != '\0';
}

}  // namespace

int get_oldest_name(const char* folder, char* name, int size) {
  if (size > 0) *name = '\0';
  const Fd path = openFolder(folder, Walk::kLook);
  if (!path.valid()) return -1;
  Fd readable(openat(path.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!readable.valid()) return -1;
  const Folder entries(fdopendir(readable.get()));
  if (!entries) return -1;
  readable.release();
  Name oldest;
  if (!findOldest(entries.get(), oldest)) return -1;

  std::size_t length = std::strlen(folder);
  while (length > 0 && folder[length - 1] == '/') --length;
  if (size < 1 || length + 1 + std::strlen(oldest) >= static_cast<std::size_t>(size)) {
    errno = ENAMETOOLONG;
    return -1;
  }
  char* const end = std::copy(folder, folder + length, name);
  *end = '/';
  std::strcpy(end + 1, oldest);
  return 0;
}

int get_folder(const char* path, char* folder, int size) {
  if (size > 0) *folder = '\0';
  if (*path != '/' || !isSafePath(path)) return refusePath(path);
  std::size_t end = std::strlen(path);
  const auto skipBack = [&](bool slashes) {
    while (end > 0 && (path[end - 1] == '/') == slashes) --end;
  };
  skipBack(true);
  skipBack(false);
  skipBack(true);
  errno = end == 0 ? ENOENT : ENAMETOOLONG;
  if (end == 0 || size < 1 || end >= static_cast<std::size_t>(size)) return -1;
  *std::copy(path, path + end, folder) = '\0';
  return 0;
}

bool test_dir(const char* path) { return openFolder(path, Walk::kLook).valid(); }

int mkdir2(const char* path) {
  if (openFolder(path, Walk::kMake).valid()) return 0;
  return errno == ELOOP ? refusePath(path) : -1;
}
