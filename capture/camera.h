// The interface of a camera: one opened video device, or a file that stands for one.
#pragma once

#include "platform/date_time.h"
#include "platform/relaxed.h"

// Base of the devices: real where all devices are alike, and otherwise a store or nothing that a
// device replaces. A device that can't be opened is an object all the same, whose reads fail.
//
// Threads: bound to the capture thread once that runs; getMode() and getMotionStatus() may be
// called on any thread. The words in the status slots are read, changed and written back without a
// lock: each bit field has this one writer.
class TCamera {
 public:
  // The mode in which new devices start. The capture thread sets it before it makes one.
  static Relaxed<int> defMode;

  // Opens `path` for reading. Logs 3 "can't open %s".
  explicit TCamera(const char* path);
  TCamera(const TCamera&) = delete;
  TCamera& operator=(const TCamera&) = delete;
  virtual ~TCamera();

  // Returns the streaming mode: 0 to 3, or what setMode() was given.
  virtual int getMode();
  // Hands a request to the driver. `name`: of the request, for the message. Returns the driver's
  // result. Logs 3 "ioctl(%s) fail" when that is negative.
  virtual int ioctl(int request, void* argument, const char* name);
  // Reads one frame of at most `length` bytes, at the earliest `interval` after the last one.
  // Returns the number of bytes, 0 or -1 as read() does.
  virtual int getImage(char* buffer, long length);
  // The settings that return a value: a negative one when the device refused. A device may return
  // the value that it has taken, the base returns 0.
  virtual int setMotionDetection(int windows);
  virtual void setOverlay(int overlay);
  // Shows the time anew: the clock was checked.
  virtual void setTimestamp();
  // Sets and publishes the streaming mode; a mode that does not exist too. Mode 3 makes the camera
  // a client of the JPEG writer. Logs 3 "sbVideo2() is null" (modes 0, 2 and 3 need that buffer)
  // or 3 "TCamera::setMode() Unsupported mode: %d".
  virtual void setMode(int mode);
  // Sets how many pieces of a stream may share a frame.
  virtual void setPackage(int package);
  // Returns non-zero iff there is motion in the window.
  virtual int getMotionStatus(int window);
  virtual int setExposure(int exposure);
  virtual int setWhiteBalance(int whiteBalance);
  virtual int setNoiseReduction(int noiseReduction);
  virtual int setSource(int source);
  virtual int setIpratio(int ipratio);  // published
  virtual int setBacklight(int backlight);
  virtual int setShutter(int shutter);
  virtual int setFlip(int flip);
  virtual int setMirror(int mirror);
  virtual int setFramerate(int framerate);      // published
  virtual void setResolution(int resolution);   // published
  virtual int setCompression(int compression);  // published
  virtual void setContrast(int contrast);
  virtual void setBrightness(int brightness);
  virtual void setHue(int hue);
  virtual void setSaturation(int saturation);
  virtual int setFlicker(int flicker);
  // Writes a text about the frames, of at most 47 characters, into `text`; `which`: 0 to 2.
  virtual void getUserdata(int which, char* text);
  // Returns the time of the last read.
  virtual const TDateTime* getTime();

 protected:
  int fd_;             // owned; negative: not open
  Relaxed<int> mode_;  // asked for by recorders
  int interval_ = 0;   // least time between two reads in microseconds; 0: no pacing
  TDateTime lastRead_;
  int ipratio_ = 0;
  int compression_ = 0;
  int framerate_ = 0;
  int resolution_ = -1;  // none set yet
  int flicker_ = 0;
  int contrast_ = 127;  // the four colours: the middle, until they are set
  int brightness_ = 127;
  int hue_ = 127;
  int flip_ = 0;
  int whiteBalance_ = 0;
  int noiseReduction_ = 0;
  int mirror_ = 0;
  int source_ = 0;
  int saturation_ = 127;
  int exposure_ = 0;
  int backlight_ = 0;
  int shutter_ = 0;
  int package_ = 1;

 private:
  void pace() const;
};
