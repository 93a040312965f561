// Stands in for the recording files until they are there: weak, so that the real ones take over.
#include <cerrno>

#include "platform/avi.h"

#define VS_ABSENT __attribute__((weak))

namespace {
int absent() {
  errno = ENOSYS;
  return -1;
}
}  // namespace

VS_ABSENT int aviCreate(AVI_HANDLE* /*handle*/) { return absent(); }
VS_ABSENT int aviRelease(AVI_HANDLE* /*handle*/) { return 0; }
VS_ABSENT int aviOpen(AVI_HANDLE* /*handle*/, const char* /*name*/) { return absent(); }
VS_ABSENT int aviWrite(AVI_HANDLE* /*handle*/, const char* /*data*/, long /*length*/) {
  return absent();
}
VS_ABSENT int aviClose(AVI_HANDLE* /*handle*/) { return absent(); }
VS_ABSENT int rawOpen(AVI_HANDLE* /*handle*/, const char* /*name*/) { return absent(); }
VS_ABSENT int rawWrite(AVI_HANDLE* /*handle*/, const char* /*data*/, long /*length*/) {
  return absent();
}
VS_ABSENT int rawClose(AVI_HANDLE* /*handle*/) { return absent(); }
