// The encoder of the virtual board as its driver sees it: requests, pace and chunks.
#include <cerrno>
#include <climits>

#include "hardware_fixture.h"

namespace {

using HardwareEncoder = EncoderTest;

// Something to see that takes much room.
void drawNoise(AVFrame* picture) {
  drawShades(picture);
  unsigned random = 1;
  for (int y = 0; y < kSceneHeight; ++y) {
    for (int x = 0; x < kSceneWidth; ++x) {
      random = random * 1664525 + 1013904223;
      picture->data[0][y * picture->linesize[0] + x] = static_cast<std::uint8_t>(random >> 24);
    }
  }
}

std::pair<unsigned, unsigned> sizeIn(const std::string& header) {
  std::size_t at = 108;
  const unsigned width = takeBits(header, &at, 13);
  at = 122;
  return {width, takeBits(header, &at, 13)};
}

bool isKey(const std::string& picture) {
  std::size_t at = 32;
  return takeBits(picture, &at, 2) == 0;
}

TEST_F(HardwareEncoder, TakesTheValuesThatItKnowsAndRefusesTheOthers) {
  const auto expect = [&](unsigned request, int first, int last) {
    EXPECT_EQ(order(request, first), 0) << request;
    EXPECT_EQ(order(request, last), 0) << request;
    for (const int bad : {first - 1, last + 1, INT_MIN, INT_MAX})
      EXPECT_EQ(order(request, bad), -EINVAL) << request << " " << bad;
  };
  expect(kMpg430SetMode, 0, 10);
  EXPECT_EQ(order(kMpg430SetMode, 9), -EINVAL) << "the empty size";
  expect(kMpg430Mpeg4Qa, 1, 31);
  expect(kMpg430SetIpvalue, 0, 255);
  expect(kMpg430VideoSource, 0, 3);
  expect(kMpg430StreamStart, 0, 1);
  for (const int any : {0, 9, 10, 1000, -1}) EXPECT_EQ(order(kMpg430SetFrate, any), 0);
  EXPECT_EQ(order(0x01234567, 0), -EINVAL);
}

TEST_F(HardwareEncoder, RefusesArgumentsOfAnotherLength) {
  for (const std::size_t size : {0, 2, 5, 300}) {
    std::vector<char> argument(size);
    EXPECT_EQ(encoder_.ioctl(kMpg430SetMode, &argument), -EINVAL);
    EXPECT_EQ(encoder_.ioctl(kMpg430VideoSetcolor, &argument), -EINVAL);
  }
}

TEST_F(HardwareEncoder, HeaderAndPicturesHaveTheSizeOfIndexAndStandard) {
  using Size = std::pair<unsigned, unsigned>;
  const std::vector<std::pair<int, std::array<Size, 2>>> sizes = {
      {0, {{{352, 288}, {352, 240}}}}, {1, {{{720, 288}, {720, 240}}}},
      {2, {{{720, 576}, {720, 480}}}}, {3, {{{352, 240}, {352, 240}}}},
      {4, {{{720, 240}, {720, 240}}}}, {5, {{{720, 480}, {720, 480}}}},
      {6, {{{176, 144}, {176, 144}}}}, {7, {{{640, 480}, {640, 480}}}},
      {8, {{{320, 240}, {320, 240}}}}, {10, {{{160, 120}, {160, 120}}}}};
  for (const TvStandard standard : {TvStandard::kPal, TvStandard::kNtsc, TvStandard::kPal}) {
    world_.setStandard(standard);
    encoder_.standardChanged();
    for (const auto& [index, both] : sizes) {
      ASSERT_EQ(order(kMpg430SetMode, index), 0);
      const Size expected = both[standard == TvStandard::kPal ? 0 : 1];
      EXPECT_EQ(sizeIn(header()), expected) << index;
      const Picture seen = freshPicture();
      ASSERT_TRUE(seen) << index << complaints_.text();
      EXPECT_EQ(seen->width, static_cast<int>(expected.first));
      EXPECT_EQ(seen->height, static_cast<int>(expected.second));
    }
  }
  EXPECT_EQ(complaints_.text(), "");
}

TEST_F(HardwareEncoder, KeyPicturesComeInTheRatioThatWasSet) {
  order(kMpg430SetMode, 10);
  for (const int predicted : {0, 1, 5, 255}) {
    order(kMpg430SetIpvalue, predicted);
    order(kMpg430StreamStart, 1);
    for (int i = 0; i < 2 * predicted + 3; ++i)
      ASSERT_EQ(isKey(picture()), i % (predicted + 1) == 0) << predicted << " " << i;
  }
}

TEST_F(HardwareEncoder, AStartAndWhatChangesThePictureAsAWholeBringAKeyPicture) {
  order(kMpg430SetMode, 10);
  order(kMpg430SetIpvalue, 255);
  order(kMpg430StreamStart, 1);
  EXPECT_TRUE(isKey(picture()));
  const std::vector<std::pair<const char*, std::function<void()>>> changes = {
      {"start", [&] { order(kMpg430StreamStart, 1); }},
      {"size", [&] { order(kMpg430SetMode, 8); }},
      {"source", [&] { order(kMpg430VideoSource, 2); }},
      {"standard", [&] { encoder_.standardChanged(); }}};
  for (const auto& [name, change] : changes) {
    EXPECT_FALSE(isKey(picture())) << name;
    change();
    EXPECT_TRUE(isKey(picture())) << name;
  }
  order(kMpg430Mpeg4Qa, 3);
  order(kMpg430SetFrate, 3);
  setColour({0, 0, 0, 0});
  EXPECT_FALSE(isKey(picture())) << "these need none";
}

TEST_F(HardwareEncoder, PicturesComeAtTheRateThatWasSet) {
  order(kMpg430SetMode, 10);
  order(kMpg430StreamStart, 1);
  picture();
  const std::vector<std::pair<int, int>> periods = {
      {0, 33},  {1, 66},  {2, 100}, {3, 142},   {4, 166},   {5, 200},  {6, 333},
      {7, 333}, {8, 500}, {9, 500}, {10, 1000}, {42, 1000}, {-1, 1000}};
  for (const auto& [setting, period] : periods) {
    order(kMpg430SetFrate, setting);
    picture();
    const std::int64_t before = pace_.now;
    for (int i = 0; i < 5; ++i) picture();
    EXPECT_EQ(pace_.now - before, 5 * period) << setting;
  }
}

TEST_F(HardwareEncoder, OverduePicturesAreLeftOutAndTheStepIsKept) {
  order(kMpg430SetMode, 10);
  order(kMpg430SetFrate, 2);
  order(kMpg430StreamStart, 1);
  picture();
  const std::int64_t start = pace_.now;
  pace_.now += 1030;
  picture();  // at once
  EXPECT_EQ(pace_.now, start + 1030);
  picture();
  EXPECT_EQ(pace_.now, start + 1100);
  picture();
  EXPECT_EQ(pace_.now, start + 1200);
}

TEST_F(HardwareEncoder, CountsWhatItGivesAndWhatALateReaderMisses) {
  order(kMpg430SetMode, 10);
  order(kMpg430SetFrate, 2);
  pace_.now += 1000;
  order(kMpg430StreamStart, 1);
  pace_.now += 500;
  picture();  // nobody is late for the first
  pace_.now += 199;
  picture();
  EXPECT_EQ(encoder_.count()->given, 2);
  EXPECT_EQ(encoder_.count()->missed, 0) << "less than a picture's time";
  pace_.now += 230;
  picture();
  EXPECT_EQ(encoder_.count()->given, 3);
  EXPECT_EQ(encoder_.count()->missed, 2);
}

TEST_F(HardwareEncoder, WhileStoppedAReadWaitsASecondForNothing) {
  std::vector<char> data;
  const std::int64_t start = pace_.now;
  EXPECT_EQ(encoder_.read(1000, &data), 0) << "it is not started by itself";
  EXPECT_EQ(pace_.now, start + 1000);
  order(kMpg430StreamStart, 1);
  picture();
  order(kMpg430StreamStart, 0);
  EXPECT_EQ(encoder_.read(1000, &data), 0);
  EXPECT_EQ(encoder_.read(0, &data), 0);
  order(kMpg430StreamStart, 1);
  const std::int64_t again = pace_.now;
  EXPECT_TRUE(isKey(picture()));
  EXPECT_EQ(pace_.now, again) << "the first comes at once";
}

TEST_F(HardwareEncoder, NoPictureBeginsWhileTheInputsSynchronise) {
  order(kMpg430StreamStart, 1);
  picture();
  const std::int64_t start = pace_.now;
  world_.setStandard(TvStandard::kNtsc);
  encoder_.standardChanged();
  picture();
  EXPECT_GE(pace_.now - start, 100);
  EXPECT_LE(pace_.now - start, 200);
}

TEST_F(HardwareEncoder, TheWorldsStandardCountsOnlyFromItsCallOn) {
  order(kMpg430SetMode, 0);
  world_.setStandard(TvStandard::kNtsc);
  EXPECT_EQ(sizeIn(header()).second, 288u) << "nobody has been told yet";
  encoder_.standardChanged();
  EXPECT_EQ(sizeIn(header()).second, 240u);
}

TEST_F(HardwareEncoder, LongPicturesComeInChunks) {
  show(drawNoise);
  order(kMpg430Mpeg4Qa, 1);
  order(kMpg430SetIpvalue, 0);
  order(kMpg430StreamStart, 1);
  const std::vector<char> first = chunk();
  EXPECT_EQ(first.size(), Encoder::kChunkMax);
  EXPECT_TRUE(startsPicture(first));
  const std::int64_t start = pace_.now;
  std::string whole(first.begin(), first.end());
  for (bool more = true; more;) {
    const std::vector<char> next = chunk();
    whole.append(next.begin(), next.end());
    more = next.size() == Encoder::kChunkMax;
  }
  EXPECT_EQ(pace_.now, start) << "what belongs to a picture is there with it";
  EXPECT_GT(whole.size(), 5 * Encoder::kChunkMax);
  EXPECT_TRUE(StreamJudge().decode(header() + whole)) << complaints_.text();
}

TEST_F(HardwareEncoder, ChunksOfAnyLengthMakeThePicture) {
  order(kMpg430SetMode, 10);
  order(kMpg430SetIpvalue, 0);
  order(kMpg430StreamStart, 1);
  std::string whole = picture();
  for (const std::size_t limit : {1, 2, 4, 5, 100}) {
    std::string pieces;
    while (pieces.size() < whole.size()) {
      const std::vector<char> next = chunk(limit);
      ASSERT_FALSE(next.empty());
      pieces.append(next.begin(), next.end());
    }
    EXPECT_EQ(pieces.substr(0, 4), std::string(kPictureStart, 4)) << limit;
    EXPECT_EQ(pieces.size(), whole.size()) << "the same scene, the same picture";
    EXPECT_TRUE(StreamJudge().decode(header() + pieces)) << limit;
  }
}

// A picture of which the first chunk was read.
class HardwareEncoderMidPicture : public EncoderTest {
 protected:
  HardwareEncoderMidPicture() {
    show(drawNoise);
    order(kMpg430SetMode, 0);
    order(kMpg430Mpeg4Qa, 1);
    order(kMpg430StreamStart, 1);
    header_ = header();
    const std::vector<char> first = chunk();
    begun_.assign(first.begin(), first.end());
  }
  // Returns true iff the picture that was begun goes on, whole, and then a key picture comes.
  bool goesOn() {
    std::vector<char> next = chunk();
    if (startsPicture(next)) return false;
    for (; next.size() == Encoder::kChunkMax; next = chunk())
      begun_.append(next.begin(), next.end());
    begun_.append(next.begin(), next.end());
    EXPECT_TRUE(StreamJudge().decode(header_ + begun_)) << complaints_.text();
    EXPECT_TRUE(isKey(picture()));
    return true;
  }

