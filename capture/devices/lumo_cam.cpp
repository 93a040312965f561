#include "capture/devices/lumo_cam.h"

#include <algorithm>
#include <cstring>

#include "capture/chunk_trailer.h"
#include "platform/event_log.h"
#include "platform/log.h"
#include "platform/media.h"
#include "platform/mpg430.h"
#include "platform/os.h"
#include "platform/stream_buffer.h"
#include "platform/vicam.h"
#include "record/jpg_writer.h"

namespace {

constexpr int kEventPictureCut = 604;

// The indices of the two larger pictures of the sensor, and the sizes of its three.
constexpr int kIndex640x480 = 7;
constexpr int kIndex320x240 = 8;

constexpr int kColourMax = 255;
constexpr int kColourUnit = 256;  // the driver's scale has 16 bits

// Pictures per second for the daemon's frame-rate setting.
constexpr int kPicturesPerSecond[] = {30, 15, 10, 7, 6, 5, 3, 3, 2, 2};

std::int32_t rateCode(int rate) {
  const bool known = rate >= 0 && rate < static_cast<int>(std::size(kPicturesPerSecond));
  return known ? kPicturesPerSecond[rate] : 1;
}

// JPEG quality for the compression setting. Intended: only these four settings have their own.
std::int32_t jpegQuality(int compression) {
  switch (compression) {
    case 5:
      return 79;
    case 6:
      return 65;
    case 12:
      return 24;
    case 16:
      return 2;
    default:
      return 50;
  }
}

int cutColour(int value) { return std::clamp(value, 0, kColourMax); }

std::uint16_t scaleColour(int value) { return static_cast<std::uint16_t>(value * kColourUnit); }

// The two sides of the camera that a mode uses. Intended: in mode 3 the encoder keeps its settings.
bool usesSensor(int mode) { return mode >= 1; }
bool usesEncoder(int mode) { return mode == 0 || mode == 2; }

// Writes the size at `header` where an MPEG-4 video object layer header has it, from bit 108 on:
// width and height with 13 bits each, a marker bit in front of and behind the height. Intended:
// the markers are zero, as is all the rest, because this is no such header.
void storeSize(unsigned char* header, unsigned width, unsigned height) {
  header[13] = static_cast<unsigned char>((width >> 9) & 0x0F);
  header[14] = static_cast<unsigned char>(width >> 1);
  header[15] = static_cast<unsigned char>((width & 1) << 7 | ((height >> 7) & 0x3F));
  header[16] = static_cast<unsigned char>((height & 0x7F) << 1);
}

}  // namespace

std::uint32_t TLumoCam::calls = 0;
std::optional<int> TLumoCam::sizeIsOf;

TLumoCam::TLumoCam() : TMpg430(false), sensor_(os::open("/dev/video0", O_RDONLY)) {
  if (sensor_ >= 0)
    enableStream(1);
  else
    logEx(3, "can't open /dev/video0");
}

TLumoCam::~TLumoCam() {
  if (sensor_ >= 0) os::close(sensor_);
}

// --- Requests

int TLumoCam::ioctl2(unsigned request, void* argument, const char* name) {
  const int result = os::ioctl(sensor_, request, argument);
  if (result < 0) logEx(3, "ioctl(VICAM_IOC_%s) fail", name);
  return result;
}

int TLumoCam::setSensor(unsigned request, int value, int* setting, const char* name) {
  std::int32_t argument = value;
  const int result = ioctl2(request, &argument, name);
  if (result < 0) return result;
  *setting = argument;
  return argument;
}

// Sets the size of the sensor's pictures.
int TLumoCam::setWindow(int width, int height) {
  TVideoWindow window{};
  window.width = static_cast<std::uint32_t>(width);
  window.height = static_cast<std::uint32_t>(height);
  return ioctl2(kVidiocswin, &window, "VIDIOCSWIN");
}

// --- Settings of the sensor alone

int TLumoCam::setBacklight(int backlight) {
  return setSensor(kVicamSetBacklight, backlight, &backlight_, "SET_BACKLIGHT");
}

int TLumoCam::setShutter(int shutter) {
  return setSensor(kVicamSetMaxshutter, shutter, &shutter_, "SET_MAXSHUTTER");
}

int TLumoCam::setMirror(int mirror) {
  return setSensor(kVicamSetMirror, mirror, &mirror_, "SET_MIRROR");
}

int TLumoCam::setExposure(int exposure) {
  return setSensor(kVicamSetExposure, exposure, &exposure_, "SET_EXPOSURE");
}

int TLumoCam::setFlicker(int mode) {
  return setSensor(kVicamSetFlickerMode, mode, &flicker_, "SET_FLICKER_MODE");
}

int TLumoCam::setWhiteBalance(int whiteBalance) {
  return setSensor(kVicamSetBalance, whiteBalance, &whiteBalance_, "SET_BALANCE");
}

int TLumoCam::setNoiseReduction(int noiseReduction) {
  return setSensor(kVicamSetNoisefilter, noiseReduction, &noiseReduction_, "SET_NOISEFILTER");
}

int TLumoCam::setFlip(int flip) { return setSensor(kVicamSetFlip, flip, &flip_, "SET_FLIP"); }

void TLumoCam::setContrast(int contrast) { TMpg430::setContrast(cutColour(contrast)); }
void TLumoCam::setBrightness(int brightness) { TMpg430::setBrightness(cutColour(brightness)); }
void TLumoCam::setHue(int hue) { TMpg430::setHue(cutColour(hue)); }
void TLumoCam::setSaturation(int saturation) { TMpg430::setSaturation(cutColour(saturation)); }

