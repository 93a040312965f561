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
}

TEST_F(SensorReads, AFasterRateWakesAReaderWhoWaits) {
  Sensor sensor(&world_);  // in real time
  std::vector<char> data;
  std::vector<char> rate = {1, 0, 0, 0};
  ASSERT_EQ(sensor.ioctl(kVicamSetFramerateId, &rate), 0);
  sensor.read(1000, &data);
  std::atomic<bool> waiting{false};
  const auto begin = std::chrono::steady_clock::now();
  std::thread reader([&] {
    waiting = true;
    sensor.read(1000, &data);
  });
  while (!waiting) std::this_thread::yield();
  rate = {30, 0, 0, 0};
  EXPECT_EQ(sensor.ioctl(kVicamSetFramerateId, &rate), 0);
  reader.join();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(800));
}

TEST_F(SensorReads, AllMayBeAskedForAtTheSameTime) {
  Sensor sensor(&world_);
  std::atomic<bool> done{false};
  std::vector<std::thread> others;
  for (int reader = 0; reader < 2; ++reader) {
    others.emplace_back([&] {
      std::vector<char> data;
      while (!done) EXPECT_GT(sensor.read(1 << 20, &data), 0);
    });
  }
  others.emplace_back([&] {
    const Picture picture = makePicture(kSceneWidth, kSceneHeight);
    while (!done) sensor.capture(picture.get());
  });
  others.emplace_back([&] {
    std::vector<char> word(4);
    while (!done) EXPECT_GE(sensor.ioctl(kVicamGetMdwnd1Status, &word), 0);
  });
  const auto request = [&sensor](unsigned number, char value) {
    std::vector<char> argument = {value, 0, 0, 0};
    EXPECT_EQ(sensor.ioctl(number, &argument), 0);
  };
  for (int round = 0; round < 20; ++round) {
    const char odd = static_cast<char>(round % 2);
    std::vector<char> text = {'t', static_cast<char>('a' + round), '\0'};
    EXPECT_EQ(sensor.ioctl(kVicamSetDtosdString, &text), 0);
    std::vector<char> image = {'O', 'S', 'D', '1', 1, 0, 1, 0, '\xFF', '\xFF'};
    EXPECT_EQ(sensor.ioctl(kVicamSetGposdImg, &image), 0);
    for (const unsigned number :
         {kVicamSetDtosdEnable, kVicamSetGposdEnable, kVicamSetMdosdEnable, kVicamSetFlip,
          kVicamSetMirror, kVicamSetNoisefilter, kVicamSetMdwnd1Enable, kVicamSetMdwnd1Width})
      request(number, odd);
    request(kVicamSetFramerateId, static_cast<char>(30 - odd));
    TVideoWindow window{0, 0, odd ? 320u : 640u, 480, 0, 0, 0, 0};
    std::vector<char> bytes(reinterpret_cast<char*>(&window),
                            reinterpret_cast<char*>(&window) + sizeof(window));
    EXPECT_EQ(sensor.ioctl(kVidiocswin, &bytes), 0);
    nextPicture();
  }
  done = true;
  for (std::thread& other : others) other.join();
}

}  // namespace
