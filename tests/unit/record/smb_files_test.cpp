// The files of the recorder on the Samba share: where they begin and end, and what they are called.
#include "tests/unit/record/smb_fixture.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

using SmbFiles = SmbFixture;

TEST_F(SmbFiles, EveryChunkOfEveryFrameIsWritten) {
  at(0.1, {"Iip", "ab", "", 0});
  at(0.2, {"pPP", "cd", "", 0});
  record(1);
  EXPECT_THAT(opened(), ElementsAre(smbFile("120000")));
  EXPECT_EQ("IippPP", types(smbFile("120000")));
  EXPECT_EQ("abababcdcdcd", fake.recordings.at(smbFile("120000")).data);
  EXPECT_THAT(failures(), IsEmpty());
}

TEST_F(SmbFiles, FramesThatComeFasterThanOneASecondAreAllTaken) {
  sequence(0.1, 0.05, "I" + std::string(39, 'P'));
  record(3);
  EXPECT_EQ("I" + std::string(39, 'P'), types(smbFile("120000")));
}

TEST_F(SmbFiles, RecordingHasNoClientAmongTheWriters) {
  at(0.1, {});
  fake.at(0.5, [] {
    EXPECT_FALSE(aviWriter()->getRef());
    EXPECT_FALSE(jpgWriter()->getRef());
  });
  record(1);
}

TEST_F(SmbFiles, OnlyAKeyFrameBeginsAFile) {
  sequence(0.1, 0.1, "PipPIP");
  record(1);
  EXPECT_EQ("IP", types(smbFile("120000")));
}

TEST_F(SmbFiles, JpegPictureBeginsAFile) {
  sequence(0.1, 0.1, "JJJ");
  record(1);
  EXPECT_EQ("JJJ", types(smbFile("120000")));
}

TEST_F(SmbFiles, FolderOfTheDayIsMadeWhenItIsMissing) {
  at(0.1, {});
  record(0);
  EXPECT_EQ(1, fake.count("mkdir2(/smb/camera/20240603)"));
  fake.clearCalls();
  number = 0;
  at(0.1, {});
  record(0);
  EXPECT_EQ(0, fake.count("mkdir2("));
}

TEST_F(SmbFiles, DefaultSizeIs640MiB) {
  fake.recordings.scale(1 << 20);
  sequence(0.1, 0.1, std::string(5, 'I'));
  for (int i = 0; i < 4; ++i)
    at(2 + i * 0.1, {i == 1 ? "P" : "I", std::string(i < 2 ? 320 : 1, 'x'), "", 0});
  record(3);
  // 20 MiB, then 640 more: the file ends with the first key frame behind them.
  EXPECT_EQ("IIIIIIP", types(smbFile("120000")));
  EXPECT_THAT(opened(), ElementsAre(smbFile("120000"), smbFile("120002")));
}

TEST_F(SmbFiles, FileOfJustTheLargestSizeGoesOn) {
  set("MaxSize", 1);
  fake.recordings.scale(1 << 18);
  sequence(0.1, 0.1, "IIPP");
  record(1);
  EXPECT_THAT(opened(), SizeIs(1));
}

TEST_F(SmbFiles, DefaultLengthIs1500Seconds) {
  set("DivideBy", 1);
  at(0.5, {});
  for (int second : {700, 1400, 1500}) at(second + 0.5, {});
  at(1501.4, {"P", "data", "", 0});
  at(1501.6, {});
  record(1600);
  EXPECT_THAT(opened(), ElementsAre(smbFile("120000"), smbFile("122501")));
  EXPECT_EQ("IIIIP", types(smbFile("120000")));
}

TEST_F(SmbFiles, LengthIsNoLimitWhenFilesEndBySize) {
  at(0.5, {});
  at(3000, {});
  record(3100);
  EXPECT_THAT(opened(), SizeIs(1));
}

TEST_F(SmbFiles, SizeIsNoLimitWhenFilesEndByLength) {
  set("DivideBy", -1);
  fake.recordings.scale(1 << 30);
  sequence(0.1, 0.1, "IIII");
  record(1);
  EXPECT_THAT(opened(), SizeIs(1));
}

TEST_F(SmbFiles, LargestSettingsDoNotOverflow) {
  set("MaxSize", std::numeric_limits<int>::max());
  fake.recordings.scale(std::int64_t{1} << 48);
  sequence(0.1, 0.1, "III");  // 2^50 bytes each, against 2^51 - 2^20
  record(1);
  EXPECT_THAT(opened(), SizeIs(2));
  EXPECT_EQ("II", types(smbFile("120000")));
}

TEST_F(SmbFiles, LargestLengthDoesNotOverflow) {
  set("DivideBy", 1);
  set("MaxLength", std::numeric_limits<int>::max());
  sequence(0.1, 3600, "IIII");
  record(20000);
  EXPECT_THAT(opened(), SizeIs(1));
}

