// AVI files of one key frame, byte by byte.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <string>

#include "platform/bytes.h"
#include "platform/media.h"
#include "tests/platform/stream_header.h"

namespace {

constexpr long kOverhead = 276;  // bytes of a file besides its picture
const std::string kPicture("\0\0\1\xb6\x10 a picture", 15);

// Converts, in memory of just the sizes told, so that a sanitizer sees every byte too many.
std::string converted(const std::string& data, long capacity, long* result = nullptr) {
  const std::unique_ptr<char[]> in(new char[data.size()]);
  std::memcpy(in.get(), data.data(), data.size());
  const auto room = static_cast<std::size_t>(capacity > 0 ? capacity : 0);
  const std::unique_ptr<char[]> out(new char[room]);
  const long length = i2avi(in.get(), static_cast<long>(data.size()), out.get(), capacity);
  if (result != nullptr) *result = length;
  return length > 0 ? std::string(out.get(), static_cast<std::size_t>(length)) : "";
}
std::string converted(const LayerFields& fields) {
  return converted(streamHeader(fields) + kPicture, 10000);
}
std::uint32_t word(const std::string& avi, std::size_t at) { return loadLe32(avi.data() + at); }
std::string four(const std::string& avi, std::size_t at) { return avi.substr(at, 4); }

// Expects a file with pictures of that size.
void expectSize(const std::string& avi, std::uint32_t width, std::uint32_t height) {
  ASSERT_GT(avi.size(), std::size_t{kOverhead});
  EXPECT_EQ(word(avi, 64), width);
  EXPECT_EQ(word(avi, 68), height);
  EXPECT_EQ(word(avi, 160), width | height << 16);
  EXPECT_EQ(word(avi, 176), width);
  EXPECT_EQ(word(avi, 180), height);
}

TEST(AviOfAKeyFrame, HoldsHeadersPictureAndIndex) {
  const std::string header = streamHeader({});
  const std::string data = header + kPicture + "!";  // even
  const std::string avi = converted(data, 10000);
  const auto size = static_cast<std::uint32_t>(data.size());
  ASSERT_EQ(avi.size(), kOverhead + data.size());

  EXPECT_EQ(four(avi, 0), "RIFF");
  EXPECT_EQ(word(avi, 4), avi.size() - 8);
  EXPECT_EQ(four(avi, 8), "AVI ");
  EXPECT_EQ(four(avi, 12), "LIST");
  EXPECT_EQ(word(avi, 16), 212U);
  EXPECT_EQ(four(avi, 20), "hdrl");
  EXPECT_EQ(four(avi, 24), "avih");
  EXPECT_EQ(word(avi, 28), 56U);
  EXPECT_EQ(word(avi, 32), 1000000U);  // us per frame
  EXPECT_EQ(word(avi, 44), 0x10U);     // there is an index
  EXPECT_EQ(word(avi, 48), 1U);        // frames
  EXPECT_EQ(word(avi, 56), 1U);        // streams
  EXPECT_EQ(word(avi, 60), size);
  EXPECT_EQ(four(avi, 88), "LIST");
  EXPECT_EQ(word(avi, 92), 136U);
  EXPECT_EQ(four(avi, 96), "strl");
  EXPECT_EQ(four(avi, 100), "strh");
  EXPECT_EQ(word(avi, 104), 56U);
  EXPECT_EQ(four(avi, 108), "vids");
  EXPECT_EQ(four(avi, 112), "FMP4");
  EXPECT_EQ(word(avi, 128), 1U);  // a second
  EXPECT_EQ(word(avi, 132), 1U);  // a frame
  EXPECT_EQ(word(avi, 140), 1U);  // frames
  EXPECT_EQ(four(avi, 164), "strf");
  EXPECT_EQ(word(avi, 168), 60U);
  EXPECT_EQ(word(avi, 172), 60U);
  EXPECT_EQ(word(avi, 184), 1U | 24U << 16);
  EXPECT_EQ(four(avi, 188), "FMP4");
  EXPECT_EQ(avi.substr(212, 20), header);
  EXPECT_EQ(four(avi, 232), "LIST");
  EXPECT_EQ(word(avi, 236), 12 + size);
  EXPECT_EQ(four(avi, 240), "movi");
  EXPECT_EQ(four(avi, 244), "00dc");
  EXPECT_EQ(word(avi, 248), size);
  EXPECT_EQ(avi.substr(252, size), data);
  const std::size_t index = 252 + size;
  EXPECT_EQ(four(avi, index), "idx1");
  EXPECT_EQ(word(avi, index + 4), 16U);
  EXPECT_EQ(four(avi, index + 8), "00dc");
  EXPECT_EQ(word(avi, index + 12), 0x10U);  // a key frame
  EXPECT_EQ(word(avi, index + 16), 4U);     // behind "movi"
  EXPECT_EQ(word(avi, index + 20), size);
  expectSize(avi, 640, 480);
}

TEST(AviOfAKeyFrame, IsFilledUpToAnEvenLength) {
  const std::string data = streamHeader({}) + kPicture;
  ASSERT_EQ(data.size() % 2, 1U);
  const std::string avi = converted(data, 10000);
  ASSERT_EQ(avi.size(), kOverhead + data.size() + 1);
  EXPECT_EQ(word(avi, 4), avi.size() - 8);
  EXPECT_EQ(word(avi, 236), 13 + data.size());
  EXPECT_EQ(word(avi, 248), data.size());
  EXPECT_EQ(avi[252 + data.size()], '\0');
  EXPECT_EQ(four(avi, 253 + data.size()), "idx1");
}

TEST(AviOfAKeyFrame, NeedsRoomForTheWholeFile) {
  for (const std::string& more : {std::string(), std::string("!")}) {
    const std::string data = streamHeader({}) + kPicture + more;
    const long need = kOverhead + static_cast<long>(data.size() + data.size() % 2);
    long result = 0;
    EXPECT_EQ(converted(data, need, &result).size(), static_cast<std::size_t>(need));
    for (const long capacity :
         {need - 1, 276L, 20L, 1L, 0L, -1L, std::numeric_limits<long>::min()}) {
      converted(data, capacity, &result);
      EXPECT_EQ(result, -1) << capacity;
    }
  }
}

TEST(AviOfAKeyFrame, NeedsMoreThanTheStreamHeader) {
  const std::string header = streamHeader({});
  char out[1000];
  for (const long length : {20L, 19L, 8L, 1L, 0L, -1L, -21L, std::numeric_limits<long>::min()})
    EXPECT_EQ(i2avi(header.data(), length, out, sizeof out), -1) << length;
  EXPECT_GT(i2avi((header + "x").data(), 21, out, sizeof out), 0);
}

// The length alone refuses it: neither is there such a frame, nor is it looked at.
TEST(AviOfAKeyFrame, IsNoLongerThanItsSizesCanTell) {
  const std::string header = streamHeader({});
  char out[1];
  constexpr long kMost = std::numeric_limits<std::int32_t>::max();
  constexpr long kLong = std::numeric_limits<long>::max();
  for (const long length : {kMost - kOverhead, kMost - 1, kMost, kLong - 1, kLong})
    EXPECT_EQ(i2avi(header.data(), length, out, kLong), -1) << length;
}

TEST(AviOfAKeyFrame, TakesTheSizeFromHeadersOfEveryForm) {
  LayerFields fields;
  fields.width = 352;
  fields.height = 288;
  for (const bool identifier : {true, false}) {
    for (const bool control : {true, false}) {
      for (const bool fixedRate : {true, false}) {
        fields.identifier = identifier;
        fields.control = control;
        fields.fixedRate = fixedRate;
        expectSize(converted(fields), 352, 288);
      }
    }
  }
}

TEST(AviOfAKeyFrame, TakesTheSizeBehindAFixedRateOfAnyClock) {
  const struct {
    int resolution;
    int bits;
  } kClocks[] = {{1, 1},      {2, 1},      {3, 2},      {4, 2},     {5, 3},     {25, 5},
                 {30, 5},     {32, 5},     {33, 6},     {1000, 10}, {1024, 10}, {1025, 11},
                 {30000, 15}, {32768, 15}, {32769, 16}, {65535, 16}};
  LayerFields fields;
  fields.fixedRate = true;
  for (const auto& clock : kClocks) {
    fields.resolution = clock.resolution;
    fields.fixedBits = clock.bits;
    SCOPED_TRACE(clock.resolution);
    expectSize(converted(fields), 640, 480);
  }
}

TEST(AviOfAKeyFrame, TakesTheSizeBehindAnAspectRatio) {
  LayerFields fields;
  fields.identifier = false;
  fields.aspect = 15;
  expectSize(converted(fields), 640, 480);
}

TEST(AviOfAKeyFrame, TakesTheSizeOfAnyLayerAndWithoutAVideoObject) {
  LayerFields fields;
  fields.layer = 15;
  expectSize(converted(fields), 640, 480);
  fields.before = "";
  expectSize(converted(fields), 640, 480);
  fields.before = std::string("\0\0\1\xb0\1", 5);  // the profile
  expectSize(converted(fields), 640, 480);
}

TEST(AviOfAKeyFrame, HasSidesOfOneTo2048Pixels) {
  LayerFields fields;
  for (const int side : {1, 2, 160, 2047, 2048}) {
    fields.width = side;
    fields.height = 2049 - side;
    if (fields.height > 0)
      expectSize(converted(fields), static_cast<std::uint32_t>(side),
                 2049U - static_cast<unsigned>(side));
  }
  for (const int side : {0, 2049, 4096, 8191}) {
    fields.width = side;
    fields.height = 480;
    EXPECT_EQ(converted(fields), "") << side;
    fields.width = 640;
    fields.height = side;
    EXPECT_EQ(converted(fields), "") << side;
  }
}

TEST(AviOfAKeyFrame, IsNotMadeOfAHeaderThatMakesNoSense) {
  LayerFields fields;
  for (int marker = 0; marker < 5; ++marker) {
    fields.zeroMarker = marker;
    EXPECT_EQ(converted(fields), "") << marker;
  }
  for (const int shape : {1, 2, 3}) {
    fields = {};
    fields.shape = shape;
    EXPECT_EQ(converted(fields), "") << shape;
  }
  fields = {};
  fields.resolution = 0;
  EXPECT_EQ(converted(fields), "");
}

TEST(AviOfAKeyFrame, IsNotMadeOfAHeaderThatReachesBeyondItsBytes) {
  LayerFields fields;
  fields.control = true;
  fields.bufferSizes = true;
  EXPECT_EQ(converted(fields), "");
  fields = {};
  // The size ends with the ninth byte behind the layer's start code.
  for (std::size_t before = 4; before < 40; ++before) {
    fields.before = std::string(before, '\xff');
    EXPECT_EQ(converted(fields).empty(), before > 7) << before;
  }
}

TEST(AviOfAKeyFrame, IsNotMadeOfAFrameWithoutAHeader) {
  const std::string zeros(20, '\0');
  EXPECT_EQ(converted(zeros + kPicture, 10000), "");  // nobody has fetched it yet
  EXPECT_EQ(converted(kPicture + streamHeader({}) + kPicture, 10000), "");
  EXPECT_EQ(converted(std::string("\0\0\1\xb6", 4) + streamHeader({}) + kPicture, 10000), "");
  EXPECT_EQ(converted(zeros + streamHeader({}) + kPicture, 10000), "");
  LayerFields fields;
  fields.before = std::string("\0\0\1\xb6", 4);  // what looks like a layer is a picture's content
  EXPECT_EQ(converted(fields), "");
  EXPECT_EQ(converted(std::string("\xff\xd8\xff\xe0", 4) + zeros + kPicture, 10000), "");
  // That of JPEG pictures tells the size alone.
  EXPECT_EQ(
      converted(std::string("\0\0\0\0\0\0\0\0\0\0\0\0\0\0\1\x40\3\xc0\0\0\0\0", 20) + kPicture,
                10000),
      "");
}

TEST(AviOfAKeyFrame, IsMadeOfNoGarbage) {
  std::mt19937 random(7);
  std::uniform_int_distribution<int> byte(0, 255);
  std::uniform_int_distribution<std::size_t> length(0, 60);
  const std::string good = streamHeader({}) + kPicture;
  int made = 0;
  for (int round = 0; round < 20000; ++round) {
    std::string data = good;
    if (round % 4 == 0) {
      data.resize(length(random));
      for (char& one : data) one = static_cast<char>(byte(random));
      if (round % 8 == 0 && data.size() > 8) data.replace(0, 8, good, 0, 8);
    } else {
      for (int change = round % 4; change > 0; --change)
        data[static_cast<std::size_t>(byte(random)) % data.size()] ^=
            static_cast<char>(1 << byte(random) % 8);
      data.resize(data.size() - length(random) % data.size());
    }
    const long capacity = round % 3 == 0 ? static_cast<long>(length(random)) * 6 : 1000;
    long result = 0;
    const std::string avi = converted(data, capacity, &result);
    ASSERT_TRUE(result == -1 || result == static_cast<long>(avi.size()));
    if (result < 1) continue;
    ++made;
    ASSERT_LE(result, capacity);
    ASSERT_EQ(avi.substr(252, data.size()), data);
    ASSERT_TRUE(word(avi, 64) >= 1 && word(avi, 64) <= 2048);
    ASSERT_TRUE(word(avi, 68) >= 1 && word(avi, 68) <= 2048);
  }
  EXPECT_GT(made, 1000);
}

}  // namespace
