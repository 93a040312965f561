// The scenes of the virtual board: the one that is built in, films, folders, cameras of the PC.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>

#include "board/hardware/device_scene.h"
#include "board/hardware/jpeg.h"
#include "board/hardware/test_scene.h"
#include "sensor_fixture.h"
#include "tests/slow_build.h"

namespace {

constexpr std::time_t kNoon = 1'700'000'000 / 86400 * 86400 + 12 * 3600;

// The scene at a time. A clock that stands still would hide what else changes, so tests that look
// for the ball stay within a second.
Picture look(Scene* scene, std::int64_t timeMs, const Rectangle* moving = nullptr) {
  Picture picture = makePicture(kSceneWidth, kSceneHeight);
  scene->draw(timeMs, moving, picture.get());
  return picture;
}

// All pixels but for those in `except` are the same; colours count where they share no pixel with
// it.
bool sameOutside(const AVFrame& one, const AVFrame& other, const Rectangle& except) {
  for (int plane = 0; plane < 3; ++plane) {
    const int side = plane == 0 ? 1 : 2;
    const auto bound = [side](std::int64_t at, int limit) {
      return static_cast<int>(std::clamp<std::int64_t>(at, 0, limit) / side);
    };
    const int left = bound(std::int64_t{except.x} + side - 1, kSceneWidth);
    const int right = bound(std::int64_t{except.x} + except.width, kSceneWidth);
    const int top = bound(std::int64_t{except.y} + side - 1, kSceneHeight);
    const int bottom = bound(std::int64_t{except.y} + except.height, kSceneHeight);
    for (int y = 0; y < kSceneHeight / side; ++y) {
      const std::uint8_t* a = one.data[plane] + y * one.linesize[plane];
      const std::uint8_t* b = other.data[plane] + y * other.linesize[plane];
      const auto same = [a, b](int from, int to) {
        return from >= to ||
               std::memcmp(a + from, b + from, static_cast<std::size_t>(to - from)) == 0;
      };
      const bool crossed = y >= top && y < bottom && left < right;
      if (!(crossed ? same(0, left) && same(right, kSceneWidth / side)
                    : same(0, kSceneWidth / side)))
        return false;
    }
  }
  return true;
}

bool same(const AVFrame& one, const AVFrame& other) {
  return sameOutside(one, other, {0, 0, 0, 0});
}

TEST(HardwareTestScene, IsAFunctionOfTime) {
  TestScene one(kNoon);
  TestScene other(kNoon);
  const Rectangle moving = {200, 100, 300, 200};
  for (const std::int64_t time : {0, 33, 5000, 4967, 86'400'000, 33})
    EXPECT_TRUE(same(*look(&one, time, &moving), *look(&other, time, &moving))) << time;
  look(&one, 77'777, &moving);
  EXPECT_TRUE(same(*look(&one, 33), *look(&other, 33))) << "whatever was drawn before";
}

TEST(HardwareTestScene, TheBallMovesInsideItsRectangleAndNowhereElse) {
  TestScene scene(kNoon);
  const Picture still = look(&scene, 0);
  for (const Rectangle& moving : {Rectangle{200, 100, 300, 200},
                                  {0, 0, 640, 480},
                                  {301, 77, 101, 55},
                                  {40, 60, 17, 17},
                                  {13, 41, 8, 300},
                                  {600, 440, 100, 100},
                                  {-50, -50, 120, 120},
                                  {-10, 100, INT_MAX, 60}}) {
    Picture before;
    for (int time = 0; time < 990; time += 33) {
      Picture now = look(&scene, time, &moving);
      ASSERT_FALSE(same(*still, *now)) << moving.x << " " << time;
      ASSERT_TRUE(sameOutside(*still, *now, moving)) << moving.x << " " << time;
      ASSERT_FALSE(before && same(*before, *now)) << moving.x << " " << time;
      before.swap(now);
    }
  }
}

TEST(HardwareTestScene, TheBallGoesSeveralPixelsFromPictureToPicture) {
  SKIP_WHERE_RACES_ARE_WATCHED();
  TestScene scene(kNoon);
  const Rectangle moving = {220, 100, 200, 200};
  const Picture still = look(&scene, 0);
  Rectangle last = differences(*still, *look(&scene, 0, &moving));
  int leftmost = last.x, rightmost = last.x;
  for (int time = 33; time < 990; time += 33) {
    const Rectangle now = differences(*still, *look(&scene, time, &moving));
    const int way = std::abs(now.x - last.x) + std::abs(now.y - last.y);
    EXPECT_GE(way, 2) << time;
    EXPECT_LE(way, 14) << time;
    leftmost = std::min(leftmost, now.x);
    rightmost = std::max(rightmost, now.x);
    last = now;
  }
  EXPECT_LE(leftmost, 230) << "it comes to both sides";
  EXPECT_GE(rightmost + last.width, 410);
}

TEST(HardwareTestScene, NothingMovesInARectangleWithoutRoom) {
  TestScene scene(kNoon);
  const Picture still = look(&scene, 0);
  for (const Rectangle& moving : {Rectangle{100, 100, 0, 50},
                                  {100, 100, 50, -3},
                                  {100, 100, 3, 3},
                                  {640, 0, 100, 100},
                                  {-200, 0, 200, 100},
                                  {INT_MAX, INT_MAX, INT_MAX, INT_MAX},
                                  {INT_MIN, INT_MIN, INT_MAX, INT_MAX},
                                  {0, 0, INT_MIN, INT_MIN}})
    EXPECT_TRUE(same(*look(&scene, 330, &moving), *still)) << moving.x;
}

TEST(HardwareTestScene, TheClockChangesEachSecondInItsCornerAlone) {
  TestScene scene(kNoon);
  const Picture first = look(&scene, 0);
  EXPECT_TRUE(same(*look(&scene, 999), *first));
  for (const int second : {1, 9, 10, 59, 60, 3599, 3600, 86399}) {
    const Picture now = look(&scene, second * 1000);
    EXPECT_FALSE(same(*now, *first)) << second;
    EXPECT_TRUE(sameOutside(*now, *first, TestScene::kClock)) << second;
  }
  EXPECT_TRUE(same(*look(&scene, 86'400'000), *first)) << "a day later";
}

TEST(HardwareTestScene, TheClockShowsTheTimeOfTheZone) {
  const char* const before = std::getenv("TZ");
  const std::string kept = before ? before : "";
  setenv("TZ", "UTC0", 1);
  TestScene utc(kNoon);
  const Picture noon = look(&utc, 0);
  setenv("TZ", "XST-2", 1);
  TestScene east(kNoon);
  EXPECT_FALSE(same(*look(&east, 0), *noon));
  TestScene earlier(kNoon - 2 * 3600);
  EXPECT_TRUE(same(*look(&earlier, 0), *noon));
  before ? setenv("TZ", kept.c_str(), 1) : unsetenv("TZ");
  tzset();
}

// Scenes from files in a folder of their own.
class HardwareMedia : public testing::Test {
 protected:
  HardwareMedia() { EXPECT_NE(mkdtemp(folder_.data()), nullptr); }
  ~HardwareMedia() override {
    for (const std::string& name : names_) unlink(name.c_str());
    rmdir(folder_.c_str());
  }

  std::string write(const std::string& name, const std::string& bytes) {
    const std::string path = folder_ + "/" + name;
    std::ofstream(path, std::ios::binary) << bytes;
    names_.push_back(path);
    return path;
  }
  // A JPEG picture in one shade.
  static std::string jpeg(int luma, int width = 320, int height = 240) {
    const Picture picture = makePicture(width, height);
    for (int y = 0; y < height; ++y)
      std::memset(picture->data[0] + y * picture->linesize[0], luma,
                  static_cast<std::size_t>(width));
    std::vector<char> data;
    EXPECT_TRUE(JpegCoder().encode(*picture, 90, &data));
    return {data.begin(), data.end()};
  }
  // 25 pictures a second, each brighter by 10 than the one before.
  static std::string film(int pictures) {
    std::string bytes;
    for (int i = 0; i < pictures; ++i) bytes += jpeg(40 + 10 * i);
    return bytes;
  }
  static double shade(Scene* scene, std::int64_t timeMs) { return meanLuma(*look(scene, timeMs)); }

  std::string folder_ = testing::TempDir() + "scene.XXXXXX";
  std::vector<std::string> names_;
  std::string error_;
};

TEST_F(HardwareMedia, AFilmIsShownAgainAndAgainAtItsOwnPace) {
  SKIP_WHERE_RACES_ARE_WATCHED();
  const auto scene = openScene(write("film.mjpeg", film(10)), &error_);
  ASSERT_TRUE(scene) << error_;
  for (int time = 0; time < 1500; time += 20)
    EXPECT_NEAR(shade(scene.get(), time), 40 + 10 * (time / 40 % 10), 1.5) << time;
}

TEST_F(HardwareMedia, AFilmGoesOnWhereNobodyLooked) {
  const auto scene = openScene(write("film.mjpeg", film(10)), &error_);
  ASSERT_TRUE(scene) << error_;
  EXPECT_NEAR(shade(scene.get(), 0), 40, 1.5);
  EXPECT_NEAR(shade(scene.get(), 3600'000), 50, 1.5) << "an hour is not made up for";
  EXPECT_NEAR(shade(scene.get(), 3600'040), 60, 1.5);
}

TEST_F(HardwareMedia, APhotographStays) {
  const auto scene = openScene(write("photo.jpg", jpeg(99)), &error_);
  ASSERT_TRUE(scene) << error_;
  testing::internal::CaptureStderr();
  for (const int time : {0, 40, 1000, 100'000}) EXPECT_NEAR(shade(scene.get(), time), 99, 1.5);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(HardwareMedia, AFilmThatGoesAwayKeepsItsLastPictureAndSaysSoOnce) {
  SKIP_WHERE_RACES_ARE_WATCHED();
  const std::string path = write("film.mjpeg", film(10));
  const auto scene = openScene(path, &error_);
  ASSERT_TRUE(scene) << error_;
  ASSERT_EQ(truncate(path.c_str(), 0), 0);
  testing::internal::CaptureStderr();
  for (int time = 0; time < 2000; time += 20) shade(scene.get(), time);
  EXPECT_NEAR(shade(scene.get(), 3000), 130, 1.5);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "hardware: " + path + " can't be read any longer, its last picture stays\n");
}

TEST_F(HardwareMedia, AFolderShowsAPictureASecondInTheOrderOfNames) {
  write("b.JPG", jpeg(80));
  write("a.jpeg", jpeg(50, 64, 48));
  write("c.jpg", jpeg(110, 800, 600));
  write("notes.txt", "no picture");
  write(".hidden.jpg", jpeg(200));
  const auto scene = openScene(folder_, &error_);
  ASSERT_TRUE(scene) << error_;
  for (int second = 0; second < 7; ++second)
    EXPECT_NEAR(shade(scene.get(), second * 1000 + 500), 50 + 30 * (second % 3), 1.5) << second;
}

TEST_F(HardwareMedia, AFolderLeavesOutWhatCannotBeReadAndSaysSoOnce) {
  const std::string broken = write("a.jpg", "no picture");
  write("b.jpg", jpeg(80));
  write("c.jpg", "");
  testing::internal::CaptureStderr();
  const auto scene = openScene(folder_, &error_);
  ASSERT_TRUE(scene) << error_;
  for (int second = 0; second < 6; ++second)
    EXPECT_NEAR(shade(scene.get(), second * 1000), 80, 1.5) << second;
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_EQ(said.find("hardware: " + broken), 0u) << said;
  EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
}

// A film stands in for the camera of a PC: it is read in the same way and then ends, as a camera
// does that is unplugged.
TEST_F(HardwareMedia, ACameraThatIsUnpluggedKeepsItsLastPictureAndSaysSoOnce) {
  const std::string path = write("film.mjpeg", film(10));
  const std::string said = write("said", "");
  const int kept = dup(STDERR_FILENO);
  const int file = open(said.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  dup2(file, STDERR_FILENO);
  {
    const auto scene = DeviceScene::open(path, &error_);
    EXPECT_TRUE(scene) << error_;
    while (scene && lseek(file, 0, SEEK_END) == 0) usleep(1000);  // until it complains
    EXPECT_NEAR(scene ? shade(scene.get(), 0) : 0, 130, 1.5);
  }
  dup2(kept, STDERR_FILENO);
  close(file);
  close(kept);
  std::ostringstream text;
  text << std::ifstream(said).rdbuf();
  EXPECT_EQ(text.str(), "hardware: " + path + " gives no more pictures, its last one stays\n");
}

TEST_F(HardwareMedia, WhatCannotBeOpenedIsNamed) {
  const std::string text = write("text.mp4", "no film");
  const std::string empty = write("empty.jpg", "");
  const std::string wave = write("sound.wav", std::string("RIFF\x2c\0\0\0WAVEfmt \x10\0\0\0\1\0\1\0"
                                                          "\x40\x1f\0\0\x80\x3e\0\0\2\0\x10\0"
                                                          "data\x08\0\0\0\0\0\0\0\0\0\0\0",
                                                          52));
  mkfifo((folder_ + "/pipe").c_str(), 0600);
  names_.push_back(folder_ + "/pipe");
  for (const std::string& what :
       {folder_ + "/nothing", folder_, text, empty, wave, folder_ + "/pipe",
        std::string("/dev/video77"), std::string("/dev/null"),
        std::string("http://127.0.0.1/a.mp4"), std::string()}) {
    error_.clear();
    EXPECT_FALSE(openScene(what, &error_)) << what;
    EXPECT_EQ(error_.find(what), 0u) << error_;
    EXPECT_GT(error_.size(), what.size() + 2) << error_;
  }
}

TEST_F(HardwareMedia, BrokenFilesNeverEndTheProgram) {
  SKIP_WHERE_RACES_ARE_WATCHED();
  const std::string whole = film(4);
  unsigned random = 1;
  for (int i = 0; i < 60; ++i) {
    std::string bytes = whole;
    for (int damage = 0; damage < 1 + i % 10; ++damage) {
      random = random * 1664525 + 1013904223;
      bytes[random % bytes.size()] = static_cast<char>(random >> 24);
    }
    if (i % 3 == 0) bytes.resize(random % bytes.size());
    std::unique_ptr<Scene> scene = openScene(write("broken.mjpeg", bytes), &error_);
    testing::internal::CaptureStderr();
    for (int time = 0; scene && time < 400; time += 20) look(scene.get(), time);
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_LE(std::count(said.begin(), said.end(), '\n'), 1) << said;
  }
}

}  // namespace
