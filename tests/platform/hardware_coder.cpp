// The pictures of the MPEG-4 coder and the header of its streams, judged by an independent decoder.
#include <unistd.h>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "board/hardware/mpeg4.h"
#include "board/hardware/test_scene.h"
#include "board/hardware/vol_header.h"
#include "hardware_fixture.h"
#include "tests/slow_build.h"

namespace {

constexpr std::array<std::array<int, 2>, 12> kSizes = {{{352, 288},
                                                        {720, 288},
                                                        {720, 576},
                                                        {352, 240},
                                                        {720, 240},
                                                        {720, 480},
                                                        {176, 144},
                                                        {640, 480},
                                                        {320, 240},
                                                        {160, 120},
                                                        {128, 96},
                                                        {48, 32}}};
constexpr Rectangle kMoving = {100, 60, 500, 400};

std::string text(const std::array<char, kMpg430HeaderBytes>& header) {
  return {header.begin(), header.end()};
}

double meanDifference(const AVFrame& one, const AVFrame& other) {
  double sum = 0;
  for (int y = 0; y < one.height; ++y)
    for (int x = 0; x < one.width; ++x) sum += std::abs(lumaAt(one, x, y) - lumaAt(other, x, y));
  return sum / (one.width * one.height);
}

// A scene with a moving ball, coded picture by picture.
class Film {
 public:
  Film(int width, int height) : scaled_(makePicture(width, height)) {}

  std::string next(std::int64_t timeMs, int quantiser, bool key) {
    scene_.draw(timeMs, &kMoving, seen_.get());
    scalePicture(*seen_, scaled_.get());
    std::vector<char> data;
    EXPECT_TRUE(coder_.encode(*scaled_, timeMs, {quantiser, key}, &data));
    EXPECT_TRUE(startsPicture(data));
    return {data.begin(), data.end()};
  }
  const AVFrame& shown() const { return *scaled_; }

