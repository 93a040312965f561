// Stores pictures on USB storage.
#include "record/usb_recorder.h"

#include "platform/event_log.h"
#include "platform/log.h"
#include "platform/os.h"
#include "platform/storage.h"

namespace {

constexpr const char* kStorage = "/usb";
constexpr int kFullPercent = 96;  // used; the rest is left for what else goes to the storage

constexpr int kEventNotMounted = 515;
constexpr int kEventNotStored = 517;

// Returns the number of bytes that could be written, which is less than `length` on an error.
long writeAll(int fd, const char* data, long length) {
  long written = 0;
  while (written < length) {
    const long count = os::write(fd, data + written, static_cast<std::size_t>(length - written));
    if (count < 1) break;
    written += count;
  }
  return written;
}

}  // namespace

bool TUsbRecorder::onCapture(const char* data, long length) {
  int mounted = 0;
  if (get_usb_mount_state(&mounted) != 0) {
    // Intended: the picture is lost, the recording goes on, and the next picture asks again.
    logEx(2, "get_usb_mount_state() fail");
    return true;
  }
  if (mounted == 0) {
    log_event(kEventNotMounted);
    return false;
  }
  if (get_free_space_percent(kStorage) >= kFullPercent) {
    os::system("ptcmd BTONE=1 &");
    log_event(kEventNotStored);
    return false;
  }
  const int fd = open2(fileName(), O_WRONLY | O_CREAT);
  if (fd < 0) {
    log_event(kEventNotStored);
    return false;
  }
  if (writeAll(fd, data, length) < length) log_event(kEventNotStored);
  os::close(fd);
  return true;
}
