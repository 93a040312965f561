#include "capture/devices/file_source.h"

#include <unistd.h>

#include <cstdint>

#include "platform/log.h"
#include "platform/os.h"

namespace {
// Comes on top of the pacing and keeps every rate below 50 frames per second.
constexpr unsigned long kReadPauseUs = 20000;
}  // namespace

TFileSource::~TFileSource() = default;

int TFileSource::getImage(char* buffer, long length) {
  const int read = TCamera::getImage(buffer, length);
  if (read < length) os::lseek(fd_, 0, SEEK_SET);
  if (read > 0)
    os::usleep(kReadPauseUs);
  else
    logEx(3, "reading file source return %d", read);
  return read;
}

// Intended: the step is cut to a signed byte. So rates 15 to 30 give no pacing, and rate 32 paces
// like rate 0.
int TFileSource::setFramerate(int framerate) {
  const int result = TCamera::setFramerate(framerate);
  if (framerate < 0) return result;
  const auto step = static_cast<std::int8_t>((static_cast<unsigned>(framerate) + 1) * 8);
  interval_ = step > 0 ? 900 / step * 1000 : 0;
  return result;
}
