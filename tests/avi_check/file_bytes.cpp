// Bytes of a file, by their offset.
#include "tests/avi_check/file_bytes.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

FileBytes::FileBytes(const std::string& file)
    : fd_(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK)) {
  struct stat status {};
  if (fd_ >= 0 && fstat(fd_, &status) == 0 && S_ISREG(status.st_mode)) {
    size_ = static_cast<std::uint64_t>(status.st_size);
  } else if (fd_ >= 0) {
    close(fd_);
    fd_ = -1;
  }
}

FileBytes::~FileBytes() {
  if (fd_ >= 0) close(fd_);
}

bool FileBytes::read(std::uint64_t offset, void* to, std::size_t length) {
  if (offset > size_ || length > size_ - offset) return false;
  auto* out = static_cast<char*>(to);
  while (length > 0) {
    if (offset < windowAt_ || offset - windowAt_ >= windowLength_) {
      const ssize_t got = pread(fd_, window_.data(), kWindow, static_cast<off_t>(offset));
      if (got <= 0) return false;  // became shorter meanwhile
      windowAt_ = offset;
      windowLength_ = static_cast<std::size_t>(got);
    }
    const auto from = static_cast<std::size_t>(offset - windowAt_);
    const std::size_t part = length < windowLength_ - from ? length : windowLength_ - from;
    std::memcpy(out, window_.data() + from, part);
    out += part;
    offset += part;
    length -= part;
  }
  return true;
}
