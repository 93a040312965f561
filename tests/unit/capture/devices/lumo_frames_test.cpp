// The frames of the sensor camera, mode by mode.
#include <climits>

#include "capture/chunk_trailer.h"
#include "record/avi_writer.h"
#include "record/jpg_writer.h"
#include "record/writer.h"
#include "tests/fakes/allocations.h"
#include "tests/unit/capture/devices/lumo_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class LumoFrames : public LumoFixture {
 protected:
  LumoFrames() : size(TWriter::getFrameSize(sbVideo())), frame(kFrameBytes + kGuard, kUnused) {}
  ~LumoFrames() override {
    jpgWriter()->delRef(this);
    aviWriter()->delRef(this);
    EXPECT_EQ(frame.substr(static_cast<std::size_t>(size)),
              std::string(frame.size() - static_cast<std::size_t>(size), kUnused))
        << "written behind the frame";
  }

  int read(TCamera& camera) { return camera.getImage(&frame[0], size); }
  std::string start(std::size_t length) const { return frame.substr(0, length); }
  // The first trailer of the frame.
  std::string trailer() const {
    return frame.substr(static_cast<std::size_t>(size - kTrailerBytes), kTrailerBytes);
  }
  static std::string trailerOf(char type, char more, int length) {
    std::string bytes(kTrailerBytes, '\0');
    storeTrailer(&bytes[0], type, more, static_cast<std::uint32_t>(length));
    return bytes;
  }

  void pictureIs(const std::string& bytes) {
    drivers.onPicture = [bytes](char* buffer, long room) {
      return FakeDrivers::give(bytes, buffer, room);
    };
  }
  // What read() claims, whatever it has written.
  void readClaims(long result) {
    drivers.onPicture = [result](char* buffer, long room) {
      std::memset(buffer, 'j', static_cast<std::size_t>(room));
      return result;
    };
  }

  static constexpr long kGuard = 64;
  static constexpr char kUnused = '.';
  const std::string kJpeg = "\xFF\xD8 jpeg \xFF\xD9";
  const std::string kChunk = std::string("\0\0\1\xB6\x50 chunk", 11);
  const long size;
  std::string frame;
};

// --- Mode 1

TEST_F(LumoFrames, InModeOneAFrameIsOnePictureWithItsTrailer) {
  TCamera::defMode = 1;
  Lumo camera;
  drivers.take();
  fake.advance(5);
  EXPECT_EQ(read(camera), 10);
  EXPECT_THAT(drivers.take(), ElementsAre("sensor read " + std::to_string(size - 6)));
  EXPECT_EQ(start(11), kJpeg + kUnused);
  EXPECT_EQ(trailer(), std::string("Jx\x0a\0\0\0", 6));
  TDateTime now;
  now.set();
  EXPECT_EQ(*camera.getTime(), now);
  EXPECT_EQ(fake.count("log"), 0);
}

TEST_F(LumoFrames, TheTimeOfAPictureIsThatAfterItsRead) {
  TCamera::defMode = 1;
  Lumo camera;
  drivers.onPicture = [this](char* buffer, long room) {
    fake.advance(0.25);
    return FakeDrivers::give("picture", buffer, room);
  };
  TDateTime before;
  before.set();
  read(camera);
  EXPECT_EQ((*camera.getTime() - before).getTotal(kFieldTotalMs), 250);
}

TEST_F(LumoFrames, ALargePictureHasItsLengthInTheTrailer) {
  TCamera::defMode = 1;
  Lumo camera;
  readClaims(0x10203);
  EXPECT_EQ(read(camera), 0x10203);
  EXPECT_EQ(trailer(), std::string("Jx\x03\x02\x01\0", 6));
}

TEST_F(LumoFrames, APictureThatFillsTheFrameMayHaveBeenCutOff) {
  TCamera::defMode = 1;
  Lumo camera;
  fake.clearCalls();
  pictureIs(std::string(static_cast<std::size_t>(size - 7), 'p'));
  EXPECT_EQ(read(camera), size - 7);
  EXPECT_THAT(fake.calls(), IsEmpty());
  pictureIs(std::string(static_cast<std::size_t>(size - 6), 'p'));
  EXPECT_EQ(read(camera), size - 6);
  EXPECT_THAT(fake.calls(), ElementsAre("log_event(604)"));
  EXPECT_EQ(trailer(), trailerOf('J', 'x', static_cast<int>(size - 6)));
}

