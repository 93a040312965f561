// The faults of the virtual board's hardware, as a program sees them through the drivers.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <thread>

#include "tests/platform/drivers_fixture.h"

namespace {

using testing::ElementsAre;

class DriverFaults : public Drivers {
 protected:
  DriverFaults() : fd_(open(kEncoderPath, O_RDONLY)) {}
  ~DriverFaults() override { close(fd_); }

  // Returns the result, or the negated errno.
  int set(unsigned request) const {
    std::int32_t word = 1;
    return ioctl(fd_, static_cast<unsigned long>(request), &word) < 0 ? -errno : 0;
  }
  // Returns what was read, or the name of the error.
  std::string get(std::size_t size = 100) const {
    std::string buffer(size, ' ');
    const ssize_t length = read(fd_, buffer.data(), size);
    if (length < 0) return errorName(errno);
    buffer.resize(static_cast<std::size_t>(length));
    return buffer;
  }

  const int fd_;
};

const std::string kPicture("\0\0\1\xB6picture", 11);

TEST_F(DriverFaults, OneRequestFailsSoManyTimes) {
  faults_.failRequest("MPG430_SET_MODE", EBUSY, 2);
  EXPECT_EQ(set(kMpg430SetFrate), 0);
  EXPECT_EQ(set(kMpg430SetMode), -EBUSY);
  EXPECT_EQ(set(kMpg430SetMode), -EBUSY);
  EXPECT_EQ(encoder_.calls(), 1U) << "a failed request does not reach the chip";
  EXPECT_EQ(set(kMpg430SetMode), 0);
}

TEST_F(DriverFaults, EveryRequestFailsUntilHealed) {
  faults_.failRequest("*", EIO, Faults::kForGood);
  for (int n = 0; n < 10; ++n) EXPECT_EQ(set(n % 2 == 0 ? kMpg430SetMode : kMpg430SetFrate), -EIO);
  encoder_.delivers("still");
  EXPECT_EQ(get(), "still");
  faults_.heal();
  EXPECT_EQ(set(kMpg430SetMode), 0);
}

TEST_F(DriverFaults, ReadsFailSoManyTimesAndTakeNothing) {
  encoder_.delivers("chunk");
  faults_.failRead(Node::kSensor, EBUSY, Faults::kForGood);
  faults_.failRead(Node::kEncoder, EIO, 2);
  EXPECT_EQ(get(), "EIO");
  EXPECT_EQ(get(), "EIO");
  EXPECT_EQ(get(), "chunk");
}

TEST_F(DriverFaults, ShortReadsGiveTheRestLater) {
  encoder_.delivers("abcdefg");
  faults_.spoilReads(Node::kEncoder, ChunkFault::kShort, 3, 2);
  EXPECT_EQ(get(), "abc");
  EXPECT_EQ(get(), "def");
  EXPECT_EQ(get(), "g");
}

TEST_F(DriverFaults, LateReadsComeAfterTheirTime) {
  encoder_.delivers("chunk");
  faults_.spoilReads(Node::kEncoder, ChunkFault::kLate, 70, 1);
  const auto begun = std::chrono::steady_clock::now();
  EXPECT_EQ(get(), "chunk");
  EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(70));
}

TEST_F(DriverFaults, TornReadsLoseTheRest) {
  encoder_.delivers("abcdef");
  encoder_.delivers("next");
  faults_.spoilReads(Node::kEncoder, ChunkFault::kTorn, 0, 1);
  EXPECT_EQ(get(), "abc");
  EXPECT_EQ(get(), "next");
}

TEST_F(DriverFaults, EmptyReadsGiveAndTakeNothing) {
  encoder_.delivers("chunk");
  faults_.spoilReads(Node::kEncoder, ChunkFault::kEmpty, 0, 2);
  EXPECT_EQ(get(), "");
  EXPECT_EQ(get(), "");
  EXPECT_EQ(get(), "chunk");
}

TEST_F(DriverFaults, HeadlessPicturesHaveNoStartCode) {
  encoder_.delivers(kPicture);
  encoder_.delivers("rest");
  encoder_.delivers("\xFF\xD8jpeg");
  encoder_.delivers(kPicture);
  faults_.spoilReads(Node::kEncoder, ChunkFault::kHeadless, 0, 3);
  EXPECT_EQ(get(), "picture");
  EXPECT_EQ(get(), "rest");
  EXPECT_EQ(get(), "jpeg");
  EXPECT_EQ(get(), kPicture);
}

TEST_F(DriverFaults, TheHeadersLengthIsALie) {
  encoder_.answers(20, std::vector<char>(20, 'h'));
  for (const int length : {0, 19, 1000}) {
    faults_.lieAboutHeader(length);
    char header[20];
    EXPECT_EQ(ioctl(fd_, static_cast<unsigned long>(kMpg430GetImgheader), header), length);
  }
}

// A chip whose results have nothing to do with what it gives.
class Liar : public Device {
 public:
  explicit Liar(int result) : result_(result) {}
  int ioctl(unsigned /*request*/, std::vector<char>* /*argument*/) override { return result_; }
  int read(std::size_t /*limit*/, std::vector<char>* data) override {
    data->assign(8, 'x');
    return result_;
  }
  void closed() override {}

 private:
  const int result_;
};

class LyingHardware : public DriverFaults {
 protected:
  // Puts a chip in the encoder's place and opens it.
  int openInstead(Liar* liar) {
    server_.reset();
    server_ = std::make_unique<NodeServer>(
        std::vector<NodeServer::Chip>{{kEncoderPath, Node::kEncoder, liar}}, &trace_);
    std::string error;
    EXPECT_TRUE(server_->start(socketPath(), &error)) << error;
    return open(kEncoderPath, O_RDONLY);
  }
};

