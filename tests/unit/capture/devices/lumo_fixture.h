// What the tests of the sensor camera share: its two drivers, and the camera with its fields open.
#pragma once

#include <gmock/gmock.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "capture/devices/lumo_cam.h"
#include "core/status_slots.h"
#include "platform/bytes.h"
#include "platform/vicam.h"
#include "record/writer.h"
#include "tests/fakes/fake_platform.h"

// The sensor camera, its fields open to tests.
class Lumo : public TLumoCam {
 public:
  Lumo() { package_ = 1; }  // one read of the encoder a frame

  using TCamera::backlight_;
  using TCamera::brightness_;
  using TCamera::compression_;
  using TCamera::contrast_;
  using TCamera::exposure_;
  using TCamera::flicker_;
  using TCamera::flip_;
  using TCamera::framerate_;
  using TCamera::hue_;
  using TCamera::ipratio_;
  using TCamera::mirror_;
  using TCamera::mode_;
  using TCamera::noiseReduction_;
  using TCamera::resolution_;
  using TCamera::saturation_;
  using TCamera::shutter_;
  using TCamera::source_;
  using TCamera::whiteBalance_;
  using TLumoCam::calls;

  // As in a process that has just begun.
  static void reset() {
    TCamera::defMode = 0;
    fHeadr = fImage = false;
    std::memset(header, 0, sizeof header);
    calls = 0;
    sizeIsOf.reset();
  }
};

// Both device nodes. Writes down every request that reaches them, with its literal number:
//   "sensor 4004572C 3"   "encoder 00800000 7"   "sensor 8020760A 640x480"
//   "sensor 800E7607 25600,0,0,0 w=1 d=2 p=3"    "sensor 400456DD text"   "sensor read 994"
class FakeDrivers {
 public:
  explicit FakeDrivers(FakePlatform& fake) {
    fake.files.put("/dev/mpg430", "");
    fake.files.put("/dev/video0", "");
    fake.onCall([this, &fake](const std::string& call) {
      if (call.compare(0, 5, "open(") != 0) return;
      const std::string path = call.substr(5, call.size() - 6);
      if (!fake.files.exists(path)) return;
      if (path == "/dev/mpg430") encoder_ = next_;
      if (path == "/dev/video0") sensor_ = next_;
      ++next_;
    });
    fake.onIoctl([this](int fd, unsigned long request, void* argument) {
      return answer(fd, request, argument);
    });
    fake.onRead([this, &fake](int fd, char* buffer, std::size_t size) {
      if (fd == sensor_) return read("sensor", onPicture, buffer, size);
      if (fd == encoder_) return read("encoder", onChunk, buffer, size);
      return fake.files.read(fd, buffer, size);
    });
  }

  std::vector<std::string> take() { return std::exchange(trace_, {}); }

  std::set<unsigned long> failing;               // requests that fail
  std::map<unsigned long, std::int32_t> leaves;  // what a request leaves in its argument
  int level[2] = {0, 0};                         // of the motion windows
  TVideoPicture picture{};                       // what the sensor has; the last one it was given
  std::string streamHeader = std::string("\0\0\1\0\0\0\1\x20 twelve bytes", 20);
  // What a read gives.
  using Read = std::function<long(char* buffer, long size)>;
  Read onPicture = [](char* buffer, long size) {
    return give("\xFF\xD8 jpeg \xFF\xD9", buffer, size);
  };
  Read onChunk = [](char* buffer, long size) {
    return give(std::string("\0\0\1\xB6\x50 chunk", 11), buffer, size);
  };

  static long give(const std::string& bytes, char* buffer, long size) {
    return static_cast<long>(bytes.copy(buffer, static_cast<std::size_t>(size)));
  }

 private:
  void note(const char* device, unsigned long request, const std::string& argument) {
    char number[16];
    // An unsigned long that a sign was carried into shows here with more digits.
    std::snprintf(number, sizeof number, " %08lX ", request);
    trace_.push_back(device + std::string(number) + argument);
  }

  long read(const char* device, const Read& reader, char* buffer, std::size_t size) {
    trace_.push_back(device + std::string(" read ") + std::to_string(size));
    return reader(buffer, static_cast<long>(size));
  }

  int answer(int fd, unsigned long request, void* argument) {
    if (fd != sensor_ && fd != encoder_) return -1;
    note(fd == sensor_ ? "sensor" : "encoder", request, text(request, argument));
    if (failing.count(request) != 0) return -1;
    const auto left = leaves.find(request);
    if (left != leaves.end()) std::memcpy(argument, &left->second, sizeof left->second);
    switch (request) {
      case 0x01200000:
        streamHeader.copy(static_cast<char*>(argument), 20);
        return 20;
      case 0x400E7606:
        std::memcpy(argument, &picture, sizeof picture);
        return 0;
      case 0x800E7607:
        std::memcpy(&picture, argument, sizeof picture);
        return 0;
      case 0x40045704:
        return level[0];
      case 0x40045711:
        return level[1];
      default:
        return 0;
    }
  }

  static std::string text(unsigned long request, const void* argument) {
    switch (request) {
      case 0x01200000:  // filled by the driver
      case 0x400E7606:
        return "?";
      case 0x800E7607: {
        TVideoPicture p;
        std::memcpy(&p, argument, sizeof p);
        return std::to_string(p.brightness) + "," + std::to_string(p.hue) + "," +
               std::to_string(p.colour) + "," + std::to_string(p.contrast) +
               " w=" + std::to_string(p.whiteness) + " d=" + std::to_string(p.depth) +
               " p=" + std::to_string(p.palette);
      }
      case 0x8020760A: {
        TVideoWindow w;
        std::memcpy(&w, argument, sizeof w);
        const bool rest = w.x != 0 || w.y != 0 || w.chromakey != 0 || w.flags != 0 ||
                          w.clips != 0 || w.clipcount != 0;
        return std::to_string(w.width) + "x" + std::to_string(w.height) + (rest ? " and more" : "");
      }
      case 0x400456E9:
      case 0x400456DD:
        return static_cast<const char*>(argument);
      case 0x4004572B:
        return std::string(static_cast<const char*>(argument), 8);
      default: {
        std::int32_t value;
        std::memcpy(&value, argument, sizeof value);
        return std::to_string(value);
      }
    }
  }

  int next_ = 100;  // descriptors of the fake's files count from here
  int encoder_ = -2;
  int sensor_ = -2;
  std::vector<std::string> trace_;
};

class LumoFixture : public testing::Test {
 protected:
  using Trace = std::vector<std::string>;

  LumoFixture() {
    Lumo::reset();
    fake.video.setFrameSize(kFrameBytes);
  }
  ~LumoFixture() override { Lumo::reset(); }

  // What `what` makes the drivers see.
  Trace trace(const std::function<void()>& what) {
    drivers.take();
    what();
    return drivers.take();
  }

  int rate() { return kStatusFramerate.get(fake.video.slot(kSlotStatus)); }
  int mode() { return kStatusMode.get(fake.video.slot(kSlotStatus)); }
  int resolution() { return kFormatResolution.get(fake.video.slot(kSlotFormat)); }
  int compression() { return kFormatCompression.get(fake.video.slot(kSlotFormat)); }

  static std::string userdata(TCamera& camera, int which) {
    char text[48] = "untouched";
    camera.getUserdata(which, text);
    return text;
  }

  static constexpr long kFrameBytes = 70000;  // so that a length may need three bytes

  FakePlatform fake;
  FakeDrivers drivers{fake};
};
