// A picture file as the camera.
#include "capture/devices/file_source.h"

#include <gtest/gtest.h>

#include "core/status_slots.h"
#include "tests/fakes/fake_platform.h"

namespace {

class Source : public TFileSource {
 public:
  using TCamera::interval_;
  using TFileSource::TFileSource;
};

class FileSource : public testing::Test {
 protected:
  std::string read(TCamera& camera, long length) {
    std::string buffer(static_cast<std::size_t>(length), '?');
    const int got = camera.getImage(&buffer[0], length);
    return got < 0 ? "failed" : buffer.substr(0, static_cast<std::size_t>(got));
  }

  FakePlatform fake;
};

TEST_F(FileSource, AShortFileComesWholeEachTime) {
  std::string picture(10000, 'x');
  picture.front() = 'a';
  fake.files.put("test.jpg", picture);
  Source source("test.jpg");
  for (int i = 0; i < 3; ++i) EXPECT_EQ(read(source, 65536), picture);
  EXPECT_EQ(fake.pausesUs(), (std::vector<long>{20000, 20000, 20000}));
}

TEST_F(FileSource, ALongFileComesInPiecesAndThenAnew) {
  fake.files.put("test.jpg", "abcdefgh");
  Source source("test.jpg");
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(read(source, 3), "abc");
    EXPECT_EQ(read(source, 3), "def");
    EXPECT_EQ(read(source, 3), "gh");
  }
}

TEST_F(FileSource, AFileOfWholePiecesIsFollowedByAnEmptyRead) {
  fake.files.put("test.jpg", "abcd");
  Source source("test.jpg");
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(read(source, 4), "abcd");
    EXPECT_EQ(read(source, 4), "");
  }
  EXPECT_EQ(fake.logged("reading file source return 0"), 2);
}

TEST_F(FileSource, AMissingFileFailsEachTime) {
  Source source("none.jpg");
  EXPECT_EQ(fake.logged("can't open none.jpg"), 1);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(read(source, 10), "failed");
  EXPECT_EQ(fake.callsWith("log 3 reading file source return -1").size(), 3u);
  EXPECT_TRUE(fake.pausesUs().empty());
}

TEST_F(FileSource, AnEmptyFileGivesNothingUntilItIsFilled) {
  fake.files.put("test.jpg", "");
  Source source("test.jpg");
  EXPECT_EQ(read(source, 10), "");
  EXPECT_EQ(read(source, 10), "");
  EXPECT_EQ(fake.callsWith("log 3 reading file source return 0").size(), 2u);
  fake.files.put("test.jpg", "abc");
  EXPECT_EQ(read(source, 10), "abc");
}

TEST_F(FileSource, WhatIsWrittenIntoTheFileShowsInTheNextFrame) {
  fake.files.put("test.jpg", "old picture");
  Source source("test.jpg");
  EXPECT_EQ(read(source, 20), "old picture");
  fake.files.put("test.jpg", "new");
  EXPECT_EQ(read(source, 20), "new");
}

TEST_F(FileSource, ANewFileUnderTheNameLeavesTheOpenOneInUse) {
  fake.files.put("test.jpg", "old");
  Source source("test.jpg");
  fake.files.remove("test.jpg");
  fake.files.put("test.jpg", "new");
  EXPECT_EQ(read(source, 20), "old");
}

TEST_F(FileSource, ADiskErrorPassesOn) {
  fake.files.put("test.jpg", "abc");
  Source source("test.jpg");
  fake.fails("os::read", 1);
  EXPECT_EQ(read(source, 20), "failed");
  EXPECT_EQ(read(source, 20), "abc");
}

TEST_F(FileSource, EachRateHasItsInterval) {
  fake.files.put("test.jpg", "abc");
  Source source("test.jpg");
  const int expected[] = {112000, 56000, 37000, 28000, 22000, 18000, 16000, 14000, 12000,
                          11000,  10000, 9000,  8000,  8000,  7000,  0,     0,     0,
                          0,      0,     0,     0,     0,     0,     0,     0,     0,
                          0,      0,     0,     0,     0,     112000};
  for (int rate = 0; rate <= 32; ++rate) {
    source.setFramerate(rate);
    EXPECT_EQ(source.interval_, expected[rate]) << rate;
    EXPECT_EQ(kStatusFramerate.get(fake.video.slot(kSlotStatus)), rate);
  }
  source.setFramerate(2147483647);
  EXPECT_EQ(source.interval_, 0);
}

TEST_F(FileSource, ANegativeRateIsPublishedAndKeepsTheInterval) {
  fake.files.put("test.jpg", "abc");
  Source source("test.jpg");
  source.setFramerate(3);
  source.setFramerate(-1);
  EXPECT_EQ(source.interval_, 28000);
  EXPECT_EQ(kStatusFramerate.get(fake.video.slot(kSlotStatus)), 255);
}

TEST_F(FileSource, ThePacingIsCountedFromReadToRead) {
  fake.files.put("test.jpg", "abc");
  Source source("test.jpg");
  source.setFramerate(0);
  fake.advance(1);
  read(source, 10);
  read(source, 10);
  EXPECT_EQ(fake.pausesUs(), (std::vector<long>{20000, 92000, 20000}));
}

TEST_F(FileSource, IsNoDevice) {
  fake.files.put("test.jpg", "abc");
  Source source("test.jpg");
  EXPECT_LT(source.ioctl(1, nullptr, "SET_MODE"), 0);
  EXPECT_TRUE(fake.called("log 3 ioctl(SET_MODE) fail"));
}

}  // namespace
