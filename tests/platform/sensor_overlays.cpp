// The overlays in the sensor's picture.
#include <cerrno>
#include <climits>

#include "board/hardware/overlay_painter.h"
#include "platform/overlay.h"
#include "sensor_fixture.h"

namespace {

// The requests of one of the two texts.
struct TextRequests {
  unsigned enable, transparency, colour, x, y, text;
};
constexpr TextRequests kMotion{kVicamSetMdosdEnable, kVicamSetMdosdTransp, kVicamSetMdosdColor,
                               kVicamSetMdosdXpos,   kVicamSetMdosdYpos,   kVicamSetMdosdString};
constexpr TextRequests kDate{kVicamSetDtosdEnable, kVicamSetDtosdTransp, kVicamSetDtosdColor,
                             kVicamSetDtosdXpos,   kVicamSetDtosdYpos,   kVicamSetDtosdString};

constexpr int kGrey = 110;
constexpr int kWhiteLuma = 235;
constexpr int kBlackLuma = 16;
constexpr std::uint16_t kRedPixel = 0xFF00;

class SensorOverlays : public SensorTest {
 protected:
  SensorOverlays() {
    stage_.show([](AVFrame* picture) { drawPlain(picture, kGrey, 128, 128); });
    without_ = capture();
  }

  void showText(const TextRequests& r, const std::string& text, int x, int y,
                int transparency = 0) {
    EXPECT_EQ(setText(r.text, text), 0);
    EXPECT_EQ(set(r.x, x), 0);
    EXPECT_EQ(set(r.y, y), 0);
    EXPECT_EQ(set(r.transparency, transparency), 0);
    EXPECT_EQ(set(r.enable, 1), 0);
  }

  void showGraphic(int x, int y, int transparency = 1) {
    set(kVicamSetGposdXpos, x);
    set(kVicamSetGposdYpos, y);
    set(kVicamSetGposdTransp, transparency);
    set(kVicamSetGposdEnable, 1);
  }

  // What the overlays cover.
  Rectangle covered() { return differences(*without_, *capture()); }

  // Pixels with that luma.
  static int count(const AVFrame& picture, int luma) {
    int sum = 0;
    for (int y = 0; y < kSceneHeight; ++y)
      for (int x = 0; x < kSceneWidth; ++x) sum += lumaAt(picture, x, y) == luma ? 1 : 0;
    return sum;
  }

