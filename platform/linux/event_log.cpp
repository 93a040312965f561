#include "platform/event_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "platform/linux/event_text.h"
#include "platform/linux/folders.h"
#include "platform/linux/root.h"
#include "platform/log.h"

namespace {

constexpr off_t kLargest = 1 << 20;
constexpr char kFolder[] = "/var/log/camera";
constexpr char kFile[] = "/var/log/camera/events.log";

int openFile(const std::string& path) {
  // Without waiting, should it be a pipe that nobody reads.
  return open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0640);
}

// Returns the event log's descriptor, with room for `length` more bytes; -1 with `errno` otherwise.
int openForLine(std::size_t length) {
  const std::string path = rooted(kFile);
  if (!makeFolders(rooted(kFolder))) return -1;
  for (int attempt = 0; attempt < 2; ++attempt) {
    const int fd = openFile(path);
    struct stat file {};
    if (fd < 0 || fstat(fd, &file) != 0) return fd;
    if (file.st_size + static_cast<off_t>(length) <= kLargest) return fd;
    close(fd);
    if (rename(path.c_str(), (path + ".1").c_str()) != 0) return -1;
  }
  errno = EFBIG;
  return -1;
}

// Appends `line` in one write. Returns 0 or the error number.
int append(const char* line, std::size_t length) {
  const int fd = openForLine(length);
  if (fd < 0) return errno;
  const ssize_t written = write(fd, line, length);
  int error = written < 0 ? errno : 0;
  if (written >= 0 && static_cast<std::size_t>(written) < length) {
    // Half a line would spoil the next one as well. The descriptor stands behind what was written.
    error = ftruncate(fd, lseek(fd, 0, SEEK_CUR) - written) == 0 ? ENOSPC : errno;
  }
  close(fd);
  return error;
}

}  // namespace

void log_event(int id) {
  static std::mutex mutex;
  const std::lock_guard<std::mutex> lock(mutex);
  const time_t now = time(nullptr);
  tm utc{};
  gmtime_r(&now, &utc);
  char stamp[32];
  strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%SZ", &utc);
  char line[200];
  const int printed = std::snprintf(line, sizeof line, "%s %d %s\n", stamp, id, eventText(id));
  const auto length = std::min(static_cast<std::size_t>(printed), sizeof line - 1);
  const int error = append(line, length);
  if (error != 0) logEx(2, "can't write the event log: %s", std::strerror(error));
}
