// The encoder under the capture thread: from its chunks to the frames that others read.
#include <csignal>
#include <memory>
#include <random>

#include "capture/video_args.h"
#include "capture/video_source.h"
#include "tests/unit/capture/devices/mpg430_fixture.h"
#include "tests/unit/capture/run_frames.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class EncoderStream : public Mpg430Fixture {
 protected:
  EncoderStream() : args(0, nullptr) {
    args.source = kModelKTX310;
    args.compressionType = 0;
    args.resolution = 7;
  }
  ~EncoderStream() override { aviWriter()->delRef(this); }

  TVideoArgs args;
};

TEST_F(EncoderStream, TheModelDrivesTheEncoderInModeZero) {
  TCamera::defMode = 1;
  const TVideoSource source(args);
  EXPECT_NE(dynamic_cast<TMpg430*>(source.camera()), nullptr);
  EXPECT_EQ(TCamera::defMode, 0);
  EXPECT_EQ(source.camera()->getMode(), 0);
  EXPECT_EQ(takeRequests(), std::vector<std::string>{"ioctl(01100000,1)"}) << "it is started";
  EXPECT_EQ(fake.count("log "), 0);
}

TEST_F(EncoderStream, TheFirstFrameBringsEverySettingToTheDriverInOrder) {
  args.videoSource = 1;
  args.frameRate = 2;
  args.compressRate = 5;
  args.ipRatio = 10;
  args.brightness = 1;
  args.contrast = 2;
  args.saturation = 3;
  args.hue = 4;
  TVideoSource source(args);
  chunks.assign(6, key(10));
  takeRequests();
  runFrames(fake, source, 1);
  EXPECT_THAT(takeRequests(),
              ElementsAre("ioctl(02000000,1)", "ioctl(00a00000,2)", "ioctl(01300000,5)",
                          "ioctl(02700000,10)", "ioctl(00800000,7)",
                          "ioctl(02200000,256,-31488,-31744,-32000)", "ioctl(01200000)"));
  EXPECT_EQ(fake.video.slot(kSlotFormat), 7 | 5 << 8);
  EXPECT_EQ(fake.video.slot(kSlotStatus), 2 << 8 | 7 << 22);
  runFrames(fake, source, 1);
  EXPECT_THAT(takeRequests(), IsEmpty());
}

TEST_F(EncoderStream, AFrameHasItsRecordItsChunksAndItsTrailers) {
  TVideoSource source(args);
  std::string bytes;
  chunks = {{key(1000, 'a')}, {more(200, 'b')}, {more(300, 'c')}};
  fake.advance(0.25);
  TDateTime time;
  time.set();
  fake.video.onPublish([](const FakeFrame&) {});
  runFrames(fake, source, 1);
  const FakeFrame frame0 = fake.video.last();
  EXPECT_EQ(frame0.length, 1500);
  EXPECT_EQ(frame0.payload, key(1000, 'a') + more(200, 'b') + more(300, 'c'));
  EXPECT_EQ(frame0.time, time);
  EXPECT_EQ(frame0.number, 1);
  EXPECT_EQ(frame0.text[0], std::string(40, '6').replace(0, 40, [] {
    std::string digits;
    for (int i = 0; i < 20; ++i) digits += "68";
    return digits;
  }()));
  EXPECT_EQ(frame0.text[1], "");
  EXPECT_EQ(frame0.text[2], "");
  std::int32_t number = 0, epoch = 0;
  const TAutoFrame reader(sbVideo(), 10000, &number, &epoch, 0);
  ASSERT_TRUE(reader);
  bytes.assign(reader->payload, kSize);
  EXPECT_EQ(trailersOf(bytes),
            (std::vector<Trailer>{{'I', 'o', 1000}, {'i', 'o', 200}, {'i', 'x', 300}}));
}

TEST_F(EncoderStream, RecordersGetTheKeyFrameBehindItsHeader) {
  aviWriter()->addRef(this);
  TVideoSource source(args);
  chunks = {{key(1000, 'a')}, {more(500, 'b')}, {predicted(300)},
            {key(800, 'c')},  {more(1)},        {more(1)}};
  runFrames(fake, source, 1);
  ASSERT_EQ(fake.video2.published(), 1);
  EXPECT_EQ(fake.video2.last().length, 1520);
  EXPECT_EQ(fake.video2.last().payload, streamHeader + key(1000, 'a') + more(500, 'b'));
  runFrames(fake, source, 1);
  EXPECT_EQ(fake.video2.published(), 1);
  chunks.assign(3, predicted(10));
  runFrames(fake, source, 1);
  EXPECT_EQ(fake.video2.published(), 2);
  EXPECT_EQ(fake.video2.last().payload, streamHeader + key(800, 'c') + more(2));
}

TEST_F(EncoderStream, GoesOnWhenTheDriverRecovers) {
  TVideoSource source(args);
  chunks.assign(6, key(10));
  fake.fails("os::read", 1000);
  runFrames(fake, source, 2);
  EXPECT_EQ(fake.logged("read(MPG430) return -1"), 1000);
  EXPECT_EQ(fake.video.last().length, 30);
  EXPECT_EQ(fake.video.last().number, 2);
}

TEST_F(EncoderStream, TheEndOfTheProcessLeavesAnEmptyFrameThatNobodySees) {
  TVideoSource source(args);
  source.run();
  fake.video.onPublish([this](const FakeFrame&) { fake.stopNow(); });
  TApplication::stopped = true;
  fake.runBody(source);
  TApplication::stopped = false;
  EXPECT_EQ(fake.video.last().length, 0);
  EXPECT_THAT(asked, IsEmpty());
}

