// Sound from WAV files: samples, rates, channels, and files that are none.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "platform/linux/audio_input.h"
#include "platform/linux/mulaw.h"
#include "tests/platform/support.h"

namespace {

constexpr double kTurn = 2 * 3.14159265358979323846;

// What a mu-law sample stands for, by the table's definition.
int linear(unsigned char sample) {
  const int bits = ~sample & 0xff;
  const int magnitude = ((((bits & 15) << 3) + 132) << (bits >> 4 & 7)) - 132;
  return (bits & 128) != 0 ? -magnitude : magnitude;
}

TEST(Mulaw, EverySampleBecomesOneWithinHalfAStepOfIt) {
  constexpr int kLargest = 32635;
  for (int sample = -32768; sample <= 32767; ++sample) {
    const unsigned char code = toMulaw(static_cast<std::int16_t>(sample));
    const int halfStep = 4 << ((~code & 0xff) >> 4 & 7);
    const int clipped = std::max(-kLargest, std::min(kLargest, sample));
    ASSERT_LE(std::abs(linear(code) - clipped), halfStep) << sample;
    ASSERT_TRUE(sample == 0 || (sample < 0) == (code < 0x80)) << sample;
  }
  EXPECT_EQ(toMulaw(0), 0xff);
  EXPECT_EQ(toMulaw(32767), 0x80);
  EXPECT_EQ(toMulaw(-32768), 0x00);
}

void put(std::string& text, std::uint32_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) text += static_cast<char>(value >> 8 * i);
}

std::string chunk(const char* name, const std::string& content) {
  std::string text = name;
  put(text, static_cast<std::uint32_t>(content.size()), 4);
  return text + content + (content.size() % 2 != 0 ? std::string(1, '\0') : "");
}

struct Shape {
  std::uint32_t rate = 8000;
  std::uint32_t channels = 1;
  std::uint32_t bytes = 2;
  bool extensible = false;
};

// Makes a WAV file of samples given as 16-bit numbers.
std::string wav(const Shape& shape, const std::vector<int>& samples) {
  std::string format;
  put(format, shape.extensible ? 0xfffe : 1, 2);
  put(format, shape.channels, 2);
  put(format, shape.rate, 4);
  put(format, shape.rate * shape.channels * shape.bytes, 4);
  put(format, shape.channels * shape.bytes, 2);
  put(format, 8 * shape.bytes, 2);
  if (shape.extensible) {
    put(format, 22, 2);
    put(format, 8 * shape.bytes, 2);
    put(format, 3, 4);
    put(format, 1, 2);  // the true format
    format += std::string(14, '\1');
  }
  std::string data;
  for (const int sample : samples) {
    if (shape.bytes == 1) {
      put(data, static_cast<std::uint32_t>(sample / 256 + 128), 1);
    } else {
      put(data, 0, static_cast<int>(shape.bytes) - 2);
      put(data, static_cast<std::uint32_t>(sample), 2);
    }
  }
  return chunk("RIFF", "WAVE" + chunk("LIST", "odd") + chunk("fmt ", format) + chunk("data", data));
}

class Wav : public testing::Test {
 protected:
  std::unique_ptr<AudioInput> open(const std::string& content) {
    writeFile(root_.path("/a.wav"), content);
    error_.clear();
    return openWav(root_.path("/a.wav").c_str(), &error_);
  }
  std::vector<int> read(const std::string& content, long count) {
    const auto input = open(content);
    std::vector<std::int16_t> samples(static_cast<std::size_t>(count));
    if (input == nullptr || input->read(samples.data(), count, &error_) != count) return {};
    return {samples.begin(), samples.end()};
  }

  TempRoot root_;
  std::string error_;
};

TEST_F(Wav, AtItsOwnRateSamplesStayWhatTheyAreAndBeginAnewAtTheEnd) {
  EXPECT_EQ(read(wav({}, {1, -2, 32767, -32768}), 10),
            (std::vector<int>{1, -2, 32767, -32768, 1, -2, 32767, -32768, 1, -2}));
}

TEST_F(Wav, SamplesOfAllSizesAreTaken) {
  const std::vector<int> samples{0, 256, -256, 32512, -32768};
  for (const std::uint32_t bytes : {1u, 2u, 3u, 4u})
    for (const bool extensible : {false, true})
      EXPECT_EQ(read(wav({8000, 1, bytes, extensible}, samples), 5), samples) << bytes;
}

TEST_F(Wav, ChannelsAreMixedToTheirMean) {
  EXPECT_EQ(read(wav({8000, 2, 2, false}, {100, 300, -32768, -32768, 32767, -32767}), 3),
            (std::vector<int>{200, -32768, 0}));
  EXPECT_EQ(read(wav({8000, 6, 2, false}, {6, 12, 18, 24, 30, 36}), 1), std::vector<int>{21});
}