TEST_F(LumoFrames, ADriverThatClaimsMoreThanWasAskedIsNotBelieved) {
  for (const long claim : {size - 5, size, size + 1000, LONG_MAX}) {
    TCamera::defMode = 1;
    Lumo camera;
    fake.clearCalls();
    readClaims(claim);
    EXPECT_EQ(read(camera), size - 6) << claim;
    EXPECT_EQ(trailer(), trailerOf('J', 'x', static_cast<int>(size - 6)));
    EXPECT_THAT(fake.calls(), ElementsAre("log_event(604)"));
  }
}

TEST_F(LumoFrames, AFailedReadIsLoggedAndPassedOn) {
  TCamera::defMode = 1;
  Lumo camera;
  for (const int result : {0, -1}) {
    fake.clearCalls();
    readClaims(result);
    EXPECT_EQ(read(camera), result);
    EXPECT_THAT(fake.calls(), ElementsAre("log 3 read(lumo) return " + std::to_string(result)));
    EXPECT_EQ(trailer(), trailerOf('J', 'x', result));
  }
}

TEST_F(LumoFrames, AFrameOfAnotherSizeIsReadWholeWithoutATrailer) {
  TCamera::defMode = 1;
  Lumo camera;
  for (const long other : {size - 1, size - 100}) {
    drivers.take();
    fake.clearCalls();
    frame.assign(frame.size(), kUnused);
    EXPECT_EQ(camera.getImage(&frame[0], other), 10);
    EXPECT_THAT(fake.calls(), ElementsAre("log 3 TLumoCam::getImage() IPE"));
    EXPECT_THAT(drivers.take(), ElementsAre("sensor read " + std::to_string(other)));
    EXPECT_EQ(frame, kJpeg + std::string(frame.size() - kJpeg.size(), kUnused));
  }
}

TEST_F(LumoFrames, WithoutABufferThereIsNoRoomForATrailer) {
  TCamera::defMode = 1;
  Lumo camera;
  fake.video.detach();
  EXPECT_EQ(camera.getImage(&frame[0], 0), 0);
  EXPECT_TRUE(fake.called("log 3 TLumoCam::getImage() IPE"));
  EXPECT_EQ(start(1), std::string(1, kUnused));
  EXPECT_EQ(camera.getImage(&frame[0], -6), 0);
  fake.video.attach();
}

TEST_F(LumoFrames, InModeOneColoursReachTheSensorBehindThePicture) {
  TCamera::defMode = 1;
  Lumo camera;
  camera.setBrightness(1);
  camera.setHue(2);
  drivers.take();
  read(camera);
  EXPECT_THAT(drivers.take(),
              ElementsAre("sensor read " + std::to_string(size - 6), "sensor 400E7606 ?",
                          "sensor 800E7607 256,512,32512,32512 w=0 d=0 p=0"));
  EXPECT_FALSE(TMpg430::fImage);
  read(camera);
  EXPECT_THAT(drivers.take(), ElementsAre("sensor read " + std::to_string(size - 6)));
}

TEST_F(LumoFrames, InModeOneNoWriterGetsAnything) {
  TCamera::defMode = 1;
  Lumo camera;
  jpgWriter()->addRef(this);
  aviWriter()->addRef(this);
  read(camera);
  EXPECT_EQ(fake.video2.published(), 0);
}

// --- Modes 0 and 3

TEST_F(LumoFrames, InModesZeroAndThreeAFrameIsTheEncoders) {
  for (const int mode : {0, 3}) {
    TCamera::defMode = mode;
    Lumo camera;
    drivers.take();
    EXPECT_EQ(read(camera), 11);
    EXPECT_THAT(drivers.take(), ElementsAre("encoder read " + std::to_string(size - 6)));
    EXPECT_EQ(start(12), kChunk + kUnused);
    EXPECT_EQ(trailer(), trailerOf('P', 'x', 11));
  }
}

TEST_F(LumoFrames, InTheOtherModesColoursReachTheSensorBeforeTheEncodersRead) {
  const std::string kRead = "encoder read " + std::to_string(size - 6);
  const Trace kImage = {"sensor 400E7606 ?", "sensor 800E7607 32512,32512,32512,768 w=0 d=0 p=0"};
  for (const int mode : {0, 2, 3}) {
    TCamera::defMode = mode;
    Lumo camera;
    camera.setContrast(3);
    drivers.take();
    read(camera);
    Trace expected = kImage;
    if (mode == 2) expected.insert(expected.begin(), "sensor read " + std::to_string(size));
    expected.push_back(kRead);
    EXPECT_EQ(drivers.take(), expected) << mode;
    EXPECT_FALSE(TMpg430::fImage);
  }
}

