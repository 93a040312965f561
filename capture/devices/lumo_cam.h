// The sensor camera: JPEG pictures, overlays and motion windows, beside the MPEG-4 encoder.
#pragma once

#include <cstdint>
#include <optional>

#include "capture/devices/mpg430.h"
#include "platform/motion.h"
#include "platform/overlay.h"

// Drives the sensor and, through its base, the encoder. The mode decides what a frame holds:
//
//   mode  frame                     sensor settings  encoder settings
//   0     MPEG-4 chunks             no               yes
//   1     one JPEG picture          yes              no, it is stopped
//   2     MPEG-4 chunks; each JPEG  yes              yes
//         goes to the JPEG writer
//   3     MPEG-4 chunks             yes              no
//
// Its operations stand in three sources: lumo_cam.cpp (settings and frames), lumo_overlays.cpp,
// lumo_motion.cpp. Thread: as TCamera.
class TLumoCam : public TMpg430 {
 public:
  // Opens "/dev/video0" too and starts the encoder. Logs 3 "can't open /dev/video0", the encoder
  // then stays stopped.
  TLumoCam();
  ~TLumoCam() override;

  // Also polls the motion windows, on each odd call. `size`: the largest payload of a frame of
  // "video". Returns the length of what the frame holds; below 1: nothing. Logs 3 "read(lumo)
  // return %d", 3 "TLumoCam::getImage() IPE"; event 604 for a picture that may have been cut off.
  int getImage(char* frame, long size) override;
  // Programs the motion windows. `how`: 0 window 1 and 1 window 2 from "/tmp/motion%d.dat", 2 both
  // from there, 3 both from the configuration; any other value does nothing. Returns 0 or the
  // result of the last request. Logs 2 "get_motion_detect(%d) fail", "fopen(%s) fail", "fread(%s)
  // fail".
  int setMotionDetection(int how) override;
  // Programs the overlays from the configuration. `how`: 2 also loads the image from flash.
  // Logs 2 "get_overlay_image() fail", "get_overlay_motion() fail", "get_overlay_text() fail";
  // 1 "read_overlay_image() fail or image length < 1".
  void setOverlay(int how) override;
  // Shows the current time behind the text, if that overlay is on and set so.
  void setTimestamp() override;
  void setMode(int mode) override;
  // `index`: 0 window 1, 1 window 2. Any thread.
  int getMotionStatus(int index) override;
  // The settings of the sensor: each keeps and returns the value that the driver has taken;
  // otherwise changes nothing and returns the driver's negative result.
  // Logs 3 "ioctl(VICAM_IOC_%s) fail", as every request to the sensor.
  int setExposure(int exposure) override;
  int setWhiteBalance(int whiteBalance) override;
  int setNoiseReduction(int noiseReduction) override;
  int setBacklight(int backlight) override;
  int setShutter(int shutter) override;
  int setFlip(int flip) override;
  int setMirror(int mirror) override;
  int setFlicker(int mode) override;
  // The settings of sensor and encoder, by mode (above). What either has taken is kept and
  // published. Return the result of the encoder if it was asked, else that of the sensor.
  int setFramerate(int rate) override;
  void setResolution(int index) override;
  int setCompression(int compression) override;
  // The picture's colour: cut to 0..255, reaches the sensor with the next getImage().
  void setContrast(int contrast) override;
  void setBrightness(int brightness) override;
  void setHue(int hue) override;
  void setSaturation(int saturation) override;
  // 0: the stream header, in mode 1 one that carries only the picture's size; 1 and 2: the level of
  // that motion window, empty when it is off; any other value leaves `text` as it is.
  // Logs 3 "TLumoCam::getUserdata() IPE".
  void getUserdata(int which, char* text) override;
  int setImage() override;

 protected:
  // The class's, as there is one camera in a process.
  static std::uint32_t calls;          // of getImage()
  static std::optional<int> sizeIsOf;  // the resolution whose size `header` carries, if any

 private:
  static constexpr int kWindows = 2;

  struct Window {
    Relaxed<int> status;     // the last level, or a negative result
    Relaxed<int> threshold;  // above it there is motion
    Relaxed<bool> enabled;
  };

  int ioctl2(unsigned request, void* argument, const char* name);
  int setSensor(unsigned request, int value, int* setting, const char* name);
  int setWindow(int width, int height);
  int getPicture(char* frame, long size);
  int readPicture(char* frame, long length);
  void publishPictureSize();

  bool setOverlayImage(int, int);
  void showImage(bool load);
  void showMotionText();
  void showDateAndTime();

  bool getMotionDetection(tag_MotionDetect* record, int window, bool fromConfig);
  int programWindow(tag_MotionDetect* record, int window, bool fromConfig);
  void pollMotion();
  void printLevel(int index, char* text) const;

  int sensor_;                // descriptor of "/dev/video0", owned; negative: not open
  Window windows_[kWindows];  // window 1, window 2
  tag_Overlay overlay_{};     // after setOverlay() that of date and time
};
