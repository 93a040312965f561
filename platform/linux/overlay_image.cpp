// The overlay image in flash.
#include <climits>
#include <cstdint>
#include <cstring>

#include "platform/bytes.h"
#include "platform/linux/root.h"
#include "platform/log.h"
#include "platform/os.h"
#include "platform/overlay.h"

namespace {

constexpr long kHead = sizeof(TOverlayImage);
constexpr int kPixelBytes = 2;

// Returns true iff all of `length` bytes came: a read may give fewer than it was asked for.
bool readAll(int fd, char* buffer, long length) {
  while (length > 0) {
    const long n = os::read(fd, buffer, static_cast<std::size_t>(length));
    if (n < 1) return false;
    buffer += n;
    length -= n;
  }
  return true;
}

// Reads an image of at most `capacity` bytes. Returns its length; otherwise 0 and why in `*reason`.
// The flash behind the image, which holds anything, is left alone.
long readImage(int fd, char* buffer, long capacity, const char** reason) {
  TOverlayImage head{};
  *reason = "cut off";
  if (!readAll(fd, reinterpret_cast<char*>(&head), kHead)) return 0;
  *reason = "no image";
  if (std::memcmp(head.magic, kOverlayMagic, sizeof head.magic) != 0) return 0;
  const std::int64_t pixels = std::int64_t{loadLe16(head.width)} * loadLe16(head.height);
  if (pixels < 1) return 0;
  *reason = "too large";
  const std::int64_t length = kHead + pixels * kPixelBytes;
  if (length > capacity) return 0;
  std::memcpy(buffer, &head, kHead);
  *reason = "cut off";
  const auto whole = static_cast<long>(length);
  return readAll(fd, buffer + kHead, whole - kHead) ? whole : 0;
}

}  // namespace

int read_overlay_image(char* buffer, long* length, const char* device) {
  const long capacity = *length;
  *length = 0;
  char path[PATH_MAX];
  const char* reason = "can't be opened";
  // Without waiting for the other end of what may be a pipe.
  const int fd = rooted(device, path, sizeof path) ? os::open(path, O_RDONLY | O_NONBLOCK) : -1;
  if (fd >= 0) {
    *length = readImage(fd, buffer, capacity, &reason);
    os::close(fd);
  }
  if (*length > 0) return 0;
  logEx(2, "no overlay image in %s: %s", device, reason);
  return -1;
}
