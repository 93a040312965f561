#include "capture/video_args.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "platform/camera_config.h"
#include "platform/log.h"

namespace {

constexpr int kFrameRateTextSize = 16;

// atoi() whose result is defined for numbers of any length.
std::int32_t toInt(const char* text) {
  using Limits = std::numeric_limits<std::int32_t>;
  return static_cast<std::int32_t>(
      std::clamp<long>(std::strtol(text, nullptr, 10), Limits::min(), Limits::max()));
}

using Getter = int (*)(int* value);

// The one place of this message: `name` is the getter's.
void load(Getter getter, const char* name, std::int32_t& field) {
  int value = field;
  if (getter(&value) == 0)
    field = value;
  else
    logEx(2, "%s() fail", name);
}

}  // namespace

TVideoArgs::TVideoArgs(int argc, char** argv) {
  initial();
  for (int i = 1; i < argc; ++i) parse(argv[i]);
}

void TVideoArgs::initial() {
  resolution = compressRate = frameRate = ipRatio = videoSource = flicker = exposure = -1;
  brightness = contrast = saturation = hue = compressionType = flip = mirror = maxExposure = -1;
  videoEnabled = true;
  audioEnabled = false;
  overlay = motionDetection = whiteBalance = noiseReduction = backlight = -1;
  source = "test.jpg";
}

void TVideoArgs::usage() const {
  std::puts("USAGE:\n\tvideo_svr [video options]");
  std::puts("\nVideo options:");
  std::puts("\t-B520\tload from BRM-520 configuration database");
  std::puts("\t-K310\tload from KTX-310 configuration database");
  std::puts("\t-rx\tresolution");
  std::puts("\t-qx\tcompression");
  std::puts("\t-fx\tframerate");
  std::puts("\t-bx\tbrightness");
  std::puts("\t-cx\tcontrast");
  std::puts("\t-sx\tsaturation");
  std::puts("\t-hx\thue");
  std::puts("\t-nfile\tUse 'file' as video source");
  std::puts("\t-mx\tstreaming mode, 'x' is 'b','v' or 'a' (both/video/audio)\n");
}

void TVideoArgs::parse(const char* argument) {
  if (std::strcmp(argument, "-B520") == 0) {
    loadBRM520();
    loadCommon();
  } else if (std::strcmp(argument, "-K310") == 0) {
    loadKTX310();
    loadCommon();
  }
  if (argument[0] != '-' || argument[1] == '\0') return;
  const char* const value = argument + 2;
  switch (argument[1]) {
    case 'r':
      resolution = toInt(value);
      break;
    case 'q':
      compressRate = toInt(value);
      break;
    case 'f':
      frameRate = toInt(value);
      break;
    case 'b':
      brightness = toInt(value);
      break;
    case 'c':
      contrast = toInt(value);
      break;
    case 's':
      saturation = toInt(value);
      break;
    case 'h':
      hue = toInt(value);
      break;
    case 'n':
      source = value;
      break;
    case 'm':
      parseMode(*value);
      break;
    default:
      break;
  }
}

void TVideoArgs::parseMode(char which) {
  if (which != 'b' && which != 'v' && which != 'a') return;
  videoEnabled = which != 'a';
  audioEnabled = which != 'v';
}

void TVideoArgs::loadCommon() {
  videoEnabled = true;
  audioEnabled = true;
  char rate[kFrameRateTextSize];
  if (get_frame_rate(rate, kFrameRateTextSize) == 0)
    frameRate = toInt(rate);
  else
    logEx(2, "get_frame_rate() fail");
  load(get_resolution, "get_resolution", resolution);
  load(get_compress_rate, "get_compress_rate", compressRate);
  load(get_brightness, "get_brightness", brightness);
  load(get_contrast, "get_contrast", contrast);
  load(get_hue, "get_hue", hue);
  load(get_saturation, "get_saturation", saturation);
  load(get_compression_type, "get_compression_type", compressionType);
}

void TVideoArgs::loadKTX310() {
  source = kModelKTX310;
  if (get_video_source(&videoSource) != 0)
    logEx(2, "get_video_source() fail");
  else if (set_channel(videoSource) != 0)
    logEx(2, "set_channel(%d) fail", static_cast<int>(videoSource));
  load(get_ip_ratio, "get_ip_ratio", ipRatio);
}

void TVideoArgs::loadBRM520() {
  source = kModelBRM520;
  load(get_flip, "get_flip", flip);
  load(get_exposure, "get_exposure", exposure);
  load(get_flickness, "get_flickness", flicker);
  load(get_ip_ratio, "get_ip_ratio", ipRatio);
  load(get_mirror, "get_mirror", mirror);
  load(get_white_balance, "get_white_balance", whiteBalance);
  load(get_noise_reduction, "get_noise_reduction", noiseReduction);
  load(get_backlight_comp, "get_backlight_comp", backlight);
  load(get_max_exposure, "get_max_exposure", maxExposure);
  motionDetection = 3;  // both windows
  overlay = 2;
}
