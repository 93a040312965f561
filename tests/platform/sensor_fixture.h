// A sensor that looks at a scene which the test draws.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "board/hardware/pace.h"
#include "board/hardware/sensor.h"
#include "board/hardware/world.h"
#include "platform/vicam.h"

// What the scene shows, until the test puts something else there. Any thread.
class Stage {
 public:
  using Play = std::function<void(AVFrame* picture)>;

  void show(Play play);
  void draw(AVFrame* picture);

 private:
  std::mutex mutex_;
  Play play_;
};

// Time that passes when somebody waits for it, for the scene too. Any thread.
class PaceOfTest : public Pace {
 public:
  std::int64_t nowMs() override { return now; }
  void wait(std::int64_t untilMs, std::condition_variable* changed,
            std::unique_lock<std::mutex>* lock) override;

  std::atomic<std::int64_t> now{1'000'000};
  std::vector<std::int64_t> waits;  // under the lock that the waiting one holds
};

class SensorTest : public testing::Test {
 protected:
  SensorTest();

  // Shows something else, in a new picture.
  void show(Stage::Play play);
  // Lets the time pass to the next picture of the scene.
  void nextPicture();

  // Result of a request whose argument is a word.
  int set(unsigned request, std::int32_t value);
  int setText(unsigned request, const std::string& text);
  int setColours(const TVideoPicture& colours);
  int setWindow(std::uint32_t width, std::uint32_t height);
  int setImage(int width, int height, std::uint16_t pixel);
  int level(int window);  // 1 or 2

  Picture capture();
  std::vector<char> readJpeg(std::size_t limit = 1 << 20);

  Stage stage_;
  PaceOfTest pace_;
  World world_;
  Sensor sensor_;
};

// A picture with shades and colours in it, of which no part is like its mirror image.
void drawShades(AVFrame* picture);
void drawPlain(AVFrame* picture, int luma, int u, int v);
void fillLuma(AVFrame* picture, const Rectangle& where, int luma);

int lumaAt(const AVFrame& picture, int x, int y);
int uAt(const AVFrame& picture, int x, int y);  // in pixels of the luma
int vAt(const AVFrame& picture, int x, int y);
double meanLuma(const AVFrame& picture);
bool samePixels(const AVFrame& one, const AVFrame& other);
// The smallest rectangle that holds all differences of luma; 0 wide when there is none.
Rectangle differences(const AVFrame& one, const AVFrame& other);

// Decodes a JPEG picture. Null when the decoder complains of anything.
Picture decodeJpeg(const std::vector<char>& jpeg);