// --- Mode 2

TEST_F(LumoFrames, InModeTwoThePictureGoesToTheWriterAndTheFrameIsTheEncoders) {
  TCamera::defMode = 2;
  Lumo camera;
  jpgWriter()->addRef(this);
  drivers.take();
  fake.advance(3);
  TDateTime before = *camera.getTime();
  EXPECT_EQ(read(camera), 11);
  EXPECT_THAT(drivers.take(), ElementsAre("sensor read " + std::to_string(size),
                                          "encoder read " + std::to_string(size - 6)));
  ASSERT_EQ(fake.video2.published(), 1);
  EXPECT_EQ(fake.video2.last().payload, kJpeg);
  EXPECT_EQ(fake.video2.last().time, before) << "that of the read before";
  EXPECT_EQ(start(11), kChunk);
  EXPECT_EQ(trailer(), trailerOf('P', 'x', 11));
}

TEST_F(LumoFrames, InModeTwoOnlyThePictureIsKeptForRecorders) {
  TCamera::defMode = 2;
  Lumo camera;
  aviWriter()->addRef(this);
  drivers.onChunk = [](char* buffer, long room) {
    return FakeDrivers::give(std::string("\0\0\1\xB6\x10 key", 9), buffer, room);
  };
  for (int i = 0; i < 3; ++i) read(camera);
  EXPECT_EQ(fake.video2.published(), 0);
}

TEST_F(LumoFrames, InModeTwoAFailedReadNeverReachesTheWriter) {
  TCamera::defMode = 2;
  Lumo camera;
  jpgWriter()->addRef(this);
  for (const int result : {0, -1, -5}) {
    fake.clearCalls();
    readClaims(result);
    EXPECT_EQ(read(camera), 11) << "the encoder's stream goes on";
    EXPECT_THAT(fake.calls(), ElementsAre("log 3 read(lumo) return " + std::to_string(result)));
  }
  EXPECT_EQ(fake.video2.published(), 0);
}

TEST_F(LumoFrames, InModeTwoAPictureMayFillTheWholeFrame) {
  TCamera::defMode = 2;
  Lumo camera;
  jpgWriter()->addRef(this);
  for (const long claim : {size - 1, size, size + 1, LONG_MAX}) {
    fake.clearCalls();
    readClaims(claim);
    EXPECT_EQ(read(camera), 11);
    const long kept = claim < size ? claim : size;
    EXPECT_EQ(fake.video2.last().payload, std::string(static_cast<std::size_t>(kept), 'j'));
    EXPECT_EQ(fake.count("log_event(604)"), claim < size ? 0 : 1) << claim;
    EXPECT_EQ(fake.count("log "), 0);
  }
}

// --- Each frame

TEST_F(LumoFrames, NothingIsAllocatedForAFrame) {
  jpgWriter()->addRef(this);
  aviWriter()->addRef(this);
  fake.overlays.windows[0] = tag_MotionDetect{1, 0, 0, 100, 100, 5, {}};
  fake.overlays.windows[1] = tag_MotionDetect{1, 0, 0, 100, 100, 5, {}};
  drivers.level[0] = 37;
  int chunks = 0;
  drivers.onChunk = [&chunks](char* buffer, long room) {
    const char type = ++chunks % 4 == 1 ? '\x10' : '\x50';
    return FakeDrivers::give(std::string("\0\0\1\xB6", 4) + type + " picture", buffer, room);
  };
  fake.keepCalls(false);
  for (int mode = 0; mode <= 3; ++mode) {
    TCamera::defMode = mode;
    Lumo camera;
    camera.setResolution(7);
    camera.setMotionDetection(3);
    const auto pass = [&] {
      camera.setBrightness(chunks % 256);
      read(camera);
      char text[48];
      for (int which = 0; which < 3; ++which) camera.getUserdata(which, text);
      camera.getMotionStatus(0);
    };
    pass();
    pass();
    const long before = allocations();
    for (int i = 0; i < 100; ++i) pass();
    EXPECT_EQ(allocations(), before) << mode;
  }
  EXPECT_GT(fake.video2.published(), 20);
}

TEST_F(LumoFrames, ReadErrorsWithoutEndEndWithTheDriversRecovery) {
  TCamera::defMode = 1;
  Lumo camera;
  readClaims(-1);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(read(camera), -1);
  EXPECT_EQ(fake.logged("read(lumo) return -1"), 100);
  pictureIs(kJpeg);
  EXPECT_EQ(read(camera), 10);
  EXPECT_EQ(start(10), kJpeg);
}

}  // namespace
