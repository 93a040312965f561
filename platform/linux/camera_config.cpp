#include "platform/camera_config.h"

#include <cstdio>
#include <cstring>

#include "platform/linux/ini_value.h"

namespace {

constexpr std::size_t kTextSize = 64;

int video(const char* key, int* value) { return iniInteger(kCameraConfig, "Video", key, value); }
int picture(const char* key, int* value) {
  return iniInteger(kCameraConfig, "Picture", key, value);
}

}  // namespace

int get_resolution(int* value) { return video("Resolution", value); }
int get_compress_rate(int* value) { return video("CompressRate", value); }
int get_compression_type(int* value) { return video("CompressionType", value); }
int get_ip_ratio(int* value) { return video("IpRatio", value); }
int get_video_source(int* value) { return video("Source", value); }
int get_brightness(int* value) { return picture("Brightness", value); }
int get_contrast(int* value) { return picture("Contrast", value); }
int get_saturation(int* value) { return picture("Saturation", value); }
int get_hue(int* value) { return picture("Hue", value); }
int get_flip(int* value) { return picture("Flip", value); }
int get_mirror(int* value) { return picture("Mirror", value); }
int get_exposure(int* value) { return picture("Exposure", value); }
int get_max_exposure(int* value) { return picture("MaxExposure", value); }
int get_flickness(int* value) { return picture("Flicker", value); }
int get_white_balance(int* value) { return picture("WhiteBalance", value); }
int get_noise_reduction(int* value) { return picture("NoiseReduction", value); }
int get_backlight_comp(int* value) { return picture("BacklightCompensation", value); }

int get_frame_rate(char* text, int size) {
  char value[kTextSize];
  if (size < 1 || !iniText(kCameraConfig, "Video", "FrameRate", value, sizeof value)) return -1;
  std::snprintf(text, static_cast<std::size_t>(size), "%s", value);
  return 0;
}

// A driver with several inputs offers no common way to select one, so this says only whether there
// is such an input: its device gets the number through TCamera.
int set_channel(int channel) {
  int channels = 1;
  iniInteger(kCameraConfig, "Video", "Channels", &channels);
  return channel >= 0 && channel < channels ? 0 : -1;
}
