// What the tests of the frame writers and the recorders share.
#pragma once

#include <gmock/gmock.h>

#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "capture/camera.h"
#include "platform/bytes.h"
#include "record/avi_writer.h"
#include "record/jpg_writer.h"
#include "record/recorder.h"
#include "tests/fakes/fake_platform.h"

constexpr long kUsable = 2000;  // payload of a frame in these tests

// A fresh platform for each test, with small frames.
class RecordFixture : public testing::Test {
 protected:
  RecordFixture() {
    fake.setTimeZone("UTC");
    fake.setWallClock("2024-06-03 12:00:00");
    fake.video.setFrameSize(kUsable + static_cast<long>(kFrameHeadBytes));
    fake.video2.setFrameSize(kUsable + static_cast<long>(kFrameHeadBytes));
    fake.files.put("/dev/camera", "");
  }
  ~RecordFixture() override {
    EXPECT_FALSE(aviWriter()->getRef()) << "a client was left registered";
    EXPECT_FALSE(jpgWriter()->getRef()) << "a client was left registered";
  }

  static TDateTime now() {
    TDateTime time;
    time.set();
    return time;
  }

  // Publishes a JPEG picture each `period` seconds, from `first` to `last` seconds from now, in
  // `stream`. Its text is the true time in milliseconds since now, whatever the wall clock says.
  void pictures(FakeStream& stream, double first, double period, double last) {
    const std::int64_t start = fake.clock.monotonicUs();
    constexpr double kRound = 5e-7;
    for (int i = 0; first + i * period <= last; ++i)
      fake.at(first + i * period + kRound, [this, &stream, start] {
        stream.push("\xFF\xD8" + std::to_string((fake.clock.monotonicUs() - start) / 1000));
      });
  }

  // Runs the body of `thread` as often as it is started. Returns how often that was.
  int runBodies(PThread& thread) {
    int bodies = 0;
    for (bool again = fake.started(thread); again; ++bodies) again = fake.runBody(thread);
    return bodies;
  }

  FakePlatform fake;
};

// A camera whose mode is all that matters.
class FakeCamera : public TCamera {
 public:
  FakeCamera() : TCamera("/dev/camera") {}
  int getMode() override { return mode; }
  int mode = 0;
};

// A recorder that keeps what it is to store, and tells of each step before it is taken.
class ListRecorder : public TRecorder {
 public:
  struct Picture {
    std::string name;
    std::string data;
  };

  bool setName(const TDateTime& time, const char* extension) { return onSetname(time, extension); }
  using TRecorder::TRecorder;

  std::vector<Picture> pictures;
  std::vector<std::string> steps;
  std::function<void(const std::string& step)> onStep;
  std::string refuse;  // the step that fails

  // The true times of the stored pictures, see RecordFixture::pictures().
  std::vector<long> times() const {
    std::vector<long> result;
    for (const Picture& picture : pictures) result.push_back(std::stol(picture.data.substr(2)));
    return result;
  }

 protected:
  bool onInitial() override { return step("initial") && TRecorder::onInitial(); }
  bool onRelease() override { return step("release") && TRecorder::onRelease(); }
  bool onPreview(const SB_FRAME& frame) override {
    return step("preview") && TRecorder::onPreview(frame);
  }
  const char* getExtention(const char* data) override {
    step("extension");
    return TRecorder::getExtention(data);
  }
  bool onSetname(const TDateTime& time, const char* extension) override {
    return step("name") && TRecorder::onSetname(time, extension);
  }
  long onTranscode(char* data, long length) override {
    step("transcode");
    return TRecorder::onTranscode(data, length);
  }
  bool onCapture(const char* data, long length) override {
    pictures.push_back({fileName(), std::string(data, static_cast<std::size_t>(length))});
    return step("capture");
  }

 private:
  bool step(const std::string& name) {
    steps.push_back(name);
    if (onStep) onStep(name);
    return name != refuse;
  }
};
