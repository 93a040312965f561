// What the sensor's driver answers.
#include <cerrno>
#include <cstring>
#include <iterator>
#include <random>

#include "board/drivers/requests.h"
#include "sensor_fixture.h"
#include "tests/slow_build.h"

namespace {

using SensorRequests = SensorTest;

struct Range {
  unsigned request;
  int lowest;
  int highest;
};
constexpr Range kRanges[] = {
    {kVicamSetFlip, 0, 1},        {kVicamSetMirror, 0, 1},      {kVicamSetExposure, 0, 9},
    {kVicamSetMaxshutter, 0, 6},  {kVicamSetBalance, 0, 4},     {kVicamSetNoisefilter, 0, 3},
    {kVicamSetBacklight, 0, 3},   {kVicamSetFlickerMode, 0, 2}, {kVicamSetFramerateId, 1, 30},
    {kVicamSetCompRate, 1, 100},  {kVicamSetGposdTransp, 0, 3}, {kVicamSetMdosdTransp, 0, 3},
    {kVicamSetDtosdTransp, 0, 3}, {kVicamSetMdosdColor, 0, 7},  {kVicamSetDtosdColor, 0, 7},
};

// An argument of the kind that the request takes, which the sensor accepts.
std::vector<char> argumentOf(const Request& request) {
  switch (request.argument) {
    case Argument::kWord: {
      const std::int32_t one = 1;
      std::vector<char> bytes(sizeof(one));
      std::memcpy(bytes.data(), &one, sizeof(one));
      return bytes;
    }
    case Argument::kPicture:
      return std::vector<char>(sizeof(TVideoPicture));
    case Argument::kWindow: {
      const TVideoWindow window{0, 0, 320, 240, 0, 0, 0, 0};
      std::vector<char> bytes(sizeof(window));
      std::memcpy(bytes.data(), &window, sizeof(window));
      return bytes;
    }
    case Argument::kText:
      return {'t', 'e', 'x', 't', '\0'};
    case Argument::kImage:
      return {'O', 'S', 'D', '1', 1, 0, 1, 0, 0, 0};
    default:
      return {};
  }
}

TEST_F(SensorRequests, EveryRequestOfTheSensorIsAnswered) {
  int count = 0;
  for (const Request& request : kRequests) {
    if (request.node != Node::kSensor) continue;
    std::vector<char> argument = argumentOf(request);
    EXPECT_EQ(sensor_.ioctl(request.number, &argument), 0) << request.name;
    ++count;
  }
  EXPECT_EQ(count, 44);
}

TEST_F(SensorRequests, WhatTheSensorDoesNotKnowIsRefused) {
  for (const unsigned request : {0u, 0x40045700u - 0x100u, kMpg430SetMode, 0xFFFFFFFFu})
    EXPECT_EQ(set(request, 0), -EINVAL) << request;
}

TEST_F(SensorRequests, CodesOutOfRangeAreRefused) {
  for (const Range& range : kRanges) {
    EXPECT_EQ(set(range.request, range.lowest), 0) << std::hex << range.request;
    EXPECT_EQ(set(range.request, range.highest), 0) << std::hex << range.request;
    for (const int value : {range.lowest - 1, range.highest + 1, INT32_MIN, INT32_MAX})
      EXPECT_EQ(set(range.request, value), -EINVAL) << std::hex << range.request << " " << value;
  }
}

TEST_F(SensorRequests, ARefusedCodeLeavesThePictureAsItIs) {
  const Picture before = capture();
  for (const Range& range : kRanges) set(range.request, range.highest + 1);
  EXPECT_TRUE(samePixels(*before, *capture()));
}

TEST_F(SensorRequests, TheArgumentKeepsTheValueThatWasSet) {
  std::vector<char> argument = {4, 0, 0, 0};
  ASSERT_EQ(sensor_.ioctl(kVicamSetExposure, &argument), 0);
  EXPECT_EQ(argument, (std::vector<char>{4, 0, 0, 0}));
}

TEST_F(SensorRequests, ArgumentsThatAreTooShortAreRefused) {
  for (const Request& request : kRequests) {
    if (request.node != Node::kSensor || request.argument == Argument::kText) continue;
    if (request.number == kVicamGetMdwnd1Status || request.number == kVicamGetMdwnd2Status)
      continue;
    std::vector<char> argument = argumentOf(request);
    argument.pop_back();
    EXPECT_EQ(sensor_.ioctl(request.number, &argument), -EINVAL) << request.name;
    argument.clear();
    EXPECT_EQ(sensor_.ioctl(request.number, &argument), -EINVAL) << request.name;
  }
}

TEST_F(SensorRequests, TextsMayBeEmptyOrWithoutAnEnd) {
  std::vector<char> argument;
  EXPECT_EQ(sensor_.ioctl(kVicamSetMdosdString, &argument), 0);
  argument.assign(5, 'x');
  EXPECT_EQ(sensor_.ioctl(kVicamSetMdosdString, &argument), 0);
  argument.assign(100'000, 'x');
  EXPECT_EQ(sensor_.ioctl(kVicamSetDtosdString, &argument), 0);
}

TEST_F(SensorRequests, TheColoursThatWereSetCanBeReadBack) {
  const TVideoPicture colours{1, 2, 65535, 4, 5, 6, 7};
  ASSERT_EQ(setColours(colours), 0);
  std::vector<char> argument(sizeof(colours));
  ASSERT_EQ(sensor_.ioctl(kVidiocgpict, &argument), 0);
  EXPECT_EQ(std::memcmp(argument.data(), &colours, sizeof(colours)), 0);
}

TEST_F(SensorRequests, AfterPowerOnTheColoursAreNeutral) {
  TVideoPicture colours;
  std::vector<char> argument(sizeof(colours));
  ASSERT_EQ(sensor_.ioctl(kVidiocgpict, &argument), 0);
  std::memcpy(&colours, argument.data(), sizeof(colours));
  EXPECT_EQ(colours.brightness, 127 * 256);
  EXPECT_EQ(colours.hue, 127 * 256);
  EXPECT_EQ(colours.colour, 127 * 256);
  EXPECT_EQ(colours.contrast, 127 * 256);
}

TEST_F(SensorRequests, WindowsThatTheSensorDoesNotReachAreRefused) {
  for (const auto& [width, height] :
       {std::pair{0u, 0u}, {159u, 120u}, {160u, 119u}, {641u, 480u}, {640u, 481u}, {~0u, ~0u}})
    EXPECT_EQ(setWindow(width, height), -EINVAL) << width << "x" << height;
}

TEST_F(SensorRequests, NothingThatIsAskedDoesHarm) {
  SKIP_WHERE_RACES_ARE_WATCHED();
  std::mt19937 dice(1);
  const std::int32_t words[] = {0, 1, 2, 3, -1, 7, 50, 320, 640, INT32_MAX, INT32_MIN, 1 << 30};
  for (int round = 0; round < 600; ++round) {
    const Request& request = kRequests[dice() % std::size(kRequests)];
    std::vector<char> argument = argumentOf(request);
    if (request.argument == Argument::kWord) {
      const std::int32_t word = words[dice() % std::size(words)];
      std::memcpy(argument.data(), &word, sizeof(word));
    } else if (dice() % 2 == 0) {
      argument.resize(dice() % 400);
      for (char& byte : argument) byte = static_cast<char>(dice());
    }
    const int result = sensor_.ioctl(request.number, &argument);
    EXPECT_TRUE(result == -EINVAL || (result >= 0 && result <= 100)) << request.name << result;
    nextPicture();
    if (round % 10 != 0) continue;
    EXPECT_TRUE(decodeJpeg(readJpeg())) << round;
  }
}

}  // namespace
