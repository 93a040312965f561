// The stream header: when it is fetched, and which key frames go out with it.
#include <climits>
#include <csignal>

#include "tests/unit/capture/devices/mpg430_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const char* const kFetch = "ioctl(01200000)";

class StreamHeader : public Mpg430Fixture {
 protected:
  StreamHeader() { device.setResolution(7), forget(); }
  void forget() {
    fake.takeCalls();
    Device::fHeadr = false;
  }
  std::string text(int which = 0) {
    std::vector<char> memory(41, '?');  // all that there may be
    device.getUserdata(which, memory.data());
    return memory.data();
  }
  static std::string hex(unsigned char byte) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", byte);
    std::string result;
    for (int i = 0; i < kMpg430HeaderBytes; ++i) result += digits;
    return result;
  }
  void headerIs(char byte) { streamHeader.assign(kMpg430HeaderBytes, byte); }

  Device device;
};

TEST_F(StreamHeader, IsFetchedWhenItIsAskedForAfterAChange) {
  EXPECT_EQ(text(), "");
  EXPECT_THAT(takeRequests(), IsEmpty());
  Device::fHeadr = true;
  EXPECT_THAT(takeRequests(), IsEmpty());
  streamHeader = std::string("\x00\x00\x01\x00\x00\x00\x01 \xFF\xAB", 10) + std::string(10, '\x5A');
  const std::string expected =
      "00000100000001"
      "20ffab"
      "5a5a5a5a5a5a5a5a5a5a";
  EXPECT_EQ(text(), expected);
  EXPECT_THAT(takeRequests(), ElementsAre(kFetch));
  EXPECT_EQ(Device::fHeadr, false);
  EXPECT_EQ(TMpg430::header, expected);
}

TEST_F(StreamHeader, StaysTheSameUntilSomethingChanges) {
  Device::fHeadr = true;
  headerIs('a');
  text();
  headerIs('b');
  for (int i = 0; i < 10; ++i) EXPECT_EQ(text(), hex('a'));
  const std::function<void()> changes[] = {
      [this] { device.enableStream(1); }, [this] { device.enableStream(0); },
      [this] { device.setSource(1); }, [this] { device.setResolution(2); },
      [this] { changeStandard(); }};
  char byte = 'c';
  for (const auto& change : changes) {
    headerIs(byte);
    change();
    EXPECT_EQ(TMpg430::header, hex(static_cast<unsigned char>(byte == 'c' ? 'a' : byte - 1)));
    EXPECT_EQ(text(), hex(static_cast<unsigned char>(byte)));
    ++byte;
  }
}

TEST_F(StreamHeader, OtherSettingsLeaveItAlone) {
  device.setCompression(5);
  device.setFramerate(5);
  device.setIpratio(5);
  device.setHue(5);
  chunks.assign(3, more(1));
  read(device);
  EXPECT_EQ(Device::fHeadr, false);
}

TEST_F(StreamHeader, OtherTextsAreEmptyAndAskNothing) {
  Device::fHeadr = true;
  for (const int which : {1, 2, 3, -1, INT_MAX}) EXPECT_EQ(text(which), "");
  EXPECT_EQ(Device::fHeadr, true);
  EXPECT_THAT(takeRequests(), IsEmpty());
}

TEST_F(StreamHeader, OfAnotherLengthIsToldOfAndUsed) {
  for (const int length : {19, 21, 0, 1, INT_MAX}) {
    fake.takeCalls();
    Device::fHeadr = true;
    results[kMpg430GetImgheader] = length;
    EXPECT_EQ(text(), hex('h')) << length;
    EXPECT_THAT(fake.callsWith("log "), ElementsAre("log 3 unexpected mp4 header size"));
    EXPECT_EQ(Device::fHeadr, false) << "until the next change";
  }
}

TEST_F(StreamHeader, IsZeroWhenItCantBeFetched) {
  Device::fHeadr = true;
  results[kMpg430GetImgheader] = -1;
  streamHeader = "";
  EXPECT_EQ(text(), hex(0));
  EXPECT_THAT(fake.callsWith("log "), ElementsAre("log 3 ioctl(MPG430_GET_IMGHEADER) fail",
                                                  "log 3 unexpected mp4 header size"));
  text();
  EXPECT_EQ(fake.count("ioctl("), 1);
}

TEST_F(StreamHeader, OfAResolutionOutsideTheTableIsToldOfAndFetched) {
  for (const int index : {-1, 11, 12, INT_MAX, INT_MIN}) {
    device.setResolution(index);
    fake.takeCalls();
    EXPECT_EQ(text(), hex('h'));
    EXPECT_THAT(fake.takeCalls(), ElementsAre("log 3 TMpg430::getStreamHeader() IPE", kFetch));
  }
  for (int index = 0; index < 11; ++index) {
    device.setResolution(index);
    text();
  }
  EXPECT_THAT(fake.callsWith("log "), IsEmpty());
}