  std::string header_;
  std::string begun_;
};

TEST_F(HardwareEncoderMidPicture, IsDeliveredToItsEndWhateverIsSet) {
  order(kMpg430SetMode, 7);
  order(kMpg430VideoSource, 1);
  order(kMpg430Mpeg4Qa, 31);
  encoder_.standardChanged();
  order(kMpg430StreamStart, 0);
  order(kMpg430StreamStart, 1);
  EXPECT_TRUE(goesOn());
}

TEST_F(HardwareEncoderMidPicture, IsDeliveredToItsEndBehindItsOwnHeader) {
  order(kMpg430VideoSource, 1);
  EXPECT_EQ(header(), header_);
  EXPECT_TRUE(goesOn());
}

TEST_F(HardwareEncoderMidPicture, IsDroppedWhenAHeaderOfAnotherSizeIsAskedFor) {
  order(kMpg430SetMode, 8);
  const std::string next = header();
  EXPECT_NE(next, header_);
  EXPECT_TRUE(StreamJudge().decode(next + picture())) << complaints_.text();
}

TEST_F(HardwareEncoderMidPicture, IsDroppedWhenTheNodeIsClosed) {
  encoder_.closed();
  EXPECT_TRUE(startsPicture(chunk()));
}

TEST_F(HardwareEncoderMidPicture, IsDroppedWhenSomebodyStartsWhatRuns) {
  order(kMpg430StreamStart, 1);
  EXPECT_TRUE(isKey(picture()));
}

}  // namespace
