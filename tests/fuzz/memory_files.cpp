#include "tests/fuzz/memory_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <map>

#include "tests/fuzz/fuzz.h"

extern "C" {
int __real_open64(const char* path, int flags, ...);
int __real_close(int fd);
int __real_stat64(const char* path, struct stat* status);
int __real_fstat64(int fd, struct stat* status);
int __real_fcntl64(int fd, int command, ...);
ssize_t __real_read(int fd, void* buffer, size_t size);
off_t __real_lseek64(int fd, off_t offset, int whence);
ssize_t __real_pread64(int fd, void* buffer, size_t size, off_t at);
ssize_t __real_pwritev64(int fd, const iovec* parts, int count, off_t at);
int __real_ftruncate64(int fd, off_t size);
int __real_sync_file_range(int fd, off_t from, off_t bytes, unsigned flags);
}

namespace {

struct File {
  std::string bytes;
  ino_t inode = 0;
};
struct Open {
  File* file = nullptr;
  std::size_t place = 0;
};

constexpr std::size_t kFirst = 1 << 20;  // descriptors from here on are ours
constexpr std::int64_t kUsualLimit = 1 << 24;

std::map<std::string, File, std::less<>>& files() {
  static auto* const all = new std::map<std::string, File, std::less<>>;
  return *all;
}
std::array<Open, 16> opened;
std::int64_t longest = kUsualLimit;
long changes = 0;

bool isOurs(const char* path) {
  return std::strncmp(path, memory_files::kMemory, sizeof memory_files::kMemory - 1) == 0;
}
File* find(const char* path) {
  const auto found = files().find(std::string_view(path));
  return found == files().end() ? nullptr : &found->second;
}
Open* open(int fd) {
  const auto index = static_cast<std::size_t>(fd) - kFirst;  // huge for those below
  return index < opened.size() ? &opened[index] : nullptr;
}
int fail(int error) {
  errno = error;
  return -1;
}
void describe(const File& file, struct stat* status) {
  *status = {};
  status->st_mode = S_IFREG | 0640;
  status->st_dev = 4711;
  status->st_ino = file.inode;  // a new one with each content, and long ago
  status->st_size = static_cast<off_t>(file.bytes.size());
}

}  // namespace

void memory_files::put(const std::string& path, const std::string& bytes) {
  File& file = files()[path];
  file.bytes = bytes;
  file.inode = static_cast<ino_t>(++changes);
}

std::string memory_files::content(const std::string& path) {
  const File* const file = find(path.c_str());
  return file == nullptr ? "" : file->bytes;
}

void memory_files::limit(std::int64_t bytes) { longest = bytes; }

void memory_files::clear() {
  for (const Open& one : opened) require(one.file == nullptr, "every file is closed");
  files().clear();
  longest = kUsualLimit;
}

extern "C" {

int __wrap_open64(const char* path, int flags, ...) {
  if (!isOurs(path)) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return __real_open64(path, flags, mode);
  }
  File* const file = find(path);
  if (file == nullptr) return fail(ENOENT);
  const auto free = std::find_if(opened.begin(), opened.end(),
                                 [](const Open& one) { return one.file == nullptr; });
  require(free != opened.end(), "files are closed");
  *free = {file, 0};
  return static_cast<int>(kFirst) + static_cast<int>(free - opened.begin());
}

int __wrap_close(int fd) {
  Open* const one = open(fd);
  if (one == nullptr) return __real_close(fd);
  require(one->file != nullptr, "a file is closed once");
  *one = {};
  return 0;
}

int __wrap_stat64(const char* path, struct stat* status) {
  if (!isOurs(path)) return __real_stat64(path, status);
  const File* const file = find(path);
  if (file == nullptr) return fail(ENOENT);
  describe(*file, status);
  return 0;
}

int __wrap_fstat64(int fd, struct stat* status) {
  const Open* const one = open(fd);
  if (one == nullptr) return __real_fstat64(fd, status);
  describe(*one->file, status);
  return 0;
}

int __wrap_fcntl64(int fd, int command, ...) {
  if (open(fd) != nullptr) return 0;
  va_list arguments;
  va_start(arguments, command);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  return __real_fcntl64(fd, command, argument);
}

ssize_t __wrap_read(int fd, void* buffer, size_t size) {
  Open* const one = open(fd);
  if (one == nullptr) return __real_read(fd, buffer, size);
  const std::string& bytes = one->file->bytes;
  if (one->place >= bytes.size()) return 0;
  const std::size_t length = bytes.copy(static_cast<char*>(buffer), size, one->place);
  one->place += length;
  return static_cast<ssize_t>(length);
}

off_t __wrap_lseek64(int fd, off_t offset, int whence) {
  Open* const one = open(fd);
  if (one == nullptr) return __real_lseek64(fd, offset, whence);
  if (whence != SEEK_SET || offset < 0) return fail(EINVAL);
  one->place = static_cast<std::size_t>(offset);
  return offset;
}

ssize_t __wrap_pread64(int fd, void* buffer, size_t size, off_t at) {
  const Open* const one = open(fd);
  if (one == nullptr) return __real_pread64(fd, buffer, size, at);
  if (at < 0) return fail(EINVAL);
  const std::string& bytes = one->file->bytes;
  if (static_cast<std::size_t>(at) >= bytes.size()) return 0;
  return static_cast<ssize_t>(
      bytes.copy(static_cast<char*>(buffer), size, static_cast<std::size_t>(at)));
}

ssize_t __wrap_pwritev64(int fd, const iovec* parts, int count, off_t at) {
  Open* const one = open(fd);
  if (one == nullptr) return __real_pwritev64(fd, parts, count, at);
  if (at < 0) return fail(EINVAL);
  std::string& bytes = one->file->bytes;
  ssize_t written = 0;
  for (int i = 0; i < count; ++i) {
    const std::int64_t room = std::max<std::int64_t>(longest - at - written, 0);
    const auto part = static_cast<std::size_t>(
        std::min<std::int64_t>(room, static_cast<std::int64_t>(parts[i].iov_len)));
    const auto place = static_cast<std::size_t>(at + written);
    if (part > 0) {
      if (bytes.size() < place + part) bytes.resize(place + part);
      std::memcpy(&bytes[place], parts[i].iov_base, part);
    }
    written += static_cast<ssize_t>(part);
    if (part < parts[i].iov_len) return written > 0 ? written : fail(ENOSPC);
  }
  return written;
}

int __wrap_ftruncate64(int fd, off_t size) {
  Open* const one = open(fd);
  if (one == nullptr) return __real_ftruncate64(fd, size);
  if (size < 0) return fail(EINVAL);
  std::string& bytes = one->file->bytes;
  if (size > longest && static_cast<std::size_t>(size) > bytes.size()) return fail(ENOSPC);
  bytes.resize(static_cast<std::size_t>(size));
  return 0;
}

int __wrap_sync_file_range(int fd, off_t from, off_t bytes, unsigned flags) {
  return open(fd) != nullptr ? 0 : __real_sync_file_range(fd, from, bytes, flags);
}

}  // extern "C"