// An encoder that makes pictures by itself. A picture says in its bytes which format it has and how
// long it is; the header says which format it is of.
class FakePictures {
 public:
  explicit FakePictures(unsigned seed) : random_(seed) {}

  std::function<void()> onStandard;  // the signal
  int changes = 0;

  bool chance(unsigned one) { return random_() % one == 0; }
  unsigned upTo(unsigned most) { return static_cast<unsigned>(random_() % (most + 1)); }

  // The picture under way is delivered to its end; the next one is a key picture.
  void change(bool format) {
    if (format) ++format_;
    ++changes;
    keyIsNext_ = true;
  }
  void standard() {
    change(true);
    onStandard();
  }
  // From now on all pictures are of this header.
  std::string header() {
    if (!rest_.empty() && restFormat_ != format_) rest_.clear();
    return std::string(kMpg430HeaderBytes, format_);
  }

  std::string chunk(std::size_t most) {
    if (rest_.empty()) rest_ = picture();
    // Never less than the start code and the type.
    const std::string piece = rest_.substr(0, std::min<std::size_t>(most, 5 + upTo(400)));
    rest_.erase(0, piece.size());
    return piece;
  }

  // Returns what is wrong with a frame for recorders, nothing if it is right.
  static std::string wrong(const std::string& bytes) {
    if (bytes.size() < kMpg430HeaderBytes + kHead) return "too short";
    const std::string picture = bytes.substr(kMpg430HeaderBytes);
    if (bytes.substr(0, kMpg430HeaderBytes) != std::string(kMpg430HeaderBytes, picture[5]))
      return "another header";
    if (loadLe32(&picture[6]) != picture.size()) return "another length";
    if (picture.find_first_not_of(picture[5], kHead) != picture.npos) return "other bytes";
    return "";
  }

 private:
  static constexpr std::size_t kHead = 10;  // start code, type, format, length

  std::string picture() {
    const bool key = keyIsNext_ || chance(6);
    keyIsNext_ = false;
    restFormat_ = format_;
    std::string bytes(kHead + upTo(900), format_);
    const char head[] = {0, 0, 1, static_cast<char>(0xB6), static_cast<char>(key ? 0x00 : 0x40)};
    bytes.replace(0, sizeof head, head, sizeof head);
    storeLe32(&bytes[6], static_cast<std::uint32_t>(bytes.size()));
    return bytes;
  }

  std::mt19937 random_;
  char format_ = 1;
  bool keyIsNext_ = true;
  std::string rest_;  // of the picture under way
  char restFormat_ = 0;
};

TEST_F(EncoderStream, HeaderAndKeyFrameStayTogetherThrough1000RandomChanges) {
  FakePictures pictures(4711);
  const auto quiet = [this] { fake.advance(0.1); };  // while the inputs synchronise
  pictures.onStandard = [this] { changeStandard(); };
  fake.keepCalls(false);
  fake.onRead([&](int, char* buffer, std::size_t size) {
    fake.advance(pictures.upTo(33) / 1000.0);
    if (pictures.chance(20)) {
      pictures.standard();
      quiet();
    }
    const std::string piece = pictures.chunk(size);
    piece.copy(buffer, piece.size());
    return static_cast<long>(piece.size());
  });
  fake.onIoctl([&](int, unsigned long request, void* argument) {
    switch (request) {
      case kMpg430GetImgheader:
        if (pictures.chance(20)) pictures.standard();
        pictures.header().copy(static_cast<char*>(argument), kMpg430HeaderBytes);
        if (pictures.chance(20)) pictures.standard();
        return kMpg430HeaderBytes;
      case kMpg430SetMode:
      case kMpg430VideoSource:
        pictures.change(true);
        return 0;
      case kMpg430StreamStart:
        pictures.change(false);
        return 0;
      default:
        return 0;
    }
  });
  std::map<std::string, int> verdicts;
  fake.video2.onPublish(
      [&](const FakeFrame& one) { ++verdicts[FakePictures::wrong(one.payload)]; });
  TVideoSource source(args);
  int frames = 0;
  fake.video.onPublish([&](const FakeFrame&) {
    if (pictures.chance(8)) fake.video.setSlot(kSlotResolution, static_cast<int>(pictures.upTo(8)));
    if (pictures.chance(30)) fake.video.setSlot(kSlotSource, static_cast<int>(pictures.upTo(3)));
    if (pictures.chance(10))
      fake.video.setSlot(kSlotMode, pictures.chance(2) ? 0 : static_cast<int>(pictures.upTo(3)));
    if (pictures.chance(10)) fake.video.setSlot(kSlotFramerate, static_cast<int>(pictures.upTo(9)));
    if (pictures.chance(10))
      fake.video.setSlot(kSlotPackage, static_cast<int>(1 + pictures.upTo(3)));
    if (pictures.chance(20)) pictures.standard();
    if (pictures.chance(10)) aviWriter()->delRef(this);
    if (pictures.chance(3)) aviWriter()->addRef(this);
    if (pictures.chance(10)) fake.fails("os::read", static_cast<long>(pictures.upTo(3)) + 1);
    if (++frames == 5000) fake.stopNow();
  });
  source.run();
  fake.runBody(source);
  EXPECT_GE(pictures.changes, 1000);
  EXPECT_THAT(verdicts, ElementsAre(testing::Pair("", testing::Gt(300))));
}

}  // namespace
