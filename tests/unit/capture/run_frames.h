// Runs the capture thread for a number of frames.
#pragma once

#include "capture/video_source.h"
#include "platform/application.h"
#include "tests/fakes/fake_platform.h"

inline void runFrames(FakePlatform& fake, TVideoSource& source, long frames) {
  const long last = fake.video.published() + frames;
  fake.video.onPublish([&fake, last](const FakeFrame&) {
    if (fake.video.published() >= last) fake.stopNow();
  });
  source.run();
  fake.runBody(source);
  TApplication::stopped = false;
}
