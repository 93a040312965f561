// From a level of a motion window to the relay: the motion events on the real sensor camera.
#include "events/motion_event.h"
#include "events/out_handler.h"
#include "tests/unit/capture/devices/lumo_fixture.h"
#include "tests/unit/events/event_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class MotionWindow : public EventFixture {
 protected:
  MotionWindow() : frame_(10000) {
    Lumo::reset();
    fake.overlays.windows[0] = tag_MotionDetect{1, 10, 10, 100, 100, kThreshold, {}};
    fake.overlays.windows[1] = tag_MotionDetect{1, 200, 10, 100, 100, kThreshold, {}};
    TCamera::defMode = 1;
    camera = std::make_unique<Lumo>();
    camera->setMotionDetection(3);
  }
  ~MotionWindow() override { Lumo::reset(); }

  // Lets an event watch for three seconds while the camera delivers a picture every 50 ms; the
  // level of `window` rises to `level` after one second. Returns what was sent.
  template <typename Event>
  std::vector<std::string> sentWhenMoved(int window, int level) {
    drivers.level[0] = drivers.level[1] = 0;
    for (int i = 0; i < 60; ++i)
      fake.at(0.049 + i * 0.050,
              [this] { camera->getImage(frame_.data(), static_cast<long>(frame_.size())); });
    const auto start = fake.clock.monotonicUs();
    fake.at(1, [this, window, level] { drivers.level[window] = level; });
    Event event("always", "", 200, camera.get());
    event.handlers.push_back(std::make_unique<TOutHandler>(0, 10));
    event.run();
    sentAtUs_ = -1;
    fake.onCall([this, start](const std::string& call) {
      if (call.compare(0, 12, "SendMessage(") == 0 && sentAtUs_ < 0)
        sentAtUs_ = fake.clock.monotonicUs() - start;
    });
    fake.clearCalls();
    fake.stopAfter(3);
    fake.runBody(event);
    fake.onCall(nullptr);
    return fake.callsWith("SendMessage(");
  }

  static constexpr int kThreshold = 5;
  FakeDrivers drivers{fake};
  std::unique_ptr<Lumo> camera;
  std::int64_t sentAtUs_ = -1;

 private:
  std::vector<char> frame_;
};

TEST_F(MotionWindow, MovementInTheFirstWindowFiresTheFirstEventAlone) {
  EXPECT_THAT(sentWhenMoved<TMotion1Event>(0, kThreshold + 1),
              ElementsAre("SendMessage(socmond,52,1,0)"));
  EXPECT_THAT(sentWhenMoved<TMotion2Event>(0, kThreshold + 1), IsEmpty());
}

TEST_F(MotionWindow, MovementInTheSecondWindowFiresTheSecondEventAlone) {
  EXPECT_THAT(sentWhenMoved<TMotion2Event>(1, kThreshold + 1),
              ElementsAre("SendMessage(socmond,52,1,0)"));
  EXPECT_THAT(sentWhenMoved<TMotion1Event>(1, kThreshold + 1), IsEmpty());
}

TEST_F(MotionWindow, TheRelayFollowsWithinAPeriodAndTwoFrames) {
  sentWhenMoved<TMotion1Event>(0, 100);
  EXPECT_GT(sentAtUs_, 1000000);
  EXPECT_LE(sentAtUs_, 1000000 + 200000 + 2 * 50000);
}

TEST_F(MotionWindow, ALevelAtTheThresholdFiresNothing) {
  EXPECT_THAT(sentWhenMoved<TMotion1Event>(0, kThreshold), IsEmpty());
}

TEST_F(MotionWindow, AWindowThatIsOffFiresNothing) {
  fake.overlays.windows[0]->enable = 0;
  fake.overlays.windows[1].reset();
  camera->setMotionDetection(3);
  EXPECT_THAT(sentWhenMoved<TMotion1Event>(0, 100), IsEmpty());
  EXPECT_THAT(sentWhenMoved<TMotion2Event>(1, 100), IsEmpty());
}

}  // namespace
