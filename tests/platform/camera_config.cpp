// The getters of the configuration database and the value files.
#include "platform/camera_config.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "platform/camera_io.h"
#include "platform/timer.h"
#include "tests/platform/support.h"

namespace {

class CameraConfig : public testing::Test {
 protected:
  CameraConfig() {
    std::filesystem::create_directories(root_.path("/etc"));
    std::filesystem::create_directories(root_.path("/run/camera/io"));
  }
  void write(const std::string& text) { writeFile(root_.path("/etc/camera.conf"), text); }
  void io(const std::string& name, const std::string& text) {
    writeFile(root_.path("/run/camera/io/" + name), text);
  }

  TempRoot root_;
  LogReader log_{root_};
};

struct Getter {
  const char* section;
  const char* key;
  int (*get)(int*);
};
const Getter kGetters[] = {
    {"Video", "Resolution", get_resolution},
    {"Video", "CompressRate", get_compress_rate},
    {"Video", "CompressionType", get_compression_type},
    {"Video", "IpRatio", get_ip_ratio},
    {"Video", "Source", get_video_source},
    {"Picture", "Brightness", get_brightness},
    {"Picture", "Contrast", get_contrast},
    {"Picture", "Saturation", get_saturation},
    {"Picture", "Hue", get_hue},
    {"Picture", "Flip", get_flip},
    {"Picture", "Mirror", get_mirror},
    {"Picture", "Exposure", get_exposure},
    {"Picture", "MaxExposure", get_max_exposure},
    {"Picture", "Flicker", get_flickness},
    {"Picture", "WhiteBalance", get_white_balance},
    {"Picture", "NoiseReduction", get_noise_reduction},
    {"Picture", "BacklightCompensation", get_backlight_comp},
};

TEST_F(CameraConfig, EachGetterReadsItsOwnKey) {
  std::string text;
  int number = 100;
  for (const Getter& getter : kGetters)
    text += "[" + std::string(getter.section) + "]\n" + getter.key + "=" +
            std::to_string(number++) + "\n";
  write(text);
  number = 100;
  for (const Getter& getter : kGetters) {
    int value = -1;
    EXPECT_EQ(getter.get(&value), 0) << getter.key;
    EXPECT_EQ(value, number++) << getter.key;
  }
}

TEST_F(CameraConfig, AnAbsentKeyMakesItsGetterFailAndLeavesTheValue) {
  for (const Getter& getter : kGetters) {
    int value = 77;
    EXPECT_NE(getter.get(&value), 0) << getter.key;
    EXPECT_EQ(value, 77);
  }
  write("[Picture]\nFlip=upside down\n");
  int value = 77;
  EXPECT_NE(get_flip(&value), 0);
  EXPECT_EQ(value, 77);
  EXPECT_TRUE(log_.waitFor("2 /etc/camera.conf: [Picture] Flip is not a number: upside down"));
}

TEST_F(CameraConfig, TheFrameRateIsATextCutToItsBuffer) {
  char text[16] = "as before";
  EXPECT_NE(get_frame_rate(text, sizeof text), 0);
  EXPECT_STREQ(text, "as before");
  write("[Video]\nFrameRate=29.97 frames per second\n");
  EXPECT_EQ(get_frame_rate(text, sizeof text), 0);
  EXPECT_STREQ(text, "29.97 frames pe");
  EXPECT_NE(get_frame_rate(text, 0), 0);
}

TEST_F(CameraConfig, SelectsOnlyChannelsThatThereAre) {
  EXPECT_EQ(set_channel(0), 0);
  EXPECT_NE(set_channel(1), 0);
  EXPECT_NE(set_channel(-1), 0);
  write("[Video]\nChannels=4\n");
  EXPECT_EQ(set_channel(3), 0);
  EXPECT_NE(set_channel(4), 0);
}

TEST_F(CameraConfig, ValueFilesAreReadUnderTheirUsualNames) {
  io("input", "1\n");
  io("output1", "0");
  io("output2", "1");
  io("privacy", "0\n");
  int value = -1;
  EXPECT_EQ(get_trigger_in_state(&value), 0);
  EXPECT_EQ(value, 1);
  EXPECT_EQ(get_trigger_out_state(&value), 0);
  EXPECT_EQ(value, 0);
  EXPECT_EQ(get_trigger_out_state2(&value), 0);
  EXPECT_EQ(value, 1);
  EXPECT_EQ(get_pt_privacy_state(&value), 0);
  EXPECT_EQ(value, 0);
}

TEST_F(CameraConfig, ValueFilesAreReadUnderTheNamesInTheConfiguration) {
  std::filesystem::create_directories(root_.path("/sys/class/gpio/gpio7"));
  writeFile(root_.path("/sys/class/gpio/gpio7/value"), "1\n");
  write("[IO]\nInput=/sys/class/gpio/gpio7/value\nOutput1=\n");
  io("input", "0");
  io("output1", "1");
  int value = -1;
  EXPECT_EQ(get_trigger_in_state(&value), 0);
  EXPECT_EQ(value, 1);
  EXPECT_EQ(get_trigger_out_state(&value), 0);  // no name is the usual one
  EXPECT_EQ(value, 1);
}

TEST_F(CameraConfig, AMissingOrStrangeValueFileFailsAndLeavesTheState) {
  int value = 55;
  EXPECT_NE(get_trigger_in_state(&value), 0);
  for (const char* text : {"", "\n", "x", "2", "on", " 1"}) {
    io("input", text);
    EXPECT_NE(get_trigger_in_state(&value), 0) << text;
  }
  io("input", "");
  std::filesystem::remove(root_.path("/run/camera/io/input"));
  ASSERT_EQ(mkfifo(root_.path("/run/camera/io/input").c_str(), 0600), 0);
  EXPECT_NE(get_trigger_in_state(&value), 0);  // and does not wait
  write("[IO]\nInput=/run/camera/io\n");
  EXPECT_NE(get_trigger_in_state(&value), 0);
  EXPECT_EQ(value, 55);
}

TEST_F(CameraConfig, AValueFileThatIsReplacedOrRenamedIsNoticed) {
  constexpr std::uint32_t kSoonMs = 3500;
  const auto becomes = [](int wanted) {
    int value = -1;
    for (const std::uint32_t begin = monotonicMs(); monotonicMs() - begin < kSoonMs;) {
      if (get_trigger_in_state(&value) == 0 && value == wanted) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
  };
  io("input", "0\n");
  EXPECT_TRUE(becomes(0));
  io("input", "1\n");
  int value = -1;
  EXPECT_EQ(get_trigger_in_state(&value), 0);
  EXPECT_EQ(value, 1) << "what is written into it counts at once";
  io("new", "0\n");
  std::filesystem::rename(root_.path("/run/camera/io/new"), root_.path("/run/camera/io/input"));
  EXPECT_TRUE(becomes(0)) << "another file has its name";
  io("other", "1\n");
  write("[IO]\nInput=/run/camera/io/other\n");
  EXPECT_TRUE(becomes(1)) << "it has another name";
  std::filesystem::remove(root_.path("/run/camera/io/other"));
  for (const std::uint32_t begin = monotonicMs(); monotonicMs() - begin < kSoonMs;) {
    if (get_trigger_in_state(&value) != 0) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_NE(get_trigger_in_state(&value), 0) << "it is gone";
  io("other", "0\n");
  EXPECT_EQ(get_trigger_in_state(&value), 0) << "it is back";
  EXPECT_EQ(value, 0);
}

TEST_F(CameraConfig, TellsWhetherTheInputIsUsed) {
  std::filesystem::remove_all(root_.path("/run/camera/io"));
  EXPECT_EQ(set_trigger_in_state(1), 0);
  EXPECT_EQ(readFile(root_.path("/run/camera/io/input_used")), "1\n");
  EXPECT_EQ(set_trigger_in_state(0), 0);
  EXPECT_EQ(readFile(root_.path("/run/camera/io/input_used")), "0\n");
  write("[IO]\nInputUsed=/etc/camera.conf/no\n");
  EXPECT_NE(set_trigger_in_state(1), 0);
}

}  // namespace
