// The audio capture thread: from a source into the stream buffer.
#include "platform/audio.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/bytes.h"
#include "platform/linux/stream_buffer_owner.h"
#include "platform/stream_buffer.h"
#include "tests/platform/support.h"

namespace {

using Clock = std::chrono::steady_clock;

// A second of a constant, at 8 kHz: the sample that stands for 0x0102 in mu-law is 0xe7.
std::string wavFile() {
  std::string text(
      "RIFF\xa4\x3e\0\0WAVEfmt \x10\0\0\0\1\0\1\0\x40\x1f\0\0\x80\x3e\0\0\2\0\x10\0"
      "data\x80\x3e\0\0",
      44);
  for (int i = 0; i < 8000; ++i) text += "\x02\x01";
  return text;
}

class Audio : public testing::Test {
 protected:
  Audio() {
    std::filesystem::create_directories(root_.path("/dev/shm"));
    static const bool owned = sb::ownSegments(sb::BufferSizes());
    EXPECT_TRUE(owned);
  }

  // Waits for the next frame. Returns false if none comes.
  bool next(std::string* payload = nullptr, std::uint32_t* number = nullptr) {
    TAutoFrame frame(sbAudio(), 0, &place_, &epoch_, 10000);
    if (!frame) return false;
    const std::uint32_t length = loadLe32(frame->length);
    if (payload != nullptr) payload->assign(frame->payload, length);
    if (number != nullptr) *number = loadLe32(frame->number);
    return true;
  }
  static TAudioArgs args(std::string option) {
    static std::string text;  // outlives what it returns
    text = std::move(option);
    static char program[] = "video_svr";
    char* argv[] = {program, text.data()};
    return TAudioArgs(2, argv);
  }

  static TempRoot& root() {
    static TempRoot theRoot;
    return theRoot;
  }

  static LogReader& log() {
    static LogReader theLog(root());
    return theLog;
  }

  // Of the process, as what is attached to the buffer stays so.
  TempRoot& root_ = root();
  LogReader& log_ = log();
  std::int32_t place_ = 0;
  std::int32_t epoch_ = 0;
};

TEST_F(Audio, TheLastSourceAmongTheOptionsCounts) {
  EXPECT_STREQ(TAudioArgs(0, nullptr).source, "default");
  char options[][16] = {"video_svr", "-Ahw:1", "-A", "-a", "-mb", "Ax", "-A/b.wav"};
  char* argv[] = {options[0], options[1], options[2], options[3],
                  options[4], options[5], options[6]};
  EXPECT_STREQ(TAudioArgs(3, argv).source, "hw:1");
  EXPECT_STREQ(TAudioArgs(7, argv).source, "/b.wav");
  EXPECT_STREQ(TAudioArgs(1, argv + 1).source, "default");  // the program's name is no option
}

TEST_F(Audio, PrintsItsOptions) {
  testing::internal::CaptureStdout();
  TAudioArgs(0, nullptr).usage();
  std::fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Audio options:\n\t-Asource\tUse ALSA device or WAV file 'source' (\"default\")\n\n");
}

TEST_F(Audio, AWavFileBecomesFramesOfTwentyMilliseconds) {
  writeFile(root_.path("/sound.wav"), wavFile());
  TAudioArgs options = args("-A/sound.wav");
  TAudioSource source(options);
  source.run();
  std::string payload;
  std::uint32_t first = 0;
  ASSERT_TRUE(next(&payload, &first));
  EXPECT_EQ(payload, std::string(160, '\xe7'));
  const auto start = Clock::now();
  constexpr std::uint32_t kFrames = 75;  // beyond the file's end
  for (std::uint32_t i = 1; i <= kFrames; ++i) {
    std::uint32_t number = 0;
    ASSERT_TRUE(next(&payload, &number));
    EXPECT_EQ(payload, std::string(160, '\xe7'));
    EXPECT_EQ(number, first + i);
  }
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(20 * kFrames - 100));
  const auto stop = Clock::now();
  EXPECT_TRUE(source.stop(true));
  EXPECT_LT(Clock::now() - stop, std::chrono::seconds(1));
  EXPECT_EQ(log_.lines(), std::vector<std::string>{});
}

TEST_F(Audio, AMissingSourceIsToldOnceAndTriedAgain) {
  std::filesystem::remove(root_.path("/late.wav"));
  TAudioArgs options = args("-A/late.wav");
  TAudioSource source(options);
  source.run();
  EXPECT_TRUE(log_.waitFor("3 no sound from /late.wav: No such file or directory"));
  writeFile(root_.path("/new"), wavFile());
  std::filesystem::rename(root_.path("/new"), root_.path("/late.wav"));
  EXPECT_TRUE(next());
  EXPECT_TRUE(source.stop(true));
  EXPECT_EQ(log_.lines(), std::vector<std::string>{});
}

TEST_F(Audio, EndsAtOnceWhileItWaitsToTryAgain) {
  TAudioArgs options = args("-Ano such device");
  TAudioSource source(options);
  source.run();
  std::vector<std::string> lines;
  EXPECT_TRUE(eventually([&] {
    lines = log_.lines();
    return !lines.empty();
  }));
  EXPECT_EQ(lines.at(0).rfind("3 no sound from no such device: ", 0), 0u) << lines.at(0);
  const auto stop = Clock::now();
  EXPECT_TRUE(source.stop(true));
  EXPECT_LT(Clock::now() - stop, std::chrono::seconds(1));
}

TEST_F(Audio, ADeviceIsCaptured) {
  TAudioArgs options = args("-Anull");  // the library's own, which hears nothing
  TAudioSource source(options);
  source.run();
  std::string payload;
  if (!next(&payload)) {
    source.stop(true);
    GTEST_SKIP() << "no device \"null\" here";
  }
  // Frames of the tests before it may still be there.
  EXPECT_TRUE(eventually([&] { return next(&payload) && payload == std::string(160, '\xff'); }));
  EXPECT_TRUE(source.stop(true));
}

}  // namespace