TEST_F(SmbFiles, SizeAndLengthThatAreNoneGiveTheDefaults) {
  for (const int value : {0, -1, std::numeric_limits<int>::min()}) {
    fake.clearCalls();
    set("MaxSize", value);
    set("MaxLength", value);
    make();
    EXPECT_THAT(failures(), ElementsAre("log 2 /etc/sys.conf: [Samba] MaxLength is out of range: " +
                                            std::to_string(value),
                                        "log 2 /etc/sys.conf: [Samba] MaxSize is out of range: " +
                                            std::to_string(value)));
  }
  fake.recordings.scale(60 << 20);
  sequence(0.1, 0.1, "IIIII");  // 240 MiB each
  record(1);
  EXPECT_THAT(opened(), SizeIs(2));
}

TEST_F(SmbFiles, DebugWritesRawFiles) {
  set("Debug", 2);  // any value but 0
  sequence(0.1, 0.1, "IP");
  record(1);
  EXPECT_EQ("IP", types("/smb/camera/20240603/120000.raw"));
  EXPECT_EQ(1, fake.count("rawOpen(/smb/camera/20240603/120000.raw)"));
  recorder.reset();
  EXPECT_EQ(0, fake.count("avi"));
}

TEST_F(SmbFiles, RateIsThatOfTheRecording) {
  // 1500 frames over 100 s.
  for (int i = 0; i < 1500; ++i) at(0.01 + i * 100 / 1499.0, {i == 0 ? "I" : "P", "d", "", 0});
  record(101);
  EXPECT_EQ(15000, fake.recordings.at(smbFile("120000")).rate);
}

TEST_F(SmbFiles, RateIsCutNotRounded) {
  at(0.1, {"IPPPP", "d", "", 0});
  at(3.1, {"PPP", "d", "", 0});
  record(4);
  EXPECT_EQ(2666, fake.recordings.at(smbFile("120000")).rate);
}

TEST_F(SmbFiles, FileWithinOneSecondHasAllItsFramesInOne) {
  sequence(0.1, 0.1, "IPPPP");
  record(1);
  EXPECT_EQ(5000, fake.recordings.at(smbFile("120000")).rate);
}

TEST_F(SmbFiles, ContinuationsAreNoFrames) {
  at(0.1, {"Iii", "d", "", 0});
  at(0.2, {"Ppp", "d", "", 0});
  record(1);
  EXPECT_EQ(2000, fake.recordings.at(smbFile("120000")).rate);
}

TEST_F(SmbFiles, ChangedStreamHeaderEndsTheFile) {
  const std::string one = "000001b00100000001b50900000100000001200a";
  std::string other = one;
  other[5] = '2';
  at(0.1, {"I", "d", one, 0});
  at(0.2, {"P", "d", one, 0});
  at(1.1, {"P", "d", other, 0});
  at(1.2, {"I", "d", other, 0});
  record(2);
  EXPECT_THAT(opened(), ElementsAre(smbFile("120000"), smbFile("120001")));
  EXPECT_EQ("IP", types(smbFile("120000")));
  EXPECT_EQ("I", types(smbFile("120001")));
  EXPECT_EQ(std::string("\x00\x00\x01\xb0\x01", 5),
            fake.recordings.at(smbFile("120000")).header.substr(0, 5));
  EXPECT_EQ(std::string("\x00\x00\x02\xb0\x01", 5),
            fake.recordings.at(smbFile("120001")).header.substr(0, 5));
}

TEST_F(SmbFiles, HeaderTextThatIsShortOrHasNoEndLeavesNothingOfTheLastOne) {
  at(0.1, {"I", "d", std::string(48, 'f'), 0});
  at(1.1, {"I", "d", "1g", 0});
  at(2.1, {"I", "d", "", 0});
  record(3);
  EXPECT_EQ(std::string(20, '\xff'), fake.recordings.at(smbFile("120000")).header);
  EXPECT_EQ(std::string(20, '\0'), fake.recordings.at(smbFile("120001")).header);
  EXPECT_EQ(std::string(20, '\0'), fake.recordings.at(smbFile("120002")).header);
}

// Frame rate and mode are not in that byte alone: a relay or an input ends the file too.
TEST_F(SmbFiles, ChangedLowByteOfTheStatusWordEndsTheFile) {
  sequence(0.1, 0.1, "IP");
  fake.at(0.25, [this] { fake.video.setSlot(kSlotStatus, 0x1502); });
  sequence(1.1, 0.1, "PPI");
  fake.at(2, [this] { fake.video.setSlot(kSlotStatus, 0x7fff1e02); });
  sequence(2.1, 0.1, "PI");
  record(3);
  EXPECT_THAT(opened(), ElementsAre(smbFile("120000"), smbFile("120001")));
  EXPECT_EQ("IP", types(smbFile("120000")));
  EXPECT_EQ("IPI", types(smbFile("120001")));
}