// Sanitizers, and programs, trust the result of a read: more bytes than came must never be claimed.
TEST_F(LyingHardware, AReadThatClaimsMoreThanItGivesIsAnInputError) {
  for (const int claimed : {9, 101, INT_MAX}) {
    Liar liar(claimed);
    const int fd = openInstead(&liar);
    char buffer[100];
    EXPECT_EQ(read(fd, buffer, sizeof buffer), -1) << claimed;
    EXPECT_EQ(errno, EIO) << claimed;
    close(fd);
    server_.reset();
  }
}

TEST_F(LyingHardware, ANumberThatIsNoErrorIsAnInputError) {
  Liar liar(INT_MIN);
  const int fd = openInstead(&liar);
  std::int32_t word = 1;
  EXPECT_EQ(ioctl(fd, static_cast<unsigned long>(kMpg430SetMode), &word), -1);
  EXPECT_EQ(errno, EIO);
  close(fd);
  server_.reset();
}

TEST_F(DriverFaults, AHungNodeBlocksUntilItGoesOn) {
  faults_.hang(Node::kEncoder);
  encoder_.delivers("chunk");
  std::atomic<bool> done{false};
  std::thread caller([&] {
    EXPECT_EQ(set(kMpg430SetMode), 0);
    EXPECT_EQ(get(), "chunk");
    done = true;
  });
  const int sensor = open(kSensorPath, O_RDONLY);
  std::int32_t word = 1;
  EXPECT_EQ(ioctl(sensor, static_cast<unsigned long>(kVicamSetMirror), &word), 0);
  EXPECT_FALSE(done);
  EXPECT_EQ(encoder_.calls(), 0U);
  faults_.goOn();
  caller.join();
  close(sensor);
}

TEST_F(DriverFaults, AReadThatWaitsIsHungToo) {
  std::atomic<bool> done{false};
  std::thread reader([&] {
    EXPECT_EQ(get(), "chunk");
    done = true;
  });
  EXPECT_TRUE(eventually([&] { return encoder_.blocked() == 1; }));
  faults_.hang(Node::kEncoder);
  encoder_.delivers("chunk");
  EXPECT_TRUE(eventually([&] { return encoder_.blocked() == 0; }));
  EXPECT_FALSE(done);
  faults_.heal();
  reader.join();
}

TEST_F(DriverFaults, HungHardwareEndsInOrder) {
  faults_.hang(Node::kEncoder);
  std::thread reader([this] { get(); });
  stopHardware();
  reader.join();
  EXPECT_EQ(get(), "EIO");
}

TEST_F(DriverFaults, WhatIsOnIsTold) {
  faults_.failRequest("SET_MIRROR", EIO, 3);
  faults_.spoilReads(Node::kSensor, ChunkFault::kLate, 20, Faults::kForGood);
  faults_.hang(Node::kEncoder);
  EXPECT_EQ(faults_.describe(), "fail SET_MIRROR EIO, 3 times\nhang encoder\nlate sensor 20\n");
  faults_.heal();
  EXPECT_EQ(faults_.describe(), "");
}

TEST_F(DriverFaults, ATraceHasALineForEachRequest) {
  const int sensor = open(kSensorPath, O_RDONLY);
  EXPECT_EQ(set(kMpg430SetMode), 0);
  encoder_.answers(0, {3, 0, 0, 0});
  EXPECT_EQ(set(kMpg430SetMode), 0);
  encoder_.answers(20, std::vector<char>(20, '\x12'));
  char header[20];
  ioctl(fd_, static_cast<unsigned long>(kMpg430GetImgheader), header);
  encoder_.answers(0);
  TMpg430Colour colour{-1, 2, -32768, 4};
  ioctl(fd_, static_cast<unsigned long>(kMpg430VideoSetcolor), &colour);
  sensor_.answers(-EINVAL);
  char text[] = "some text";
  ioctl(sensor, static_cast<unsigned long>(kVicamSetMdosdString), text);
  sensor_.answers(0);
  TVideoPicture picture{1, 2, 3, 4, 5, 6, 65535};
  ioctl(sensor, static_cast<unsigned long>(kVidiocspict), &picture);
  TVideoWindow window{0, 0, 640, 480, 0, 0, 0, 0};
  ioctl(sensor, static_cast<unsigned long>(kVidiocswin), &window);
  char image[10] = {'O', 'S', 'D', '1', 1, 0, 1, 0};
  ioctl(sensor, static_cast<unsigned long>(kVicamSetGposdImg), image);
  ioctl(sensor, 0xABCUL, image);
  close(sensor);
  EXPECT_TRUE(eventually([&] { return sensor_.timesClosed() == 1; }));
  EXPECT_THAT(
      traced(),
      ElementsAre("open /dev/mpg430 -> 0", "open /dev/video0 -> 0", "MPG430_SET_MODE 1 -> 0",
                  "MPG430_SET_MODE 1 -> 0, 3",
                  "MPG430_GET_IMGHEADER -> 20, 1212121212121212121212121212121212121212",
                  "MPG430_VIDEO_SETCOLOR -1 2 -32768 4 -> 0",
                  "SET_MDOSD_STRING \"some text\" -> EINVAL", "VIDIOCSPICT 1 2 3 4 5 6 65535 -> 0",
                  "VIDIOCSWIN 0 0 640 480 0 0 0 0 -> 0", "SET_GPOSD_IMG 10 bytes -> 0",
                  "0x00000ABC -> EINVAL", "close /dev/video0"));
}

}  // namespace