// Intended: unlike in the encoder's record, no value is centred on 127.
int TLumoCam::setImage() {
  TVideoPicture picture{};
  const int result = ioctl2(kVidiocgpict, &picture, "VIDIOCGPICT");
  if (result < 0) return result;
  picture.brightness = scaleColour(brightness_);
  picture.hue = scaleColour(hue_);
  picture.colour = scaleColour(saturation_);
  picture.contrast = scaleColour(contrast_);
  return ioctl2(kVidiocspict, &picture, "VIDIOCSPICT");
}

// --- Settings of sensor and encoder
//
// Intended: two of the names below begin with the prefix that the message adds once more; so they
// are known to whoever searches logs. What the sensor has taken is kept by TCamera's operation,
// past that of the encoder.

int TLumoCam::setFramerate(int rate) {
  int result = 0;
  if (usesSensor(mode_)) {
    std::int32_t code = rateCode(rate);
    result = ioctl2(kVicamSetFramerateId, &code, "VICAM_IOC_SET_FRAMERATEID");
    if (result >= 0) result = TCamera::setFramerate(rate);  // NOLINT(bugprone-parent-virtual-call)
  }
  return usesEncoder(mode_) ? TMpg430::setFramerate(rate) : result;
}

int TLumoCam::setCompression(int compression) {
  int result = 0;
  if (usesSensor(mode_)) {
    std::int32_t quality = jpegQuality(compression);
    result = ioctl2(kVicamSetCompRate, &quality, "VICAM_IOC_SET_COMP_RATE");
    if (result >= 0) {
      result = TCamera::setCompression(compression);  // NOLINT(bugprone-parent-virtual-call)
      fHeadr = true;
    }
  }
  if (!usesEncoder(mode_)) return result;
  result = TMpg430::setCompression(compression);
  if (result >= 0) fHeadr = true;
  return result;
}

void TLumoCam::setResolution(int index) {
  if (usesSensor(mode_)) {
    const int result = index == kIndex640x480   ? setWindow(640, 480)
                       : index == kIndex320x240 ? setWindow(320, 240)
                                                : setWindow(160, 120);
    if (result >= 0) {
      TCamera::setResolution(index);  // NOLINT(bugprone-parent-virtual-call)
      fHeadr = true;
    }
  }
  if (usesEncoder(mode_)) TMpg430::setResolution(index);
}

// The encoder rests in mode 1 alone. In mode 0 it needs the sensor's whole picture.
void TLumoCam::setMode(int mode) {
  const int before = mode_;
  if (mode == 0 && resolution_ != kIndex640x480) setWindow(640, 480);
  if (before == 1 && mode != 1) enableStream(1);
  if (before != 1 && mode == 1) enableStream(0);
  TCamera::setMode(mode);
  fHeadr = true;
  sizeIsOf.reset();
}

// --- Frames

int TLumoCam::getImage(char* frame, long size) {
  ++calls;
  if (calls % 2 == 1) pollMotion();
  switch (mode_) {
    case 1:
      return getPicture(frame, size);
    case 2: {
      // The encoder's chunks overwrite the picture, which the writer has copied if anybody wants
      // it.
      const int length = readPicture(frame, size);
      if (length > 0) jpgWriter()->write(frame, length, *getTime(), kTypeJpeg);
      return TMpg430::getImage(frame, size);
    }
    default:
      return TMpg430::getImage(frame, size);
  }
}

// Makes a frame of one picture and its trailer.
int TLumoCam::getPicture(char* frame, long size) {
  // A frame of another size has its trailer elsewhere, where only the buffer knows.
  const bool whole = size == TWriter::getFrameSize(sbVideo()) && size >= kTrailerBytes;
  if (!whole) logEx(3, "TLumoCam::getImage() IPE");
  const long room = whole ? size - kTrailerBytes : size;
  const int length = readPicture(frame, room);
  if (fImage) {
    setImage();
    fImage = false;
  }
  lastRead_.set();
  if (whole)
    storeTrailer(frame + room, kTypeJpeg, kTrailerLast, static_cast<std::uint32_t>(length));
  return length;
}

// Reads a picture of at most `length` bytes. Returns its length, never more than that, or what
// read() returned.
int TLumoCam::readPicture(char* frame, long length) {
  const long room = std::max(length, 0L);
  const long result = os::read(sensor_, frame, static_cast<std::size_t>(room));
  if (result < 1) logEx(3, "read(lumo) return %d", static_cast<int>(result));
  if (result >= room) log_event(kEventPictureCut);
  return static_cast<int>(std::min(result, room));
}

// --- Texts about the frames

void TLumoCam::getUserdata(int which, char* text) {
  switch (which) {
    case 0:
      if (mode_ == 1) {
        if (sizeIsOf != resolution_) publishPictureSize();
        std::memcpy(text, header, sizeof header);
      } else {
        sizeIsOf.reset();  // the encoder's header takes its place
        TMpg430::getUserdata(0, text);
      }
      break;
    case 1:
    case 2:
      printLevel(which - 1, text);
      break;
    default:
      break;
  }
}

void TLumoCam::publishPictureSize() {
  unsigned char block[kMpg430HeaderBytes] = {};
  if (resolution_ >= 0 && resolution_ < kResolutions)
    storeSize(block, static_cast<unsigned>(tabWidth[resolution_]),
              static_cast<unsigned>(tabHeight[resolution_]));
  else
    logEx(3, "TLumoCam::getUserdata() IPE");
  bin2hex(reinterpret_cast<const char*>(block), sizeof block, header, sizeof header);
  sizeIsOf = resolution_;
}
