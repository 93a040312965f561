// Recordings that are the bare stream.
#include <cerrno>

#include "platform/avi.h"
#include "platform/linux/file_io.h"
#include "platform/linux/new_file.h"

int rawOpen(AVI_HANDLE* handle, const char* name) {
  if (handle->fd >= 0) {
    errno = EBUSY;
    return -1;
  }
  Fd file = createNewFile(name, handle->name, sizeof handle->name);
  if (!file.valid()) return -1;
  lockForWriting(file.get());  // where that is possible
  handle->fd = file.release();
  handle->open = true;
  handle->size = 0;
  return 0;
}

int rawWrite(AVI_HANDLE* handle, const char* data, long length) {
  if (handle->fd < 0 || length < 1) {
    errno = handle->fd < 0 ? EBADF : EINVAL;
    return -1;
  }
  if (!writeAt(handle->fd, data, static_cast<std::size_t>(length), handle->size)) {
    const int error = errno;
    resizeFile(handle->fd, handle->size);
    errno = error;
    return -1;
  }
  handle->size += length;
  return 0;
}

int rawClose(AVI_HANDLE* handle) {
  if (handle->fd < 0) return 0;
  const int fd = handle->fd;
  handle->fd = -1;
  handle->open = false;
  return os::close(fd);
}