TEST_F(SmbFiles, FileThatAChangeEndsHasTheRestOfItsLastPicture) {
  at(0.1, {"I", "d", "", 0});
  at(0.2, {"iiP", "d", "ff", 0});
  at(1.1, {"Ii", "d", "ff", 0});
  fake.at(1.15, [this] { fake.video.setSlot(kSlotStatus, 2); });
  at(1.2, {"i", "d", "ff", 0});
  at(1.3, {"pP", "d", "ff", 0});
  record(2);
  EXPECT_EQ("Iii", types(smbFile("120000")));
  EXPECT_EQ("Iii", types(smbFile("120001")));
}

TEST_F(SmbFiles, FileThatAChangeEndsGetsNothingFromBehindAGap) {
  at(0.1, {"I", "d", "", 0});
  at(0.2, {"i", "d", "ff", 1});
  record(1);
  EXPECT_EQ("I", types(smbFile("120000")));
}

TEST_F(SmbFiles, UntilItIsMeasuredTheRateIsThatOfTheSetting) {
  for (const int setting : {0xfe, 0x01, 0x5ff}) {
    fake.video.setSlot(kSlotStatus, setting);
    at(0.1, {});
    record(1);
    const FakeRecording file = fake.recordings.at(fake.recordings.paths().back());
    EXPECT_EQ((setting & 0xff) * 2000 + 2000, file.firstRate);
    EXPECT_EQ(1000, file.rate);
  }
}

TEST_F(SmbFiles, CodecThatChangesBeforeItsSettingEndsTheFile) {
  sequence(0.1, 0.1, "IP");
  sequence(1.1, 0.1, "JJ");
  sequence(2.1, 0.1, "PpIP");
  record(3);
  EXPECT_EQ("IP", types(smbFile("120000")));
  EXPECT_EQ("JJ", types(smbFile("120001")));
  EXPECT_EQ("IP", types(smbFile("120002")));
  EXPECT_THAT(failures(), IsEmpty());
}

TEST_F(SmbFiles, FilesOfOneSecondGetDifferentNames) {
  set("MaxSize", 1);
  fake.recordings.scale(1 << 20);
  sequence(0.1, 0.1, "III");
  record(1);
  EXPECT_THAT(opened(), ElementsAre(smbFile("120000"), smbFile("120000"), smbFile("120000")));
  EXPECT_THAT(fake.recordings.paths(),
              ElementsAre(smbFile("120000-1"), smbFile("120000-2"), smbFile("120000")));
}

class NameRecorder : public TSmbRecorder {
 public:
  NameRecorder() : TSmbRecorder("") {}
  std::string name(const TDateTime& time, const char* extension) {
    EXPECT_TRUE(onSetname(time, extension));
    return fileName();
  }
};

TEST_F(SmbFiles, NameIsMadeOnceASecond) {
  NameRecorder names;
  const std::uint32_t second = now().seconds();
  EXPECT_EQ(smbFile("120000"), names.name({second, 0}, "avi"));
  EXPECT_EQ(smbFile("120000"), names.name({second, 999999}, "other"));
  EXPECT_EQ("/smb/camera/20240603/120001.other", names.name({second + 1, 0}, "other"));
}

TEST_F(SmbFiles, FramesOfTheFirstSecondOfAllHaveAName) {
  NameRecorder names;
  EXPECT_EQ("/smb/camera/19700101/000000.avi", names.name({0, 0}, "avi"));
}

TEST_F(SmbFiles, FileIsInTheFolderOfItsOwnDay) {
  set("DivideBy", 1);
  set("MaxLength", 1);
  fake.setWallClock("2024-06-03 23:59:50");
  sequence(1, 60, "IIII");
  record(300);
  EXPECT_THAT(opened(),
              ElementsAre("/smb/camera/20240603/235951.avi", "/smb/camera/20240604/000151.avi"));
}

TEST_F(SmbFiles, DayOfRecordingIsSplitAsConfigured) {
  set("DivideBy", 1);
  fake.setWallClock("2024-06-03 00:00:00");
  fake.recordings.keepData(false);
  make();
  constexpr int kFrames = 86400 / 2;
  const SmbFrame key{"IPP", "data", "", 0};
  const SmbFrame more{"PPP", "data", "", 0};
  int frames = 0;
  fake.onPause([&](long) {  // each pass of the loop finds its frame
    fake.advance(1.99);
    if (frames < kFrames) push(frames % 5 == 0 ? key : more);
    if (++frames == kFrames + 5) fake.stopNow();
  });
  recorder->start(2 * 86400);
  fake.keepCalls(false);
  runBodies(*recorder);
  fake.onPause(nullptr);
  const std::vector<std::string> files = fake.recordings.paths();
  // A key frame each 10 s: files of 1510 s.
  EXPECT_THAT(files, SizeIs(86400 / 1510 + 1));
  std::int64_t bytes = 0;
  for (const std::string& file : files) {
    bytes += fake.recordings.at(file).size;
    EXPECT_NEAR(1500, fake.recordings.at(file).rate, 10) << file;
  }
  EXPECT_EQ(kFrames * 12, bytes) << "nothing is lost";
  EXPECT_EQ(0, fake.recordings.openCount());
}

}  // namespace
