#include "capture/video_source.h"

#include <cstring>
#include <utility>

#include "capture/camera.h"
#include "capture/devices/file_source.h"
#include "capture/devices/lumo_cam.h"
#include "capture/devices/mpg430.h"
#include "capture/frame_record.h"
#include "capture/video_args.h"
#include "core/status_slots.h"
#include "platform/log.h"
#include "platform/os.h"
#include "platform/stream_buffer.h"
#include "record/writer.h"

namespace {

constexpr long kReserveMs = 10;           // how long a free frame is waited for
constexpr unsigned long kBusyUs = 30000;  // pause when there was none
// Pause after a read without data. A device paces by blocking; one that fails at once would take
// the whole processor.
constexpr unsigned long kFailedUs = 30000;

// The compression types that the models can produce.
constexpr unsigned kKTX310Types = 1;
constexpr unsigned kBRM520Types = 2;

// Returns null when the model can't do what is asked for.
std::unique_ptr<TCamera> openCamera(const TVideoArgs& args) {
  if (sbVideo() == nullptr) logEx(3, "Can't attach video streaming buffer");
  const auto type = static_cast<unsigned>(args.compressionType);  // so that "unset" is too large
  if (std::strcmp(args.source, kModelKTX310) == 0) {
    TCamera::defMode = 0;
    if (type < kKTX310Types) return std::make_unique<TMpg430>(true);
    logEx(3, "KTX-310 must use CompressionType 0");
    return nullptr;
  }
  if (std::strcmp(args.source, kModelBRM520) == 0) {
    TCamera::defMode = 0;
    if (type < kBRM520Types) return std::make_unique<TLumoCam>();
    logEx(3, "BRM-520 must use CompressionType 0 or 1");
    return nullptr;
  }
  return std::make_unique<TFileSource>(args.source);
}

// Writes the settings into their slots; the first config() applies them all.
void publish(const TVideoArgs& args) {
  const struct {
    TStatusSlot slot;
    int value;
  } kSettings[] = {
      {kSlotStatus, 0},
      {kSlotFormat, 0},
      {kSlotSource, args.videoSource},
      {kSlotResolution, args.resolution},
      {kSlotFramerate, args.frameRate},
      {kSlotCompression, args.compressRate},
      {kSlotIpratio, args.ipRatio},
      {kSlotBrightness, args.brightness},
      {kSlotContrast, args.contrast},
      {kSlotSaturation, args.saturation},
      {kSlotHue, args.hue},
      {kSlotFlip, args.flip},
      {kSlotMirror, args.mirror},
      {kSlotOverlay, args.overlay},
      {kSlotMotionDetection, args.motionDetection},
      {kSlotFlicker, args.flicker},
      {kSlotWhiteBalance, args.whiteBalance},
      {kSlotNoiseReduction, args.noiseReduction},
      {kSlotMode, args.compressionType},
      {kSlotExposure, args.exposure},
      {kSlotBacklight, args.backlight},
      {kSlotShutter, args.maxExposure},
  };
  for (const auto& setting : kSettings) sbSetUserdata(sbVideo(), setting.slot, setting.value);
}

void apply(TCamera& camera, int slot, int value) {
  switch (slot) {
    case kSlotSource:
      camera.setSource(value);
      break;
    case kSlotMode:
      camera.setMode(value);
      break;
    case kSlotExposure:
      camera.setExposure(value);
      break;
    case kSlotFramerate:
      camera.setFramerate(value);
      break;
    case kSlotCompression:
      camera.setCompression(value);
      break;
    case kSlotIpratio:
      camera.setIpratio(value);
      break;
    case kSlotFlicker:
      camera.setFlicker(value);
      break;
    case kSlotBrightness:
      camera.setBrightness(value);
      break;
    case kSlotContrast:
      camera.setContrast(value);
      break;
    case kSlotSaturation:
      camera.setSaturation(value);
      break;
    case kSlotHue:
      camera.setHue(value);
      break;
    case kSlotFlip:
      camera.setFlip(value);
      break;
    case kSlotMirror:
      camera.setMirror(value);
      break;
    case kSlotTimestamp:
      camera.setTimestamp();
      break;
    case kSlotOverlay:
      camera.setOverlay(value);
      break;
    case kSlotMotionDetection:
      camera.setMotionDetection(value);
      break;
    case kSlotWhiteBalance:
      camera.setWhiteBalance(value);
      break;
    case kSlotNoiseReduction:
      camera.setNoiseReduction(value);
      break;
    case kSlotBacklight:
      camera.setBacklight(value);
      break;
    case kSlotResolution:
      camera.setResolution(value);
      break;
    case kSlotShutter:
      camera.setShutter(value);
      break;
    case kSlotPackage:
      if (value >= 1) camera.setPackage(value);
      break;
    default:
      break;
  }
}

}  // namespace

TVideoSource::TVideoSource(TVideoArgs& args) : TVideoSource(args, openCamera(args)) {}

TVideoSource::TVideoSource(const TVideoArgs& args, std::unique_ptr<TCamera> camera)
    : PThread("KVX-video"), camera_(std::move(camera)) {
  publish(args);
}

TVideoSource::~TVideoSource() = default;

void TVideoSource::run() {
  if (camera_) PThread::run();
}

void TVideoSource::config() {
  for (int slot = kFirstSettingSlot; slot <= kLastSettingSlot; ++slot) {
    const int value = sbTestUserdata(sbVideo(), slot);
    if (value != -1 && camera_) apply(*camera_, slot, value);
  }
}

int TVideoSource::getFrameCount() {
  // Unsigned, so that the count wraps after 2^31 - 1 frames, a year and more.
  const auto count = static_cast<unsigned>(sbGetUserdata(sbVideo(), kSlotFrameCount)) + 1;
  sbSetUserdata(sbVideo(), kSlotFrameCount, static_cast<int>(count));
  return static_cast<int>(count);
}

void TVideoSource::execute() {
  config();
  while (running()) pass();
}

void TVideoSource::pass() {
  int length = 0;
  {
    // One handle for the frame and for its size: the segment behind sbVideo() may be replaced by
    // one with larger frames meanwhile. That of a replaced segment counts as empty.
    SB_HANDLE* const video = sbVideo();
    TAutoFrame frame(video, 0, nullptr, nullptr, kReserveMs);
    if (!frame) {
      logEx(1, "video buffer busy");
      os::usleep(kBusyUs);
      return;
    }
    length = fill(*frame.get(), TWriter::getFrameSize(video));
  }
  config();
  if (length < 1) os::usleep(kFailedUs);
}

// Reads one frame, whose payload has `size` bytes, with its record. Returns the length of the
// picture, below 1 when there is none: the record says so and the frame is not shown to readers.
int TVideoSource::fill(SB_FRAME& frame, long size) {
  const int length = camera_->getImage(frame.payload, size);
  stampFrame(frame, *camera_->getTime(), length, getFrameCount());
  for (int text = 0; text < kFrameTexts; ++text) camera_->getUserdata(text, frame.userdata[text]);
  return length;
}
