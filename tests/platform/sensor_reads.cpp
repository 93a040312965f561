// The JPEG pictures that the sensor delivers, and who may ask for them at the same time.
#include <atomic>
#include <thread>

#include "sensor_fixture.h"

namespace {

using SensorReads = SensorTest;

TEST_F(SensorReads, PicturesDecodeInEverySizeAndQuality) {
  set(kVicamSetNoisefilter, 0);  // details, of which a lower quality leaves out more
  for (const auto& [width, height] : {std::pair{640u, 480u}, {320u, 240u}, {160u, 120u}}) {
    ASSERT_EQ(setWindow(width, height), 0);
    std::size_t larger = 1 << 20;
    for (const int quality : {100, 79, 65, 50, 24, 2}) {
      set(kVicamSetCompRate, quality);
      const std::vector<char> jpeg = readJpeg();
      const Picture picture = decodeJpeg(jpeg);
      ASSERT_TRUE(picture) << width << " " << quality;
      EXPECT_EQ(picture->width, static_cast<int>(width));
      EXPECT_EQ(picture->height, static_cast<int>(height));
      EXPECT_LT(jpeg.size(), larger) << width << " " << quality;
      larger = jpeg.size();
    }
  }
}

TEST_F(SensorReads, AWindowBetweenTwoSizesGivesTheSmaller) {
  ASSERT_EQ(setWindow(639, 480), 0);
  EXPECT_EQ(decodeJpeg(readJpeg())->width, 320);
  ASSERT_EQ(setWindow(320, 239), 0);
  EXPECT_EQ(decodeJpeg(readJpeg())->width, 160);
}

TEST_F(SensorReads, ThePictureIsThatOfTheScene) {
  set(kVicamSetCompRate, 100);
  show([](AVFrame* picture) {
    drawPlain(picture, 60, 128, 128);
    fillLuma(picture, {320, 0, 320, 480}, 200);
  });
  const Picture picture = decodeJpeg(readJpeg());
  ASSERT_TRUE(picture);
  EXPECT_NEAR(lumaAt(*picture, 100, 240), (60 - 16) * 255 / 219, 3);
  EXPECT_NEAR(lumaAt(*picture, 500, 240), (200 - 16) * 255 / 219, 3);
}

TEST_F(SensorReads, APictureIsCutOffAtTheLimit) {
  const std::size_t whole = readJpeg().size();
  EXPECT_EQ(readJpeg(whole).size(), whole);
  EXPECT_EQ(readJpeg(whole - 1).size(), whole - 1);
  EXPECT_EQ(readJpeg(1), std::vector<char>{'\xFF'});
  EXPECT_TRUE(readJpeg(0).empty());
}

TEST_F(SensorReads, WaitForThePictureThatIsDue) {
  readJpeg();
  pace_.waits.clear();
  readJpeg();
  EXPECT_EQ(pace_.waits, std::vector<std::int64_t>{33});
  pace_.now += 20;
  readJpeg();
  EXPECT_EQ(pace_.waits.back(), 13);
}

TEST_F(SensorReads, FollowTheRate) {
  readJpeg();
  for (const int rate : {30, 15, 10, 7, 6, 5, 3, 2, 1}) {
    ASSERT_EQ(set(kVicamSetFramerateId, rate), 0);
    const std::int64_t before = pace_.now;
    readJpeg();
    EXPECT_EQ(pace_.now - before, 1000 / rate);
  }
}

TEST_F(SensorReads, AnOverduePictureComesAtOnce) {
  set(kVicamSetFramerateId, 10);
  readJpeg();
  pace_.waits.clear();
  pace_.now += 130;
  readJpeg();
  EXPECT_TRUE(pace_.waits.empty());
  readJpeg();  // the reader was late, the pictures go on in their time
  EXPECT_EQ(pace_.waits, std::vector<std::int64_t>{70});
}

TEST_F(SensorReads, PicturesThatWereMissedAreNotMadeUpFor) {
  set(kVicamSetFramerateId, 10);
  readJpeg();
  pace_.now += 5'000;
  readJpeg();
  pace_.waits.clear();
  readJpeg();
  EXPECT_EQ(pace_.waits, std::vector<std::int64_t>{100});
  EXPECT_EQ(sensor_.count()->given, 3);
  EXPECT_EQ(sensor_.count()->missed, 49);
}

// The real time, which tells when somebody waits.
class TellingPace : public Pace {
 public:
  void wait(std::int64_t untilMs, std::condition_variable* changed,
            std::unique_lock<std::mutex>* lock) override {
    waiting = true;
    Pace::wait(untilMs, changed, lock);
  }

  std::atomic<bool> waiting{false};
};

TEST_F(SensorReads, AFasterRateWakesAReaderWhoWaits) {
  TellingPace pace;
  Sensor sensor(&world_, &pace);
  std::vector<char> data;
  std::vector<char> rate = {1, 0, 0, 0};
  ASSERT_EQ(sensor.ioctl(kVicamSetFramerateId, &rate), 0);
  sensor.read(1000, &data);
  const std::int64_t begin = pace.nowMs();
  std::thread reader([&] { sensor.read(1000, &data); });
  while (!pace.waiting) std::this_thread::yield();
  rate = {30, 0, 0, 0};
  EXPECT_EQ(sensor.ioctl(kVicamSetFramerateId, &rate), 0);
  reader.join();
  EXPECT_LT(pace.nowMs() - begin, 800);
}

class SensorAtWork : public SensorTest {
 protected:
  // Calls `action` again and again on a thread of its own, until join().
  void repeat(std::function<void()> action) {
    others_.emplace_back([this, action = std::move(action)] {
      do {
        action();
        ++actions_;
      } while (!done_);
    });
  }
  void join() {
    done_ = true;
    for (std::thread& other : others_) other.join();
  }

  std::atomic<int> actions_{0};

 private:
  std::atomic<bool> done_{false};
  std::vector<std::thread> others_;
};

TEST_F(SensorAtWork, AllMayBeAskedForAtTheSameTime) {
  for (int reader = 0; reader < 2; ++reader) repeat([this] { EXPECT_FALSE(readJpeg().empty()); });
  repeat([this] { capture(); });
  repeat([this] { EXPECT_GE(level(1), 0); });
  for (int round = 0; actions_ < 200; ++round) {
    const int odd = round % 2;
    EXPECT_EQ(setText(kVicamSetDtosdString, "Gate " + std::to_string(round)), 0);
    EXPECT_EQ(setImage(3, 2, 0xFFFF), 0);
    for (const unsigned request :
         {kVicamSetDtosdEnable, kVicamSetGposdEnable, kVicamSetMdosdEnable, kVicamSetFlip,
          kVicamSetMirror, kVicamSetNoisefilter, kVicamSetMdwnd1Enable})
      EXPECT_EQ(set(request, odd), 0);
    EXPECT_EQ(set(kVicamSetMdwnd1Width, 100 * odd), 0);
    EXPECT_EQ(set(kVicamSetFramerateId, 30 - odd), 0);
    EXPECT_EQ(setWindow(odd != 0 ? 320 : 640, 480), 0);
    EXPECT_EQ(setColours({32512, 32512, 32512, 32512, 0, 24, 0}), 0);
    nextPicture();
  }
  join();
}

}  // namespace