TEST_F(StreamHeader, ARefusedResolutionLeavesIt) {
  results[kMpg430SetMode] = -1;
  device.setResolution(3);
  EXPECT_EQ(Device::fHeadr, false);
  EXPECT_EQ(device.resolution_, 7);
}

TEST_F(StreamHeader, TheSignalOnlySaysThatItIsDue) {
  const std::string before = TMpg430::header;
  changeStandard();
  EXPECT_EQ(Device::fHeadr, true);
  EXPECT_THAT(fake.takeCalls(), IsEmpty());
  EXPECT_EQ(TMpg430::header, before);
  EXPECT_EQ(Device::fImage, false);
  EXPECT_EQ(Device::lastType, 'P');
}

TEST_F(StreamHeader, AChangeWhileTheDriverAnswersIsNotLost) {
  headerIs('a');
  changeStandard();
  onRequest = [this](unsigned) {
    onRequest = nullptr;
    changeStandard();
  };
  EXPECT_EQ(text(), hex('a'));
  EXPECT_EQ(Device::fHeadr, true);
  headerIs('b');
  EXPECT_EQ(text(), hex('b'));
  EXPECT_EQ(Device::fHeadr, false);
}

// Key frames on their way to recorders. The header's byte says of which format the driver is, the
// picture's bytes of which format it is.
class KeyFrameHeader : public StreamHeader {
 protected:
  KeyFrameHeader() {
    device.setPackage(1);
    format('1');
    text();
    fake.takeCalls();
    aviWriter()->addRef(this);
  }
  ~KeyFrameHeader() override { aviWriter()->delRef(this); }

  void format(char now) {
    headerIs(now);
    Device::fHeadr = true;
  }
  // One frame of one chunk, as the capture thread reads it.
  void pass(Chunk chunk) {
    chunks = {std::move(chunk)};
    read(device);
    text();
  }
  // Publishes what is gathered.
  void flush() { pass(predicted(5)); }

  // Header and pictures of what was published: "1:11" is whole.
  std::vector<std::string> published() const {
    std::vector<std::string> result;
    for (const FakeFrame& one : fake.video2.frames()) {
      const std::string& bytes = one.payload;
      std::string pictures = bytes.substr(0, 1) + ":";
      EXPECT_EQ(bytes.substr(0, 20), std::string(20, bytes[0]));
      for (std::size_t at = 20; at < bytes.size(); ++at)
        if (std::isdigit(bytes[at]) != 0) pictures += bytes[at];
      result.push_back(pictures);
    }
    return result;
  }
};

TEST_F(KeyFrameHeader, AKeyFrameGoesOutWithTheHeader) {
  pass(key(6, '1'));
  pass(more(1, '1'));
  EXPECT_THAT(published(), IsEmpty());
  flush();
  EXPECT_THAT(published(), ElementsAre("1:11"));
  EXPECT_THAT(takeRequests(), IsEmpty());
}

TEST_F(KeyFrameHeader, AKeyFrameBegunAfterTheChangeHasTheNewHeader) {
  format('2');
  pass(key(6, '2'));
  flush();
  EXPECT_THAT(published(), ElementsAre("2:2"));
}

TEST_F(KeyFrameHeader, AKeyFrameThatTheChangeFollowsHasTheOldHeader) {
  pass(key(6, '1'));
  format('2');
  pass(key(6, '2'));
  flush();
  EXPECT_THAT(published(), ElementsAre("1:1", "2:2"));
}

TEST_F(KeyFrameHeader, AKeyFrameThatAChangeInterruptsIsNotPublished) {
  pass(key(6, '1'));
  format('2');
  pass(more(1, '1'));
  flush();
  EXPECT_THAT(published(), IsEmpty());
  pass(key(6, '2'));
  flush();
  EXPECT_THAT(published(), ElementsAre("2:2"));
}

TEST_F(KeyFrameHeader, AChangeThatLeavesTheHeaderLeavesTheKeyFrame) {
  pass(key(6, '1'));
  format('1');
  pass(more(1, '1'));
  flush();
  EXPECT_THAT(published(), ElementsAre("1:11"));
}

TEST_F(KeyFrameHeader, AKeyFrameReadWhileTheFormatChangedIsNotPublished) {
  pass({key(6, '?'), 0, [this] { format('2'); }});
  flush();
  EXPECT_THAT(published(), IsEmpty());
  pass(key(6, '2'));
  flush();
  EXPECT_THAT(published(), ElementsAre("2:2"));
}

TEST_F(KeyFrameHeader, AKeyFrameThatIsCompleteInItsOwnFrameHasItsHeader) {
  device.setPackage(3);
  format('2');
  chunks = {key(6, '2'), predicted(5), key(6, '2')};
  read(device);
  EXPECT_THAT(published(), ElementsAre("2:2"));
  EXPECT_THAT(takeRequests(), ElementsAre(kFetch));
  text();
  EXPECT_THAT(takeRequests(), IsEmpty());
}

TEST_F(KeyFrameHeader, TwoChangesInOneFrameKeepEachToItsOwn) {
  device.setPackage(3);
  format('2');
  chunks = {key(6, '2'), {predicted(5), 0, [this] { format('3'); }}, key(6, '3')};
  read(device);
  text();
  device.setPackage(1);
  flush();
  EXPECT_THAT(published(), ElementsAre("2:2", "3:3"));
}