  Picture without_;
};

TEST_F(SensorOverlays, ATextStandsInABoxAtItsPosition) {
  for (const TextRequests& requests : {kMotion, kDate}) {
    showText(requests, "Motion 1", 101, 57);
    const Rectangle box = covered();
    EXPECT_EQ(box.x, 101);
    EXPECT_EQ(box.y, 57);
    EXPECT_GT(box.width, 60);
    EXPECT_LT(box.width, 110);
    EXPECT_GT(box.height, 15);
    EXPECT_LT(box.height, 30);
    const Picture picture = capture();
    EXPECT_EQ(lumaAt(*picture, 101, 57), kBlackLuma);
    EXPECT_GT(count(*picture, kWhiteLuma), 50);
    set(requests.enable, 0);
    EXPECT_TRUE(samePixels(*without_, *capture()));
  }
}

TEST_F(SensorOverlays, ALongerTextCoversMore) {
  showText(kDate, "Gate", 10, 10);
  const int before = covered().width;
  setText(kVicamSetDtosdString, "Gate 2026/11/21 09:00:00");
  EXPECT_GT(covered().width, before + 100);
  EXPECT_EQ(covered().x, 10);
}

TEST_F(SensorOverlays, ATextWithAClearBackgroundCoversItsLettersAlone) {
  showText(kDate, "I I", 100, 100, 1);
  const Picture picture = capture();
  const int untouched = count(*picture, kGrey);
  EXPECT_GT(untouched, kSceneWidth * kSceneHeight - 400);
  EXPECT_LT(untouched, kSceneWidth * kSceneHeight - 30);
  EXPECT_GT(count(*picture, kWhiteLuma), 10);
  EXPECT_EQ(lumaAt(*picture, 100, 100), kGrey);
}

TEST_F(SensorOverlays, AVeiledBackgroundLetsThePictureThrough) {
  showText(kDate, "Gate", 100, 100, 2);
  const Picture picture = capture();
  EXPECT_NEAR(lumaAt(*picture, 100, 100), (kGrey + kBlackLuma) / 2, 2);
  EXPECT_GT(count(*picture, kWhiteLuma), 20);
}

TEST_F(SensorOverlays, ATranslucentTextIsHalfAsStrong) {
  showText(kDate, "Gate", 100, 100, 3);
  const Picture picture = capture();
  EXPECT_EQ(lumaAt(*picture, 100, 100), kGrey);
  EXPECT_EQ(count(*picture, kWhiteLuma), 0);
  int brightest = 0;
  for (int y = 100; y < 130; ++y)
    for (int x = 100; x < 160; ++x) brightest = std::max(brightest, lumaAt(*picture, x, y));
  EXPECT_NEAR(brightest, (kGrey + kWhiteLuma) / 2, 2);
}

TEST_F(SensorOverlays, EachColourCodeHasItsColour) {
  struct Expected {
    int code, luma, u, v;
  };
  showText(kMotion, "\xE2\x96\x88\xE2\x96\x88\xE2\x96\x88", 100, 100);  // full blocks
  for (const Expected& e : {Expected{0, 235, 128, 128},
                            {1, 16, 128, 128},
                            {2, 82, 90, 240},
                            {3, 145, 54, 34},
                            {4, 41, 240, 110},
                            {5, 210, 16, 146},
                            {6, 170, 166, 16},
                            {7, 107, 202, 222}}) {
    set(kVicamSetMdosdColor, e.code);
    const Picture picture = capture();
    EXPECT_NEAR(lumaAt(*picture, 112, 110), e.luma, 2) << e.code;
    EXPECT_NEAR(uAt(*picture, 112, 110), e.u, 2) << e.code;
    EXPECT_NEAR(vAt(*picture, 112, 110), e.v, 2) << e.code;
  }
}

TEST_F(SensorOverlays, FlipAndMirrorDoNotTurnThem) {
  showText(kDate, "Gate", 100, 100);
  const Picture before = capture();
  set(kVicamSetFlip, 1);
  set(kVicamSetMirror, 1);
  EXPECT_TRUE(samePixels(*before, *capture()));
}

TEST_F(SensorOverlays, PictureSettingsDoNotChangeThem) {
  showText(kDate, "Gate", 100, 100);
  set(kVicamSetExposure, 1);
  set(kVicamSetNoisefilter, 3);
  const Picture picture = capture();
  EXPECT_LT(lumaAt(*picture, 10, 10), kGrey - 20);
  EXPECT_GT(count(*picture, kWhiteLuma), 20);
}

TEST_F(SensorOverlays, WhatLiesOutsideThePictureIsCutOff) {
  showText(kDate, "Gate 2026/11/21 09:00:00", 600, 470);
  EXPECT_EQ(covered().x + covered().width, kSceneWidth);
  EXPECT_EQ(covered().y + covered().height, kSceneHeight);
  showText(kDate, "Gate 2026/11/21 09:00:00", -30, -5);
  EXPECT_EQ(covered().x, 0);
  EXPECT_EQ(covered().y, 0);
  EXPECT_LT(covered().height, 25);
  for (const int away : {-5000, 640, INT_MIN, INT_MAX}) {
    showText(kDate, "Gate", away, 10);
    EXPECT_TRUE(samePixels(*without_, *capture())) << away;
    showText(kDate, "Gate", 10, away);
    EXPECT_TRUE(samePixels(*without_, *capture())) << away;
  }
}

TEST_F(SensorOverlays, AnEmptyTextShowsNothing) {
  showText(kDate, "", 100, 100);
  EXPECT_TRUE(samePixels(*without_, *capture()));
}

TEST_F(SensorOverlays, ALongTextGoesUpToTheEdge) {
  showText(kMotion, std::string(256, 'W'), 0, 0);
  EXPECT_EQ(covered().width, kSceneWidth);
  EXPECT_LT(covered().height, 30);
}

TEST_F(SensorOverlays, OfATextMoreThan256CharactersAreNotLookedAt) {
  showText(kMotion, std::string(256, ' ') + "W", -1000, 100, 1);
  EXPECT_EQ(covered().width, 0);
  showText(kMotion, std::string(255, ' ') + "W", -1000, 100, 1);
  EXPECT_GT(covered().width, 5);
}

TEST_F(SensorOverlays, ATextThatIsNoUtf8IsDrawnWithReplacements) {
  showText(kDate, "G\xFCnther", 100, 100);
  const Rectangle odd = covered();
  EXPECT_GT(odd.width, 50);
  showText(kDate, std::string(200, '\xFF'), 0, 0);
  EXPECT_EQ(covered().width, kSceneWidth);
}

TEST_F(SensorOverlays, TheGraphicStandsAtItsPosition) {
  ASSERT_EQ(setImage(31, 17, kRedPixel), 0);
  showGraphic(201, 99);
  const Rectangle box = covered();
  EXPECT_EQ(box.x, 201);
  EXPECT_EQ(box.y, 99);
  EXPECT_EQ(box.width, 31);
  EXPECT_EQ(box.height, 17);
  EXPECT_NEAR(lumaAt(*capture(), 210, 105), 82, 1);
  EXPECT_NEAR(vAt(*capture(), 210, 105), 240, 1);
  set(kVicamSetGposdEnable, 0);
  EXPECT_TRUE(samePixels(*without_, *capture()));
}

TEST_F(SensorOverlays, TheGraphicsColoursLieWhereItsPixelsAre) {
  std::vector<char> image = {'O', 'S', 'D', '1', 30, 0, 18, 0};
  for (int y = 0; y < 18; ++y) {
    for (int x = 0; x < 30; ++x) {  // red and blue above blue and red, opaque
      image.push_back(static_cast<char>((x < 15) != (y < 9) ? 0x0F : 0x00));
      image.push_back(static_cast<char>((x < 15) != (y < 9) ? 0xF0 : 0xFF));
    }
  }
  ASSERT_EQ(sensor_.ioctl(kVicamSetGposdImg, &image), 0);
  showGraphic(201, 99);
  const Picture picture = capture();
  const auto isRed = [&](int x, int y) { return vAt(*picture, x, y) > 200; };
  const auto isBlue = [&](int x, int y) { return uAt(*picture, x, y) > 200; };
  for (const int x : {202, 214}) {
    for (const int y : {100, 106}) EXPECT_TRUE(isRed(x, y)) << x << " " << y;
    for (const int y : {108, 114}) EXPECT_TRUE(isBlue(x, y)) << x << " " << y;
  }
  for (const int x : {216, 228}) {
    for (const int y : {100, 106}) EXPECT_TRUE(isBlue(x, y)) << x << " " << y;
    for (const int y : {108, 114}) EXPECT_TRUE(isRed(x, y)) << x << " " << y;
  }
  // Pixels that share their colour with the picture beside the graphic have half of it.
  EXPECT_NEAR(vAt(*picture, 200, 104), (128 + 240) / 2, 2);
  EXPECT_NEAR(uAt(*picture, 230, 104), (128 + 240) / 2, 2);
  EXPECT_NEAR(vAt(*picture, 208, 98), (128 + 240) / 2, 2);
  EXPECT_EQ(vAt(*picture, 198, 104), 128);
  EXPECT_EQ(uAt(*picture, 232, 104), 128);
  EXPECT_EQ(vAt(*picture, 208, 96), 128);
  EXPECT_EQ(vAt(*picture, 222, 118), 128);
}

TEST_F(SensorOverlays, AGraphicOfOddSizeCoversNoPixelMore) {
  ASSERT_EQ(setImage(31, 17, kRedPixel), 0);
  for (const int at : {100, 101}) {
    showGraphic(at, at);
    EXPECT_EQ(covered().width, 31);
    EXPECT_EQ(covered().height, 17);
    EXPECT_EQ(vAt(*capture(), at - 2, at + 6), 128);
    EXPECT_EQ(vAt(*capture(), at + 32, at + 6), 128);
  }
}

TEST_F(SensorOverlays, TheAlphaOfTheGraphicCountsByTransparency) {
  ASSERT_EQ(setImage(32, 16, 0x7FFF), 0);  // white, nearly half clear
  showGraphic(200, 100, 0);
  EXPECT_EQ(lumaAt(*capture(), 210, 105), kWhiteLuma);
  showGraphic(200, 100, 1);
  EXPECT_NEAR(lumaAt(*capture(), 210, 105), kGrey + (kWhiteLuma - kGrey) * 7 / 15, 2);
  showGraphic(200, 100, 3);
  EXPECT_NEAR(lumaAt(*capture(), 210, 105), kGrey + (kWhiteLuma - kGrey) * 7 / 30, 2);
  ASSERT_EQ(setImage(32, 16, 0x0FFF), 0);
  showGraphic(200, 100, 1);
  EXPECT_TRUE(samePixels(*without_, *capture()));
}

TEST_F(SensorOverlays, WithoutAnImageTheGraphicShowsNothing) {
  showGraphic(100, 100);
  EXPECT_TRUE(samePixels(*without_, *capture()));
}

TEST_F(SensorOverlays, ABadImageIsRefusedAndTheOldOneKept) {
  ASSERT_EQ(setImage(30, 10, kRedPixel), 0);
  showGraphic(100, 100);
  const Picture before = capture();
  EXPECT_EQ(setImage(0, 10, kRedPixel), -EINVAL);
  EXPECT_EQ(setImage(10, 0, kRedPixel), -EINVAL);
  EXPECT_EQ(setImage(1639, 10, kRedPixel), -EINVAL);  // two bytes more than the driver takes
  std::vector<char> image = {'O', 'S', 'D', '1', 2, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(sensor_.ioctl(kVicamSetGposdImg, &image), -EINVAL);  // a byte is missing
  image = {'O', 'S', 'D', '2', 1, 0, 1, 0, 0, 0};
  EXPECT_EQ(sensor_.ioctl(kVicamSetGposdImg, &image), -EINVAL);
  image = {'O', 'S', 'D', '1', '\xFF', '\xFF', '\xFF', '\xFF'};
  EXPECT_EQ(sensor_.ioctl(kVicamSetGposdImg, &image), -EINVAL);
  EXPECT_TRUE(samePixels(*before, *capture()));
}

TEST_F(SensorOverlays, TheLargestImageIsTaken) {
  EXPECT_EQ(setImage(1638, 10, kRedPixel), 0);  // 32,768 bytes
  showGraphic(-500, 470);
  EXPECT_EQ(covered().width, kSceneWidth);
}

TEST_F(SensorOverlays, TextsLieAboveTheGraphicAndTheDateOnTop) {
  ASSERT_EQ(setImage(60, 60, kRedPixel), 0);
  showGraphic(100, 100);
  showText(kMotion, "Motion", 100, 100);
  showText(kDate, "Date", 100, 100);
  set(kVicamSetDtosdColor, 1);  // in a white box
  const Picture picture = capture();
  EXPECT_EQ(lumaAt(*picture, 100, 100), kWhiteLuma);
  set(kVicamSetDtosdEnable, 0);
  EXPECT_EQ(lumaAt(*capture(), 100, 100), kBlackLuma);
  set(kVicamSetMdosdEnable, 0);
  EXPECT_NEAR(lumaAt(*capture(), 100, 100), 82, 1);
}

TEST_F(SensorOverlays, TheyStayWhenThePictureGoesOn) {
  showText(kDate, "Gate", 100, 100);
  const Picture before = capture();
  nextPicture();
  EXPECT_TRUE(samePixels(*before, *capture()));
}

TEST_F(SensorOverlays, TheyArePartOfSmallPicturesToo) {
  showText(kDate, "\xE2\x96\x88\xE2\x96\x88\xE2\x96\x88\xE2\x96\x88", 320, 240);
  ASSERT_EQ(setWindow(320, 240), 0);
  set(kVicamSetCompRate, 100);
  const Picture picture = decodeJpeg(readJpeg());
  ASSERT_TRUE(picture);
  EXPECT_GT(lumaAt(*picture, 170, 126), 240);  // JPEG has the full range
  EXPECT_NEAR(lumaAt(*picture, 100, 126), 109, 4);
}

TEST(OverlayText, IsUtf8WhateverCame) {
  EXPECT_EQ(displayable("Caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80"),
            "Caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80");
  EXPECT_EQ(displayable("a\tb\nc\x7F"), "a b c ");
  const std::string odd = "\xEF\xBF\xBD";
  EXPECT_EQ(displayable("\xE9!"), odd + "!");
  EXPECT_EQ(displayable("\xC3"), odd);            // cut off
  EXPECT_EQ(displayable("\xC0\x80"), odd + odd);  // too long for its character
  EXPECT_EQ(displayable("\xE0\x80\x80"), odd + odd + odd);
  EXPECT_EQ(displayable("\xED\xA0\x80"), odd + odd + odd);  // half of a pair
  EXPECT_EQ(displayable("\xF4\x90\x80\x80"), odd + odd + odd + odd);
  EXPECT_EQ(displayable("\xF5\x80\x80\x80"), odd + odd + odd + odd);
  EXPECT_EQ(displayable("\x80"), odd);
}

}  // namespace
