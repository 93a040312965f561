#include "tools/camctl/slots.h"

#include <strings.h>
#include <algorithm>

namespace {

constexpr int kUnsetByte = 255;  // the low byte of -1

std::string number(int value) { return value == kUnsetByte ? "unset" : std::to_string(value); }

Field onOff(const char* name, bool on) { return {name, on ? "on" : "off", on}; }
Field code(const char* name, int value) { return {name, number(value), value != kUnsetByte}; }

std::string accessName(int mode) {
  switch (mode) {
    case kAccessNone:
      return "none";
    case kAccessOff:
      return "off";
    case kAccessOn:
      return "on";
    default:
      return std::to_string(mode);
  }
}

}  // namespace

const std::vector<SlotLabel>& slotLabels() {
  static const std::vector<SlotLabel> labels = {
      {kSlotFrameCount, "frame-count", "frames captured", false},
      {kSlotSource, "source", "video input channel", true},
      {kSlotMode, "mode", "streaming mode", true},
      {kSlotExposure, "exposure", "exposure", true},
      {kSlotFramerate, "framerate", "frame rate code", true},
      {kSlotCompression, "compression", "compression rate", true},
      {kSlotIpratio, "ipratio", "ratio of I to P frames", true},
      {kSlotFlicker, "flicker", "flicker mode", true},
      {kSlotBrightness, "brightness", "brightness", true},
      {kSlotContrast, "contrast", "contrast", true},
      {kSlotSaturation, "saturation", "saturation", true},
      {kSlotHue, "hue", "hue", true},
      {kSlotFlip, "flip", "picture upside down", true},
      {kSlotMirror, "mirror", "picture mirrored", true},
      {kSlotTimestamp, "timestamp", "clock checked", false},
      {kSlotOverlay, "overlay", "texts and images on the picture", true},
      {kSlotMotionDetection, "motion-detection", "motion detection", true},
      {kSlotWhiteBalance, "white-balance", "white balance", true},
      {kSlotNoiseReduction, "noise-reduction", "noise reduction", true},
      {kSlotBacklight, "backlight", "backlight compensation", true},
      {kSlotResolution, "resolution", "resolution code", true},
      {kSlotShutter, "shutter", "longest exposure", true},
      {kSlotPackage, "package", "packaging, from 1", true},
      {kSlotConfigChanged, "config-changed", "configuration changed", false},
      {kSlotStatus, "status", "status word", false},
      {kSlotWebTrigger1, "web1", "first web trigger", false},
      {kSlotWebTrigger2, "web2", "second web trigger", false},
      {kSlotFormat, "format", "format word", false},
  };
  return labels;
}

const SlotLabel* findSetting(const std::string& name) {
  std::string wanted = name;
  std::replace(wanted.begin(), wanted.end(), '_', '-');
  for (const SlotLabel& label : slotLabels()) {
    if (label.setting && strcasecmp(label.name, wanted.c_str()) == 0) return &label;
  }
  return nullptr;
}

std::vector<Field> statusFields(int word) {
  const int access = kStatusAccess.get(word);
  const int ipratio = (kStatusIpratio.get(word) + kIpratioOffset) & kUnsetByte;
  return {
      onOff("input", kStatusInput.get(word) != 0),
      onOff("output1", kStatusOutput1.get(word) != 0),
      onOff("output2", kStatusOutput2.get(word) != 0),
      onOff("privacy", kStatusPrivacy.get(word) != 0),
      onOff("input-event", kStatusInputEvent.get(word) != 0),
      {"access", accessName(access), access != kAccessNone},
      {"mode", std::to_string(kStatusMode.get(word)), kStatusMode.get(word) != 0},
      code("framerate", kStatusFramerate.get(word)),
      {"ipratio", number(ipratio), ipratio != kUnsetByte && ipratio != kIpratioOffset},
  };
}

std::vector<Field> formatFields(int word) {
  return {
      code("resolution", kFormatResolution.get(word)),
      code("compression", kFormatCompression.get(word)),
  };
}

std::string inWords(const std::vector<Field>& fields, bool all) {
  std::string words;
  for (const Field& field : fields) {
    if (!all && !field.worthSaying) continue;
    if (!words.empty()) words += ", ";
    words += std::string(field.name) + " " + field.value;
  }
  return words.empty() ? "all quiet" : words;
}
