#include "capture/camera.h"

#include <algorithm>

#include "core/status_slots.h"
#include "platform/log.h"
#include "platform/os.h"
#include "platform/stream_buffer.h"
#include "record/jpg_writer.h"

namespace {

// Replaces one field of the status word; a word that stays the same is not written.
void publishStatus(const TBitField& field, int value) {
  const int word = sbGetUserdata(sbVideo(), kSlotStatus);
  const int changed = field.put(word, value);
  if (changed != word) sbSetUserdata(sbVideo(), kSlotStatus, changed);
}

// Intended: the format word is written in any case, unlike the status word, so that whoever waits
// for it sees that a setting was made.
void publishFormat(const TBitField& field, int value) {
  const int word = sbGetUserdata(sbVideo(), kSlotFormat);
  sbSetUserdata(sbVideo(), kSlotFormat, field.put(word, value));
}

void checkVideo2() {
  if (sbVideo2() == nullptr) logEx(3, "sbVideo2() is null");
}

}  // namespace

Relaxed<int> TCamera::defMode = 1;

TCamera::TCamera(const char* path) : fd_(os::open(path, O_RDONLY)), mode_(defMode) {
  if (fd_ < 0) logEx(3, "can't open %s", path);
  lastRead_.set();
}

TCamera::~TCamera() {
  jpgWriter()->delRef(this);
  if (fd_ >= 0) os::close(fd_);
}

int TCamera::getMode() { return mode_; }

int TCamera::ioctl(int request, void* argument, const char* name) {
  // Through unsigned, so that a request with its highest bit set is not widened by sign.
  const int result = os::ioctl(fd_, static_cast<unsigned>(request), argument);
  if (result < 0) logEx(3, "ioctl(%s) fail", name);
  return result;
}

int TCamera::getImage(char* buffer, long length) {
  if (interval_ > 0) pace();
  lastRead_.set();
  return static_cast<int>(os::read(fd_, buffer, static_cast<std::size_t>(std::max(length, 0L))));
}

// The time of the last read is wall-clock time, because it is published. A clock that was set back
// in between makes the span negative and must not stretch the pause: the interval is its limit.
void TCamera::pace() const {
  TDateTime now;
  now.set();
  const long passed = std::max((now - lastRead_).getTotal(kFieldTotalUs), 0L);
  if (passed < interval_) os::usleep(static_cast<unsigned long>(interval_ - passed));
}

void TCamera::setMode(int mode) {
  switch (mode) {
    case 1:
      break;
    case 3:
      jpgWriter()->addRef(this);
      [[fallthrough]];
    case 0:
    case 2:
      checkVideo2();
      break;
    // Intended: stored and published all the same, so that readers see what was asked for.
    default:
      logEx(3, "TCamera::setMode() Unsupported mode: %d", mode);
  }
  mode_ = mode;
  publishStatus(kStatusMode, mode);
}

int TCamera::setFramerate(int framerate) {
  framerate_ = framerate;
  publishStatus(kStatusFramerate, framerate);
  return 0;
}

int TCamera::setIpratio(int ipratio) {
  ipratio_ = ipratio;
  // Unsigned, because any number may come and only the low byte goes.
  const auto published = static_cast<unsigned>(ipratio) - static_cast<unsigned>(kIpratioOffset);
  publishStatus(kStatusIpratio, static_cast<int>(published));
  return 0;
}

void TCamera::setResolution(int resolution) {
  resolution_ = resolution;
  publishFormat(kFormatResolution, resolution);
}

int TCamera::setCompression(int compression) {
  compression_ = compression;
  publishFormat(kFormatCompression, compression);
  return 0;
}

int TCamera::setSource(int source) {
  source_ = source;
  return 0;
}

int TCamera::setMotionDetection(int /*windows*/) { return 0; }
void TCamera::setOverlay(int /*overlay*/) {}
void TCamera::setTimestamp() {}
void TCamera::setPackage(int package) { package_ = package; }
int TCamera::getMotionStatus(int /*window*/) { return 0; }
int TCamera::setExposure(int exposure) {
  exposure_ = exposure;
  return 0;
}
int TCamera::setWhiteBalance(int whiteBalance) {
  whiteBalance_ = whiteBalance;
  return 0;
}
int TCamera::setNoiseReduction(int noiseReduction) {
  noiseReduction_ = noiseReduction;
  return 0;
}
int TCamera::setBacklight(int backlight) {
  backlight_ = backlight;
  return 0;
}
int TCamera::setShutter(int shutter) {
  shutter_ = shutter;
  return 0;
}
int TCamera::setFlip(int flip) {
  flip_ = flip;
  return 0;
}
int TCamera::setMirror(int mirror) {
  mirror_ = mirror;
  return 0;
}
void TCamera::setContrast(int contrast) { contrast_ = contrast; }
void TCamera::setBrightness(int brightness) { brightness_ = brightness; }
void TCamera::setHue(int hue) { hue_ = hue; }
void TCamera::setSaturation(int saturation) { saturation_ = saturation; }
int TCamera::setFlicker(int flicker) {
  flicker_ = flicker;
  return 0;
}
void TCamera::getUserdata(int /*which*/, char* text) { *text = '\0'; }
const TDateTime* TCamera::getTime() { return &lastRead_; }
