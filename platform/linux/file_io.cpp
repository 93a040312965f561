#include "platform/linux/file_io.h"

#include <unistd.h>

#include <cerrno>

off_t writeAt(int fd, iovec* parts, int count, off_t at) {
  off_t written = 0;
  while (count > 0) {
    if (parts->iov_len == 0) {
      ++parts;
      --count;
      continue;
    }
    const ssize_t length = pwritev(fd, parts, count, at + written);
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) {
      if (length == 0) errno = EIO;  // no file does that
      return written;
    }
    written += length;
    std::size_t left = static_cast<std::size_t>(length);
    while (count > 0 && left >= parts->iov_len) {
      left -= parts->iov_len;
      ++parts;
      --count;
    }
    if (count == 0) break;
    parts->iov_base = static_cast<char*>(parts->iov_base) + left;
    parts->iov_len -= left;
  }
  return written;
}

bool writeAt(int fd, const void* data, std::size_t size, off_t at) {
  iovec part{const_cast<void*>(data), size};
  return writeAt(fd, &part, 1, at) == static_cast<off_t>(size);
}

long readAt(int fd, void* data, std::size_t size, off_t at) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t length =
        pread(fd, static_cast<char*>(data) + done, size - done, at + static_cast<off_t>(done));
    if (length < 0 && errno == EINTR) continue;
    if (length < 0) return -1;
    if (length == 0) break;
    done += static_cast<std::size_t>(length);
  }
  return static_cast<long>(done);
}

bool resizeFile(int fd, off_t size) {
  int result = 0;
  do result = ftruncate(fd, size);
  while (result != 0 && errno == EINTR);
  return result == 0;
}
