// AVI recordings as the recorder knows them.
#include <cerrno>
#include <new>
#include <utility>

#include "platform/avi.h"
#include "platform/linux/avi_file.h"
#include "platform/linux/new_file.h"

namespace {

int failed(int error) {
  errno = error;
  return -1;
}

}  // namespace

int aviCreate(AVI_HANDLE* handle) {
  if (handle->file != nullptr) return 0;
  handle->file = new (std::nothrow) AviFile;
  return handle->file != nullptr ? 0 : failed(ENOMEM);
}

int aviRelease(AVI_HANDLE* handle) {
  const int result = aviClose(handle);
  const int error = errno;
  delete handle->file;
  handle->file = nullptr;
  errno = error;
  return result;
}

int aviOpen(AVI_HANDLE* handle, const char* name) {
  if (handle->file == nullptr) return failed(EINVAL);
  if (handle->open) return failed(EBUSY);
  Fd file = createNewFile(name, handle->name, sizeof handle->name);
  if (!file.valid()) return -1;
  lockForWriting(file.get());  // where that is possible
  handle->file->open(std::move(file), handle->rate);
  handle->open = true;
  handle->size = 0;
  return 0;
}

int aviWrite(AVI_HANDLE* handle, const char* data, long length) {
  if (handle->file == nullptr || !handle->file->isOpen()) return failed(EBADF);
  const bool good = handle->file->write(handle->type, handle->header, data, length);
  handle->size = handle->file->size();
  return good ? 0 : -1;
}

int aviClose(AVI_HANDLE* handle) {
  if (handle->file == nullptr || !handle->file->isOpen()) return 0;
  handle->open = false;
  // A file without a picture could be played by nobody.
  if (handle->file->pictures() == 0 && handle->file->size() == 0)
    removeFile(handle->name, handle->file->descriptor());
  const bool good = handle->file->close(handle->rate);
  handle->size = handle->file->size();
  return good ? 0 : -1;
}
