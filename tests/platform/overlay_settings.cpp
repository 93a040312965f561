// The getters of overlays and motion windows.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "platform/camera_config.h"
#include "platform/motion.h"
#include "platform/overlay.h"
#include "tests/platform/support.h"

namespace {

class PictureExtras : public testing::Test {
 protected:
  PictureExtras() { std::filesystem::create_directories(root_.path("/etc")); }
  void write(const std::string& text) { writeFile(root_.path("/etc/camera.conf"), text); }

  TempRoot root_;
  LogReader log_{root_};
};
using MotionWindow = PictureExtras;
using BoardsConfiguration = PictureExtras;

// The getters of the overlays are alike but for their section.
struct OverlayGetter {
  const char* section;
  int (*get)(tag_Overlay*);
};
void PrintTo(const OverlayGetter& getter, std::ostream* out) { *out << getter.section; }

class Overlay : public PictureExtras, public testing::WithParamInterface<OverlayGetter> {
 protected:
  void write(const std::string& keys) {
    PictureExtras::write("[" + std::string(GetParam().section) + "]\n" + keys);
  }
  static int get(tag_Overlay* overlay) { return GetParam().get(overlay); }
};
INSTANTIATE_TEST_SUITE_P(Sections, Overlay,
                         testing::Values(OverlayGetter{"OverlayImage", get_overlay_image},
                                         OverlayGetter{"OverlayMotion", get_overlay_motion},
                                         OverlayGetter{"OverlayText", get_overlay_text}),
                         [](const auto& one) { return std::string(one.param.section); });

TEST_F(MotionWindow, IsReadFromItsOwnSection) {
  write(
      "[Motion1]\nEnable=1\nX=10\nY=20\nWidth=30\nHeight=40\nThreshold=50\n"
      "[Motion2]\nEnable=2\nX=-11\nY=0x15\nWidth=31\nHeight=41\nThreshold=99999999999\n");
  tag_MotionDetect window;
  std::memset(&window, 0xff, sizeof window);
  EXPECT_EQ(get_motion_detect(&window, 1), 0);
  const tag_MotionDetect first{1, 10, 20, 30, 40, 50, {}};
  EXPECT_EQ(std::memcmp(&window, &first, sizeof window), 0);
  EXPECT_EQ(get_motion_detect(&window, 2), 0);
  const tag_MotionDetect second{2, -11, 21, 31, 41, 2147483647, {}};
  EXPECT_EQ(std::memcmp(&window, &second, sizeof window), 0);
}

TEST_F(MotionWindow, NeedsItsKeyEnableAlone) {
  const tag_MotionDetect before{7, 7, 7, 7, 7, 7, {7}};
  tag_MotionDetect window = before;
  write("[Motion1]\nX=5\n[Motion2]\nEnable=0\n");
  EXPECT_NE(get_motion_detect(&window, 1), 0);
  EXPECT_EQ(std::memcmp(&window, &before, sizeof window), 0);
  EXPECT_EQ(get_motion_detect(&window, 2), 0);
  const tag_MotionDetect usual{0, 1, 1, 100, 100, 1, {}};
  EXPECT_EQ(std::memcmp(&window, &usual, sizeof window), 0);
}

TEST_F(MotionWindow, HasDefaultsForWhatIsNoNumber) {
  write("[Motion2]\nEnable=1\nX=left\nY=top\nWidth=wide\nHeight=\nThreshold=5%\n");
  tag_MotionDetect window{};
  EXPECT_EQ(get_motion_detect(&window, 2), 0);
  const tag_MotionDetect usual{1, 1, 1, 100, 100, 1, {}};
  EXPECT_EQ(std::memcmp(&window, &usual, sizeof window), 0);
  EXPECT_TRUE(log_.waitFor("2 /etc/camera.conf: [Motion2] Threshold is not a number: 5%"));
  write("[Motion2]\nEnable=yes\n");
  EXPECT_NE(get_motion_detect(&window, 2), 0);
  EXPECT_TRUE(log_.waitFor("2 /etc/camera.conf: [Motion2] Enable is not a number: yes"));
}

TEST_F(MotionWindow, IsOneOfTwo) {
  write("[Motion0]\nEnable=1\n[Motion1]\nEnable=1\n[Motion2]\nEnable=1\n[Motion3]\nEnable=1\n");
  tag_MotionDetect window{};
  for (const int number : {-1, 0, 3, 2147483647}) EXPECT_NE(get_motion_detect(&window, number), 0);
  EXPECT_EQ(window.enable, 0);
}

TEST_P(Overlay, IsReadFromItsOwnSection) {
  write(
      "Enable=1\nX=-10\nY=20\nText=Front door\nColour=3\nTransparency=2\nShowTime=1\n"
      "[Overlay]\nEnable=2\n");
  tag_Overlay overlay;
  std::memset(&overlay, 0xff, sizeof overlay);
  EXPECT_EQ(get(&overlay), 0);
  const tag_Overlay expected{1, -10, 20, 0, 0, "Front door", 3, 2, 1};
  EXPECT_EQ(std::memcmp(&overlay, &expected, sizeof overlay), 0);
}

TEST_P(Overlay, NeedsItsKeyEnableAlone) {
  tag_Overlay overlay;
  std::memset(&overlay, 7, sizeof overlay);
  const tag_Overlay before = overlay;
  write("X=1\nText=Front door\n");
  EXPECT_NE(get(&overlay), 0);
  EXPECT_EQ(std::memcmp(&overlay, &before, sizeof overlay), 0);
  write("Enable=0\n");
  EXPECT_EQ(get(&overlay), 0);
  const tag_Overlay usual{};
  EXPECT_EQ(std::memcmp(&overlay, &usual, sizeof overlay), 0);
}

TEST_P(Overlay, HasDefaultsForWhatIsNoNumber) {
  write("Enable=1\nX=left\nY=top\nColour=red\nTransparency=half\nShowTime=yes\n");
  tag_Overlay overlay{};
  EXPECT_EQ(get(&overlay), 0);
  const tag_Overlay usual{1, 0, 0, 0, 0, "", 0, 0, 0};
  EXPECT_EQ(std::memcmp(&overlay, &usual, sizeof overlay), 0);
  EXPECT_TRUE(log_.waitFor("2 /etc/camera.conf: [" + std::string(GetParam().section) +
                           "] ShowTime is not a number: yes"));
}

TEST_P(Overlay, KeepsTheBlanksOfATextInQuotes) {
  tag_Overlay overlay{};
  const struct {
    const char* written;
    const char* text;
  } kTexts[] = {
      {"\" Garden \"", " Garden "}, {"  Garden  ", "Garden"},          {"\"\"", ""}, {"\"", "\""},
      {"5\" pipe", "5\" pipe"},     {"\"a\" and \"b\"", "a\" and \"b"}};
  for (const auto& one : kTexts) {
    write("Enable=1\nText=" + std::string(one.written) + "\n");
    EXPECT_EQ(get(&overlay), 0);
    EXPECT_STREQ(overlay.text, one.text);
  }
}

TEST_P(Overlay, CutsALongTextAtACharacter) {
  tag_Overlay overlay{};
  const std::string limit(127, 'x');
  write("Enable=1\nText=" + limit + "\n");
  EXPECT_EQ(get(&overlay), 0);
  EXPECT_EQ(overlay.text, limit);
  write("Enable=1\nText=\"" + limit + "\"\n");
  EXPECT_EQ(get(&overlay), 0);
  EXPECT_EQ(overlay.text, limit);
  EXPECT_EQ(log_.lines(), std::vector<std::string>());

  const std::string plain(124, 'x');
  const struct {
    std::string written;
    std::size_t kept;
  } kTexts[] = {
      {limit + "y", 127},
      {"\"" + limit + "y\"", 127},
      {plain + "\u00e4\u00e4", 126},  // of 2 bytes each
      {plain + "x\u00e4x", 127},
      {plain + "xx\u20ac", 126},  // of 3 bytes
      {plain + "x\u20acx", 125},
      {plain + "\u20acx", 127},
      {plain + "\U0001f4f7", 124},  // of 4 bytes
      {plain + "x\U0001f4f7", 125},
      {"xxx" + plain + "\U0001f4f7", 127},
      {std::string(190, '\x80'), 127},  // no UTF-8
  };
  for (const auto& one : kTexts) {
    write("Enable=1\nText=" + one.written + "\n");
    EXPECT_EQ(get(&overlay), 0);
    EXPECT_EQ(std::strlen(overlay.text), one.kept) << one.written;
  }
  EXPECT_TRUE(log_.waitFor("2 /etc/camera.conf: [" + std::string(GetParam().section) +
                           "] Text is cut to its first 124 bytes"));
}

// A camera that starts with the file as it comes says nothing about it.
TEST_F(BoardsConfiguration, HasWhatEveryGetterAsksFor) {
  write(readFile(VS_SOURCE_DIR "/board/rootfs/etc/camera.conf"));
  int value = -1;
  for (const auto get : {get_resolution, get_compress_rate, get_compression_type, get_ip_ratio,
                         get_video_source, get_brightness, get_contrast, get_saturation, get_hue,
                         get_flip, get_mirror, get_exposure, get_max_exposure, get_flickness,
                         get_white_balance, get_noise_reduction, get_backlight_comp})
    EXPECT_EQ(get(&value), 0);
  char text[16];
  EXPECT_EQ(get_frame_rate(text, sizeof text), 0);
  EXPECT_EQ(get_video_source(&value), 0);
  EXPECT_EQ(set_channel(value), 0);
  tag_MotionDetect window{};
  for (const int number : {1, 2}) {
    EXPECT_EQ(get_motion_detect(&window, number), 0);
    EXPECT_GT(window.enable, 0);
    EXPECT_TRUE(window.x >= 0 && window.x + window.width < 640);
    EXPECT_TRUE(window.y >= 0 && window.y + window.height < 480);
  }
  tag_Overlay overlay{};
  for (const auto get : {get_overlay_image, get_overlay_motion, get_overlay_text})
    EXPECT_EQ(get(&overlay), 0);
  EXPECT_STREQ(overlay.text, "Camera ");
  EXPECT_EQ(log_.lines(), std::vector<std::string>());
}

}  // namespace
