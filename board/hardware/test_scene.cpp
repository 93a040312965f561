#include "board/hardware/test_scene.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "board/hardware/label.h"

namespace {

struct Colour {
  std::uint8_t y;
  std::uint8_t u;
  std::uint8_t v;
};
// The usual bars at 75 %, ITU-R BT.601.
constexpr Colour kBars[] = {{180, 128, 128}, {162, 44, 142}, {131, 156, 44}, {112, 72, 58},
                            {84, 184, 198},  {65, 100, 212}, {35, 212, 114}};
constexpr int kBarCount = 7;
constexpr int kRampTop = kSceneHeight - 60;

constexpr Colour kBall = {235, 128, 128};
constexpr Colour kRim = {16, 128, 128};
constexpr int kRimWidth = 3;
constexpr int kBallMin = 2;  // radius
constexpr int kBallMax = 60;

// Pixels a second; neither is a multiple of the other or of a rate, so that the ball is never where
// it was a picture ago.
constexpr int kSpeedX = 211;
constexpr int kSpeedY = 137;

void drawBackground(AVFrame* picture) {
  for (int y = 0; y < kSceneHeight; ++y) {
    std::uint8_t* row = picture->data[0] + y * picture->linesize[0];
    for (int x = 0; x < kSceneWidth; ++x)
      row[x] = y < kRampTop ? kBars[x * kBarCount / kSceneWidth].y
                            : static_cast<std::uint8_t>(16 + x * 219 / (kSceneWidth - 1));
  }
  for (int y = 0; y < kRampTop / 2; ++y) {
    for (int x = 0; x < kSceneWidth / 2; ++x) {
      const Colour& bar = kBars[x * 2 * kBarCount / kSceneWidth];
      picture->data[1][y * picture->linesize[1] + x] = bar.u;
      picture->data[2][y * picture->linesize[2] + x] = bar.v;
    }
  }
}

// The part of `area` that is inside the scene, without pixels whose colour others share.
Rectangle wholePixels(const Rectangle& area) {
  const auto first = [](std::int64_t from) {
    return static_cast<int>(std::clamp<std::int64_t>(from + 1, 0, kSceneWidth) & ~1);
  };
  const auto end = [](std::int64_t from, std::int64_t length, int limit) {
    return static_cast<int>(std::clamp<std::int64_t>(from + length, 0, limit) & ~1);
  };
  const int left = first(area.x);
  const int top = first(area.y);
  return {left, top, end(area.x, area.width, kSceneWidth) - left,
          end(area.y, area.height, kSceneHeight) - top};
}

// Where something is at that time that runs to and fro over `range` pixels. On a short way it is
// slower, or it would be seen where it turns only.
int bounce(std::int64_t timeMs, int range, int speed) {
  constexpr int kShortWay = 24;
  if (range < 1) return 0;
  const std::int64_t used = std::int64_t{speed} * std::min(range, kShortWay) / kShortWay;
  const std::int64_t way = timeMs * used / 1000 % (2 * range);
  return static_cast<int>(way <= range ? way : 2 * range - way);
}

// Fills the circle of that radius in one plane, whose pixels are `side` wide.
void fillCircle(AVFrame* picture, int plane, int x, int y, int radius, std::uint8_t value) {
  const int side = plane == 0 ? 1 : 2;
  for (int dy = -radius / side; dy < radius / side; ++dy) {
    const double middle = (dy + 0.5) * side;
    const int half =
        static_cast<int>(std::sqrt(std::max(0.0, 1.0 * radius * radius - middle * middle))) / side;
    std::memset(picture->data[plane] + (y / side + dy) * picture->linesize[plane] + x / side - half,
                value, static_cast<std::size_t>(2 * half));
  }
}

void drawBall(std::int64_t timeMs, const Rectangle& area, AVFrame* picture) {
  const int room = std::min(area.width, area.height);
  if (room < 2 * kBallMin) return;
  const int radius = std::clamp(room / 4, kBallMin, kBallMax);
  const int x = area.x + radius + bounce(timeMs, area.width - 2 * radius, kSpeedX);
  const int y = area.y + radius + bounce(timeMs, area.height - 2 * radius, kSpeedY);
  fillCircle(picture, 0, x, y, radius, kRim.y);
  fillCircle(picture, 0, x, y, std::max(radius - kRimWidth, radius / 2), kBall.y);
  fillCircle(picture, 1, x, y, radius, kBall.u);
  fillCircle(picture, 2, x, y, radius, kBall.v);
}

}  // namespace

TestScene::TestScene(std::time_t start)
    : start_(start), background_(makePicture(kSceneWidth, kSceneHeight)), shown_(start - 1) {
  tzset();
  drawBackground(background_.get());
}

void TestScene::draw(std::int64_t timeMs, const Rectangle* moving, AVFrame* picture) {
  const std::time_t now = start_ + static_cast<std::time_t>(timeMs / 1000);
  if (now != shown_) {
    std::tm fields{};
    char text[sizeof "HH:MM:SS"];
    localtime_r(&now, &fields);
    std::strftime(text, sizeof text, "%H:%M:%S", &fields);
    drawLabel(text, kClock).blend(background_.get());
    shown_ = now;
  }
  copyPicture(*background_, picture);
  if (moving) drawBall(timeMs, wholePixels(*moving), picture);
}
