#include "tests/platform/write_faults.h"

#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace {
WriteFaults* faults = nullptr;
}  // namespace

extern "C" {
ssize_t __real_pwritev64(int fd, const iovec* parts, int count, off_t at);
int __real_ftruncate64(int fd, off_t size);

ssize_t __wrap_pwritev64(int fd, const iovec* parts, int count, off_t at) {
  if (faults == nullptr) return __real_pwritev64(fd, parts, count, at);
  std::string all;
  for (int i = 0; i < count; ++i)
    all.append(static_cast<const char*>(parts[i].iov_base), parts[i].iov_len);
  return faults->write(fd, all.data(), all.size(), at);
}

int __wrap_ftruncate64(int fd, off_t size) {
  return faults != nullptr ? faults->resize(fd, size) : __real_ftruncate64(fd, size);
}
}

WriteFaults::WriteFaults() { faults = this; }
WriteFaults::~WriteFaults() { faults = nullptr; }

void NotedWrite::apply(std::string* file) const {
  const auto place = static_cast<std::size_t>(at);
  if (resize) return file->resize(place);
  if (file->size() < place + data.size()) file->resize(place + data.size());
  file->replace(place, data.size(), data);
}

void WriteFaults::failCall(int calls, int error) {
  failCall_ = calls;
  callError_ = error;
}

long WriteFaults::write(int fd, const char* data, std::size_t size, std::int64_t at) {
  ++calls_;
  if (failCall_ >= 0 && failCall_-- == 0) {
    errno = callError_;
    return -1;
  }
  if (hesitate_ && calls_ % 3 == 0) {
    errno = EINTR;
    return -1;
  }
  if (hesitate_) size = std::max<std::size_t>(1, size * (1 + calls_ % 4) / 4);
  if (at >= room_) {
    errno = error_;
    return -1;
  }
  size =
      static_cast<std::size_t>(std::min<std::int64_t>(static_cast<std::int64_t>(size), room_ - at));
  iovec part{const_cast<char*>(data), size};
  const ssize_t written = __real_pwritev64(fd, &part, 1, at);
  if (written > 0) writes_.push_back({at, std::string(data, static_cast<std::size_t>(written))});
  return written;
}

int WriteFaults::resize(int fd, std::int64_t size) {
  const int result = __real_ftruncate64(fd, size);
  if (result == 0) writes_.push_back({size, "", true});
  return result;
}