TEST_F(KeyFrameHeader, AKeyFrameWhoseHeaderChangesWhileItIsFetchedIsNotPublished) {
  for (const char now : {'2', '1'}) {  // also when the old header is back
    format('x');
    onRequest = [this, now](unsigned) {
      onRequest = nullptr;
      format(now);
    };
    pass(key(6, 'x'));
    flush();
    EXPECT_THAT(published(), IsEmpty());
  }
}

// The driver has changed when it is asked, and its signal comes while it answers.
TEST_F(KeyFrameHeader, AKeyFrameWhoseHeaderHasChangedWhenItIsFetchedIsNotPublished) {
  format('x');
  onRequest = [](unsigned) { Device::fHeadr = true; };
  pass({key(6, 'x'), 0, [this] { headerIs('2'); }});
  onRequest = nullptr;
  flush();
  EXPECT_THAT(published(), IsEmpty());
}

// One change was noted already, and the key frame may be from before the other one.
TEST_F(KeyFrameHeader, AKeyFrameReadWhileTheFormatChangedOnceMoreIsNotPublished) {
  format('x');
  pass({key(6, 'x'), 0, [this] { format('2'); }});
  flush();
  EXPECT_THAT(published(), IsEmpty());
  pass(key(6, '2'));
  flush();
  EXPECT_THAT(published(), ElementsAre("2:2"));
}

TEST_F(KeyFrameHeader, TheHeaderStaysDueUntilItIsFetched) {
  const struct {
    int mode;
    Chunk chunk;
  } cases[] = {{0, predicted(5)}, {0, more(1, '1')}, {2, key(6, '1')}, {2, predicted(5)}};
  for (const auto& one : cases) {
    device.setMode(one.mode);
    Device::fHeadr = true;
    fake.fails("os::read", 2);
    chunks = {one.chunk};
    read(device);
    EXPECT_EQ(Device::fHeadr, true);
  }
}

TEST_F(KeyFrameHeader, WithoutRecordersTheHeaderWaitsForTheText) {
  aviWriter()->delRef(this);
  format('2');
  chunks = {key(6, '2')};
  read(device);
  EXPECT_THAT(takeRequests(), IsEmpty());
  text();
  EXPECT_THAT(takeRequests(), ElementsAre(kFetch));
}

TEST_F(KeyFrameHeader, ARecorderThatComesInTheMiddleWaitsForTheNext) {
  aviWriter()->delRef(this);
  format('2');
  pass(key(6, '2'));
  aviWriter()->addRef(this);
  pass(more(1, '2'));
  flush();
  EXPECT_THAT(published(), IsEmpty());
  pass(key(6, '2'));
  flush();
  EXPECT_THAT(published(), ElementsAre("2:2"));
}

TEST_F(KeyFrameHeader, OnlyModeZeroHasKeyFrames) {
  for (const int mode : {1, 2, 3, 7}) {
    device.setMode(mode);
    pass(key(6, '1'));
    pass(predicted(5));
  }
  EXPECT_EQ(fake.video2.published(), 0);
  device.setMode(0);
  pass(key(6, '1'));
  flush();
  EXPECT_THAT(published(), ElementsAre("1:1"));
}

TEST_F(KeyFrameHeader, AKeyFrameIsWholeInModeZeroOrNotPublished) {
  for (const auto& passed : {key(6, '1'), more(1, '1'), predicted(5)}) {
    pass(key(6, '1'));
    device.setMode(2);
    pass(passed);
    device.setMode(0);
    pass(more(1, '1'));
    flush();
    EXPECT_THAT(published(), IsEmpty());
  }
  pass(key(6, '1'));
  device.setMode(2);
  device.setMode(0);
  flush();
  EXPECT_THAT(published(), ElementsAre("1:1")) << "nothing has passed by";
}

TEST_F(KeyFrameHeader, AStreamThatIsStoppedLeavesNothingHalf) {
  pass(key(6, '1'));
  device.enableStream(0);
  device.enableStream(1);
  pass(more(1, '1'));
  flush();
  EXPECT_THAT(published(), IsEmpty());
}

TEST_F(KeyFrameHeader, AKeyFrameHasTheTimeOfItsOwnFirstRead) {
  fake.advance(1.5);
  TDateTime begun;
  begun.set();
  pass({key(6, '1'), 0.5});
  pass({more(1, '1'), 2});
  pass({predicted(5), 2});
  EXPECT_EQ(fake.video2.last().time, begun);
}

TEST_F(KeyFrameHeader, FailedReadsNeverReachTheWriter) {
  fake.fails("os::read", 3);
  pass(key(6, '1'));
  fake.fails("os::read", 2);
  pass(more(1, '1'));
  flush();
  EXPECT_THAT(published(), ElementsAre("1:11"));
  EXPECT_EQ(fake.logged("TAviWriter::write() IPE"), 0);
}

}  // namespace