 private:
  TestScene scene_{0};
  Mpeg4Coder coder_;
  Picture seen_ = makePicture(kSceneWidth, kSceneHeight);
  Picture scaled_;
};

class HardwareCoder : public testing::Test {
 protected:
  LibavComplaints complaints_;
};

TEST_F(HardwareCoder, EverySizeAndQuantiserDecodesToWhatWasSeen) {
  SKIP_WHERE_RACES_ARE_WATCHED();
  for (const auto& [width, height] : kSizes) {
    Film film(width, height);
    StreamJudge judge;
    for (int i = 0; i < 31; ++i) {
      const int quantiser = i + 1;
      const bool key = i % 5 == 0;
      const std::string data = film.next(i * 33, quantiser, key);
      const Picture decoded = judge.decode(text(volHeader(width, height)) + data);
      ASSERT_TRUE(decoded) << width << "x" << height << " picture " << i << complaints_.text();
      EXPECT_EQ(decoded->width, width);
      EXPECT_EQ(decoded->height, height);
      EXPECT_EQ(decoded->pict_type, key ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_P);
      EXPECT_LT(meanDifference(*decoded, film.shown()), 1 + quantiser * 0.3) << width << " " << i;
    }
  }
  EXPECT_EQ(complaints_.text(), "");
}

TEST_F(HardwareCoder, ManyPredictedPicturesDoNotDriftAway) {
  SKIP_WHERE_RACES_ARE_WATCHED();
  Film film(320, 240);
  StreamJudge judge;
  for (int i = 0; i < 600; ++i) {
    const std::string data = film.next(i * 33, 2, i % 256 == 0);
    const Picture decoded = judge.decode(i == 0 ? text(volHeader(320, 240)) + data : data);
    ASSERT_TRUE(decoded) << i << complaints_.text();
    ASSERT_EQ(decoded->pict_type, i % 256 == 0 ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_P) << i;
    ASSERT_LT(meanDifference(*decoded, film.shown()), 2) << i;
  }
  EXPECT_EQ(complaints_.text(), "");
}

// Returns what a command prints, errors and all.
std::string outputOf(const std::string& command) {
  std::string output;
  std::FILE* const pipe = popen((command + " 2>&1").c_str(), "r");
  char buffer[256];
  while (pipe && std::fgets(buffer, sizeof buffer, pipe)) output += buffer;
  if (pipe) pclose(pipe);
  return output;
}

TEST_F(HardwareCoder, AStreamInAFilePassesWithoutAWarning) {
  const std::string path = testing::TempDir() + "coder." + std::to_string(getpid()) + ".m4v";
  for (const auto& [width, height] : {std::pair{640, 480}, {720, 288}, {160, 120}}) {
    Film film(width, height);
    std::ofstream file(path, std::ios::binary);
    file << text(volHeader(width, height));
    for (int i = 0; i < 40; ++i) file << film.next(i * 100, 4, i % 15 == 0);
    file.close();
    EXPECT_EQ(outputOf("ffprobe -v warning -err_detect explode -count_frames -of csv=p=0 "
                       "-show_entries stream=width,height,has_b_frames,nb_read_frames " +
                       path),
              std::to_string(width) + "," + std::to_string(height) + ",0,40\n");
  }
  unlink(path.c_str());
}

TEST_F(HardwareCoder, ABetterQuantiserTakesMoreRoom) {
  std::size_t larger = 1 << 20;
  for (const int quantiser : {1, 4, 12, 31}) {
    const std::size_t size = Film(640, 480).next(0, quantiser, true).size();
    EXPECT_LT(size, larger) << quantiser;
    larger = size;
  }
}

// Time of a picture, as its head tells it: seconds since the picture before, and steps in them.
struct PictureTime {
  bool key;
  int seconds = 0;
  int steps;
};

PictureTime timeIn(const std::string& picture) {
  PictureTime time{};
  std::size_t position = 32;
  time.key = takeBits(picture, &position, 2) == 0;
  while (takeBits(picture, &position, 1) == 1) ++time.seconds;
  EXPECT_EQ(takeBits(picture, &position, 1), 1u);
  time.steps = static_cast<int>(takeBits(picture, &position, 10));
  EXPECT_EQ(takeBits(picture, &position, 1), 1u);
  return time;
}

TEST_F(HardwareCoder, TimesRunOnOverKeyPicturesAndFullSeconds) {
  Film film(160, 120);
  StreamJudge judge;
  std::int64_t now = 0;
  std::int64_t seconds = 0;
  for (int i = 0; i < 200; ++i) {
    const std::string data = film.next(now, 1 + i % 8, i % 3 != 2);
    const PictureTime time = timeIn(data);
    EXPECT_EQ(time.key, i % 3 != 2);
    seconds += time.seconds;
    ASSERT_EQ(seconds * 1000 + time.steps, now) << i;
    const auto last = static_cast<unsigned char>(data.back());
    EXPECT_NE(last, 0xFF) << "no zero in front of the ones that fill the last byte";
    const Picture decoded = judge.decode(i == 0 ? text(volHeader(160, 120)) + data : data);
    ASSERT_TRUE(decoded) << i << complaints_.text();
    ASSERT_LT(meanDifference(*decoded, film.shown()), 4) << i;
    now += i % 7 == 0 ? 3456 : 311;
  }
  EXPECT_EQ(complaints_.text(), "");
}

TEST_F(HardwareCoder, ALongPauseIsToldAsAShortOne) {
  Film film(160, 120);
  film.next(0, 5, true);
  EXPECT_EQ(timeIn(film.next(7200'000, 5, true)).seconds, 10);
  EXPECT_EQ(timeIn(film.next(7200'500, 5, false)).seconds, 0);
  EXPECT_EQ(timeIn(film.next(7200'400, 5, false)).steps, 501) << "a clock that goes back";
}

TEST_F(HardwareCoder, TheHeaderTellsThePictureBitByBit) {
  for (const auto& [width, height] : kSizes) {
    const std::string header = text(volHeader(width, height));
    ASSERT_EQ(header.size(), 20u);
    EXPECT_EQ(header.substr(0, 8), std::string("\0\0\1\0\0\0\1\x20", 8));
    std::size_t at = 64;
    EXPECT_EQ(takeBits(header, &at, 1), 0u);     // random access
    EXPECT_EQ(takeBits(header, &at, 8), 1u);     // simple
    EXPECT_EQ(takeBits(header, &at, 8), 0x89u);  // identifier, version 1, priority 1
    EXPECT_EQ(takeBits(header, &at, 4), 1u);     // square pixels
    EXPECT_EQ(takeBits(header, &at, 1), 0u);     // no control parameters
    EXPECT_EQ(takeBits(header, &at, 3), 1u);     // rectangular, marker
    EXPECT_EQ(takeBits(header, &at, 16), 1000u);
    EXPECT_EQ(takeBits(header, &at, 3), 5u);  // marker, no fixed rate, marker
    ASSERT_EQ(at, 108u);
    EXPECT_EQ(takeBits(header, &at, 13), static_cast<unsigned>(width));
    EXPECT_EQ(takeBits(header, &at, 1), 1u);
    EXPECT_EQ(takeBits(header, &at, 13), static_cast<unsigned>(height));
    EXPECT_EQ(takeBits(header, &at, 1), 1u);
    EXPECT_EQ(takeBits(header, &at, 9), 0b010001100u);  // plain tools
    EXPECT_EQ(takeBits(header, &at, 7), 0b0111111u);    // filled up
    EXPECT_EQ(takeBits(header, &at, 8), 0u);
  }
}

}  // namespace
