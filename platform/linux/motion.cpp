#include "platform/motion.h"

#include "platform/camera_config.h"
#include "platform/ini_file.h"
#include "platform/linux/ini_value.h"

namespace {

// What a window is whose section says no more than whether it is in use.
constexpr int kX = 1;
constexpr int kY = 1;
constexpr int kWidth = 100;
constexpr int kHeight = 100;
constexpr int kThreshold = 1;

}  // namespace

int get_motion_detect(tag_MotionDetect* record, int window) {
  if (window != 1 && window != 2) return -1;
  const char* const section = window == 1 ? "Motion1" : "Motion2";
  tag_MotionDetect read{};
  if (iniInteger(kCameraConfig, section, "Enable", &read.enable) != 0) return -1;
  read.x = getIniInt(kCameraConfig, section, "X", kX);
  read.y = getIniInt(kCameraConfig, section, "Y", kY);
  read.width = getIniInt(kCameraConfig, section, "Width", kWidth);
  read.height = getIniInt(kCameraConfig, section, "Height", kHeight);
  read.threshold = getIniInt(kCameraConfig, section, "Threshold", kThreshold);
  *record = read;
  return 0;
}
