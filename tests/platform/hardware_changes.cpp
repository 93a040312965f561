// The encoder while everything about it changes: colours and inputs, settings at random, threads.
#include <atomic>
#include <cmath>
#include <cstring>
#include <random>
#include <thread>

#include "hardware_fixture.h"
#include "tests/slow_build.h"

namespace {

// Values for the colour record as the camera's software makes them from settings of 0 to 255.
TMpg430Colour colours(int brightness, int hue, int saturation, int contrast) {
  const auto word = [](int value) { return static_cast<std::int16_t>(value * 256); };
  return {word(brightness), word(hue - 127), word(saturation - 127), word(contrast - 127)};
}

double spreadOfLuma(const AVFrame& picture) {
  const double mean = meanLuma(picture);
  double sum = 0;
  for (int y = 0; y < picture.height; ++y)
    for (int x = 0; x < picture.width; ++x) sum += std::abs(lumaAt(picture, x, y) - mean);
  return sum / (picture.width * picture.height);
}

double spreadOfChroma(const AVFrame& picture) {
  double sum = 0;
  for (int y = 0; y < picture.height; y += 2)
    for (int x = 0; x < picture.width; x += 2)
      sum += std::hypot(uAt(picture, x, y) - 128, vAt(picture, x, y) - 128);
  return sum / (picture.width * picture.height / 4.0);
}

class HardwareColours : public EncoderTest {
 protected:
  HardwareColours() {
    order(kMpg430Mpeg4Qa, 1);
    order(kMpg430SetMode, 8);
    EXPECT_TRUE(setting(127, 127, 127, 127));
    neutral_ = freshPicture();
  }
  Picture setting(int brightness, int hue, int saturation, int contrast) {
    EXPECT_EQ(setColour(colours(brightness, hue, saturation, contrast)), 0);
    return freshPicture();
  }
  Picture neutral_;
};

TEST_F(HardwareColours, NeutralIsWhatIsThereWithoutAnySetting) {
  Encoder other(&world_, nullptr, &pace_);
  const auto tell = [&](unsigned request, std::int32_t value) {
    std::vector<char> argument(sizeof value);
    std::memcpy(argument.data(), &value, sizeof value);
    EXPECT_EQ(other.ioctl(request, &argument), 0);
  };
  tell(kMpg430Mpeg4Qa, 1);
  tell(kMpg430SetMode, 8);
  tell(kMpg430StreamStart, 1);
  std::string first = header();
  for (std::vector<char> data(Encoder::kChunkMax); data.size() == Encoder::kChunkMax;) {
    other.read(1 << 20, &data);
    first.append(data.begin(), data.end());
  }
  EXPECT_TRUE(samePixels(*StreamJudge().decode(first), *neutral_));
}

TEST_F(HardwareColours, BrightnessMovesTheLuma) {
  EXPECT_LT(meanLuma(*setting(97, 127, 127, 127)), meanLuma(*neutral_) - 20);
  EXPECT_GT(meanLuma(*setting(157, 127, 127, 127)), meanLuma(*neutral_) + 20);
  EXPECT_LT(meanLuma(*setting(0, 127, 127, 127)), 40) << "black";
  EXPECT_GT(meanLuma(*setting(128, 127, 127, 127)), meanLuma(*neutral_)) << "has the sign bit set";
  EXPECT_GT(meanLuma(*setting(255, 127, 127, 127)), 200) << "white";
}

TEST_F(HardwareColours, ContrastSpreadsTheLuma) {
  EXPECT_LT(spreadOfLuma(*setting(127, 127, 127, 64)), spreadOfLuma(*neutral_) * 0.7);
  EXPECT_GT(spreadOfLuma(*setting(127, 127, 127, 190)), spreadOfLuma(*neutral_) * 1.3);
  EXPECT_LT(spreadOfLuma(*setting(127, 127, 127, 0)), 2) << "grey";
  EXPECT_GT(spreadOfLuma(*setting(127, 127, 127, 255)), spreadOfLuma(*neutral_) * 1.5)
      << "255 wraps to the lowest number but is the highest setting";
}

TEST_F(HardwareColours, SaturationSpreadsTheColours) {
  EXPECT_LT(spreadOfChroma(*setting(127, 127, 64, 127)), spreadOfChroma(*neutral_) * 0.7);
  EXPECT_GT(spreadOfChroma(*setting(127, 127, 190, 127)), spreadOfChroma(*neutral_) * 1.3);
  EXPECT_LT(spreadOfChroma(*setting(127, 127, 0, 127)), 2) << "without colour";
  EXPECT_GT(spreadOfChroma(*setting(127, 127, 255, 127)), spreadOfChroma(*neutral_) * 1.7);
}

TEST_F(HardwareColours, HueTurnsTheColours) {
  show([](AVFrame* picture) { drawPlain(picture, 120, 128, 168); });  // red
  Picture seen = setting(127, 127 + 64, 127, 127);
  EXPECT_NEAR(uAt(*seen, 100, 100), 88, 3) << "a quarter of a circle on";
  EXPECT_NEAR(vAt(*seen, 100, 100), 128, 3);
  seen = setting(127, 127 - 64, 127, 127);
  EXPECT_NEAR(uAt(*seen, 100, 100), 168, 3);
  for (const int end : {0, 255}) {  // half a circle, either way
    seen = setting(127, end, 127, 127);
    EXPECT_NEAR(uAt(*seen, 100, 100), 128, 3) << end;
    EXPECT_NEAR(vAt(*seen, 100, 100), 88, 3) << end;
  }
  EXPECT_NEAR(lumaAt(*seen, 100, 100), 120, 2);
}

TEST_F(HardwareColours, InputsDifferInALabelAlone) {
  order(kMpg430SetMode, 7);
  order(kMpg430Mpeg4Qa, 2);
  std::vector<Picture> seen;
  for (int input = 0; input < 4; ++input) {
    order(kMpg430VideoSource, input);
    seen.push_back(freshPicture());
    ASSERT_TRUE(seen.back());
  }
  for (int input = 1; input < 4; ++input) {
    EXPECT_FALSE(samePixels(*seen[0], *seen[static_cast<std::size_t>(input)]));
    EXPECT_FALSE(samePixels(*seen[static_cast<std::size_t>(input) % 3 + 1],
                            *seen[static_cast<std::size_t>(input)]));
    const Rectangle where = differences(*seen[0], *seen[static_cast<std::size_t>(input)]);
    EXPECT_GE(where.y, 432) << "in the block rows of the bottom label";
    EXPECT_LE(where.x + where.width, 176);
  }
}

TEST_F(HardwareColours, TheSensorsPicturesNeedNoInput) {
  Encoder encoder(&world_, &sensor_, &pace_);
  std::int32_t on = 1;
  std::vector<char> argument(sizeof on);
  std::memcpy(argument.data(), &on, sizeof on);
  ASSERT_EQ(encoder.ioctl(kMpg430StreamStart, &argument), 0);
  ASSERT_EQ(set(kVicamSetMirror, 1), 0);
  std::vector<char> header(kMpg430HeaderBytes);
  ASSERT_EQ(encoder.ioctl(kMpg430GetImgheader, &header), kMpg430HeaderBytes);
  std::string whole(header.begin(), header.end());
  for (std::vector<char> data(Encoder::kChunkMax); data.size() == Encoder::kChunkMax;) {
    encoder.read(1 << 20, &data);
    whole.append(data.begin(), data.end());
  }
  const Picture seen = StreamJudge().decode(whole);
  ASSERT_TRUE(seen);
  const Picture captured = capture();
  EXPECT_NEAR(meanLuma(*seen), meanLuma(*captured), 1);
  EXPECT_NEAR(lumaAt(*seen, 8, 240), lumaAt(*captured, 8, 240), 8) << "mirrored";
}

// As the camera's software does it: what changes the header raises a flag, and the header is
// fetched after the next reads.
TEST_F(EncoderTest, DecodesWithoutAnErrorWhileEverythingChangesAtRandom) {
  SKIP_WHERE_RACES_ARE_WATCHED();
  std::mt19937 random(430);
  const auto below = [&](int limit) {
    return static_cast<int>(random() % static_cast<unsigned>(limit));
  };
  StreamJudge judge;
  show(wanderingShades(6));
  order(kMpg430StreamStart, 1);
  int pictures = 0;
  std::string head = header();
  std::string gathered;
  while (pictures < 300) {
    bool stale = true;
    switch (below(12)) {
      case 0:
        order(kMpg430SetMode, below(12));
        break;
      case 1:
        world_.setStandard(below(2) == 0 ? TvStandard::kPal : TvStandard::kNtsc);
        encoder_.standardChanged();
        break;
      case 2:
        order(kMpg430VideoSource, below(4));
        break;
      case 3:
        order(kMpg430StreamStart, 0);
        order(kMpg430StreamStart, 1);
        break;
      default:
        stale = false;
        order(kMpg430Mpeg4Qa, 1 + below(31));
        order(kMpg430SetIpvalue, below(6));
        order(kMpg430SetFrate, below(11));
        setColour(colours(below(256), below(256), below(256), below(256)));
    }
    if (stale) {
      const std::string next = header();
      if (next != head) gathered.clear();  // what it belonged to is gone
      head = next;
    }
    for (int i = 0; i < 3; ++i) {
      const std::vector<char> data = chunk(1 + static_cast<std::size_t>(below(20000)));
      if (startsPicture(data) && !gathered.empty()) {
        ASSERT_TRUE(judge.decode(head + gathered)) << pictures << complaints_.text();
        ++pictures;
        gathered.clear();
      }
      if (startsPicture(data) || !gathered.empty()) gathered.append(data.begin(), data.end());
    }
  }
  EXPECT_EQ(complaints_.text(), "");
}

// Calls something when it is waited for, as if another thread came in between.
class InterruptedPace : public PaceOfTest {
 public:
  void wait(std::int64_t untilMs, std::condition_variable* changed,
            std::unique_lock<std::mutex>* lock) override {
    lock->unlock();
    if (std::exchange(armed, false)) meanwhile();
    lock->lock();
    PaceOfTest::wait(std::min(untilMs, now + 10), changed, lock);
  }
  bool armed = false;
  std::function<void()> meanwhile;
};

class HardwareWaits : public EncoderTest {
 protected:
  // Reads a chunk; what `meanwhile` does happens while the read waits for its picture.
  int readDuring(std::function<void()> meanwhile, std::vector<char>* data) {
    pace_.meanwhile = std::move(meanwhile);
    pace_.armed = true;
    return encoder_.read(1 << 20, data);
  }
  int tell(unsigned request, std::int32_t value) {
    std::vector<char> argument(sizeof value);
    std::memcpy(argument.data(), &value, sizeof value);
    return encoder_.ioctl(request, &argument);
  }
  InterruptedPace pace_;
  Encoder encoder_{&world_, nullptr, &pace_};
};

TEST_F(HardwareWaits, AReadThatWaitsDuringAStartGivesNothing) {
  tell(kMpg430SetMode, 10);
  tell(kMpg430SetFrate, 42);
  tell(kMpg430StreamStart, 1);
  std::vector<char> data;
  encoder_.read(1 << 20, &data);
  EXPECT_EQ(readDuring([&] { tell(kMpg430StreamStart, 1); }, &data), 0);
  EXPECT_GT(encoder_.read(1 << 20, &data), 0);
  EXPECT_TRUE(startsPicture(data));
}

TEST_F(HardwareWaits, ANewRateCountsForThePictureThatIsWaitedFor) {
  tell(kMpg430SetMode, 10);
  tell(kMpg430SetFrate, 42);
  tell(kMpg430StreamStart, 1);
  std::vector<char> data;
  encoder_.read(1 << 20, &data);
  const std::int64_t start = pace_.now;
  EXPECT_GT(readDuring([&] { tell(kMpg430SetFrate, 0); }, &data), 0);
  EXPECT_LE(pace_.now - start, 50);
}

TEST_F(HardwareWaits, AReadThatWaitsWhileTheStandardChangesWaitsLonger) {
  tell(kMpg430StreamStart, 1);
  std::vector<char> data;
  encoder_.read(1 << 20, &data);
  const std::int64_t start = pace_.now;
  const auto change = [&] {
    world_.setStandard(TvStandard::kNtsc);
    encoder_.standardChanged();
  };
  EXPECT_GT(readDuring(change, &data), 0);
  EXPECT_GE(pace_.now - start, 100);
}

// In real time: nodes that read, nodes that set, and boardctl.
TEST(HardwareThreads, ReadSetAndChangeTheStandardAtOnce) {
  std::string error;
  World world(openScene("test", &error));
  Encoder encoder(&world, nullptr);
  world.onStandardChange([&] { encoder.standardChanged(); });
  const auto tell = [&](unsigned request, std::int32_t value) {
    std::vector<char> argument(sizeof value);
    std::memcpy(argument.data(), &value, sizeof value);
    return encoder.ioctl(request, &argument);
  };
  tell(kMpg430SetMode, 8);
  tell(kMpg430StreamStart, 1);
  std::atomic<int> chunks{0};
  std::atomic<bool> done{false};
  std::vector<std::thread> threads;
  for (int reader = 0; reader < 2; ++reader) {
    threads.emplace_back([&] {
      std::vector<char> data;
      while (!done)
        if (encoder.read(1000, &data) > 0) ++chunks;
    });
  }
  threads.emplace_back([&] {
    for (int i = 0; !done; ++i) {
      tell(kMpg430Mpeg4Qa, 1 + i % 31);
      tell(kMpg430SetMode, 6 + i % 3);
      std::vector<char> header(kMpg430HeaderBytes);
      EXPECT_EQ(encoder.ioctl(kMpg430GetImgheader, &header), kMpg430HeaderBytes);
      std::this_thread::yield();
    }
  });
  world.setStandard(TvStandard::kNtsc);
  world.setMoving(Rectangle{0, 0, 640, 480});
  while (chunks < 30) std::this_thread::yield();
  done = true;
  tell(kMpg430StreamStart, 1);
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