TEST_F(Wav, OtherRatesBecomeTheMeanOverEachSample) {
  EXPECT_EQ(read(wav({16000, 1, 2, false}, {10, 20, 30, 50}), 2), (std::vector<int>{15, 40}));
  EXPECT_EQ(read(wav({4000, 1, 2, false}, {10, 20}), 4), (std::vector<int>{10, 10, 20, 20}));
  EXPECT_EQ(read(wav({12000, 1, 2, false}, {30, 60, 90}), 2), (std::vector<int>{40, 80}));
  for (const std::uint32_t rate : {1u, 7999u, 11025u, 44100u, 48000u, 768000u})
    EXPECT_EQ(read(wav({rate, 1, 2, false}, std::vector<int>(500, -1234)), 300),
              std::vector<int>(300, -1234))
        << rate;
}

TEST_F(Wav, AToneKeepsItsPitchAndStrength) {
  for (const std::uint32_t rate : {11025u, 22050u, 44100u, 48000u}) {
    std::vector<int> tone;
    for (std::uint32_t i = 0; i < rate; ++i)
      tone.push_back(static_cast<int>(10000 * std::sin(kTurn * 500 * i / rate)));
    const std::vector<int> heard = read(wav({rate, 1, 2, false}, tone), kAudioRate);
    ASSERT_EQ(heard.size(), static_cast<std::size_t>(kAudioRate));
    int crossings = 0;
    double power = 0;
    for (std::size_t i = 1; i < heard.size(); ++i) {
      crossings += heard[i - 1] < 0 && heard[i] >= 0 ? 1 : 0;
      power += static_cast<double>(heard[i]) * heard[i];
    }
    EXPECT_NEAR(crossings, 500, 1) << rate;
    EXPECT_NEAR(std::sqrt(power / kAudioRate), 10000 / std::sqrt(2), 200) << rate;
  }
}

TEST_F(Wav, AFileThatWasCutOffIsPlayedAsFarAsItGoes) {
  std::string file = wav({}, {1, 2, 3, 4});
  EXPECT_EQ(read(file.substr(0, file.size() - 3), 4), (std::vector<int>{1, 2, 1, 2}));
  for (const std::uint32_t size : {0u, 0xffffffffu}) {  // as recorders leave it
    std::string open = file.substr(0, file.size() - 12);
    put(open, size, 4);
    EXPECT_EQ(read(open + file.substr(file.size() - 8), 6), (std::vector<int>{1, 2, 3, 4, 1, 2}));
  }
}

TEST_F(Wav, AFileWithoutSamplesFailsInsteadOfTurningInCircles) {
  const auto input = open(wav({}, {}));
  std::int16_t sample = 0;
  EXPECT_TRUE(input == nullptr || input->read(&sample, 1, &error_) == -1);
  EXPECT_EQ(error_, "no samples");
}

TEST_F(Wav, AFileThatIsEmptiedMeanwhileFails) {
  const auto input = open(wav({}, std::vector<int>(10000, 1)));
  std::vector<std::int16_t> samples(9000);
  EXPECT_EQ(input->read(samples.data(), 9000, &error_), 9000);
  writeFile(root_.path("/a.wav"), "");
  EXPECT_EQ(input->read(samples.data(), 9000, &error_), -1);
}

TEST_F(Wav, WhatIsNoLinearSoundIsRefusedWithAReason) {
  EXPECT_EQ(openWav(root_.path("/none").c_str(), &error_), nullptr);
  EXPECT_EQ(error_, "No such file or directory");
  for (const std::string& content : {std::string(), std::string("RIFF"), std::string(5000, 'x')}) {
    EXPECT_EQ(open(content), nullptr);
    EXPECT_EQ(error_, "not a WAV file");
  }
  for (const Shape& shape :
       {Shape{8000, 0, 2, false}, Shape{0, 1, 2, false}, Shape{8000, 1, 5, false},
        Shape{8000, 65, 2, false}, Shape{768001, 1, 2, false}}) {
    EXPECT_EQ(open(wav(shape, {1})), nullptr);
    EXPECT_EQ(error_, "no linear samples");
  }
  std::string law = wav({}, {1});
  law[law.find("fmt ") + 8] = 7;  // mu-law already
  EXPECT_EQ(open(law), nullptr);
  EXPECT_EQ(open("RIFF....WAVE" + chunk("data", "12")), nullptr);  // of no format
  EXPECT_EQ(error_, "no samples");
}

TEST_F(Wav, AnyDamagedFileIsReadWithoutHarm) {
  std::mt19937 random(7);
  const std::string good = wav({44100, 2, 3, true}, std::vector<int>(64, 1000));
  for (int round = 0; round < 500; ++round) {
    std::string bad = good.substr(0, random() % 4 == 0 ? random() % good.size() : good.size());
    for (unsigned i = 0; i < 6 && !bad.empty(); ++i)
      bad[random() % bad.size()] = static_cast<char>(random());
    read(bad, 50);
  }
}

}  // namespace
