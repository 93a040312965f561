// Pictures on USB storage.
#include "record/usb_recorder.h"

#include <cerrno>
#include <string>
#include <vector>

#include "tests/unit/record/record_fixture.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr int kCameraOnly = 1;  // descriptor
const char* const kFirst = "/usb/pics/20240603/120000.jpg";

class UsbRecorder : public RecordFixture {
 protected:
  UsbRecorder() { fake.video2.setDepth(2); }

  // Records for `seconds`, with a picture each 0.1 s. Returns true iff the recording went its whole
  // way; then it took about that long.
  bool record(long seconds) {
    const std::int64_t begin = fake.clock.monotonicUs();
    pictures(fake.video2, 0.1, 0.1, static_cast<double>(seconds) + 3);
    fake.clearCalls();
    recorder.start(seconds);
    runBodies(recorder);
    return fake.clock.monotonicUs() - begin > seconds * 1000000;
  }
  std::vector<std::string> failures() const {
    std::vector<std::string> all = fake.callsWith("log");
    for (const std::string& call : fake.callsWith("system(")) all.push_back(call);
    return all;
  }
  std::vector<std::string> stored() const {
    std::vector<std::string> paths;
    for (const std::string& path : fake.files.paths())
      if (path.compare(0, 4, "/usb") == 0) paths.push_back(path);
    return paths;
  }

  FakeCamera camera;
  TUsbRecorder recorder{&camera, "/usb", "pics", nullptr};
};

TEST_F(UsbRecorder, StoresEachPictureInAFileNamedByItsTime) {
  EXPECT_TRUE(record(2));
  EXPECT_THAT(stored(), ElementsAre(kFirst, "/usb/pics/20240603/120001.jpg",
                                    "/usb/pics/20240603/120002.jpg"));
  EXPECT_EQ(
      "\xFF\xD8"
      "100",
      fake.files.content(kFirst));
  EXPECT_THAT(failures(), IsEmpty());
  EXPECT_EQ(kCameraOnly, fake.files.openCount());
}

TEST_F(UsbRecorder, WithoutAFolderTheDaysAreOnTheStorageItself) {
  recorder.setFolder("");
  record(0);
  EXPECT_THAT(stored(), ElementsAre("/usb/20240603/120000.jpg"));
}

TEST_F(UsbRecorder, KeyFramesAreStoredAsAvi) {
  fake.at(0.1, [this] { fake.video2.push("header and key frame"); });
  recorder.start(0);
  runBodies(recorder);
  EXPECT_EQ("AVI:header and key frame", fake.files.content("/usb/pics/20240603/120000.avi"));
}

TEST_F(UsbRecorder, PictureIsLostWhileTheMountCannotBeAsked) {
  fake.fails("get_usb_mount_state", 2);
  EXPECT_TRUE(record(3));
  EXPECT_THAT(failures(),
              ElementsAre("log 2 get_usb_mount_state() fail", "log 2 get_usb_mount_state() fail"));
  EXPECT_THAT(stored(),
              ElementsAre("/usb/pics/20240603/120002.jpg", "/usb/pics/20240603/120003.jpg"));
}

TEST_F(UsbRecorder, StorageThatIsNotMountedEndsTheRecording) {
  fake.usbUnmounted();
  EXPECT_FALSE(record(3));
  EXPECT_THAT(failures(), ElementsAre("log_event(515)"));
  EXPECT_THAT(stored(), IsEmpty());
}

TEST_F(UsbRecorder, StorageFilledTo96PercentIsFull) {
  for (const int percent : {96, 97, 100}) {
    fake.usedPercent = percent;
    EXPECT_FALSE(record(3));
    EXPECT_THAT(failures(), ElementsAre("log_event(517)", "system(ptcmd BTONE=1 &)"));
    EXPECT_THAT(fake.calls(), Contains("log_event(517)"));
    EXPECT_THAT(stored(), IsEmpty());
    fake.advance(10);
  }
}

TEST_F(UsbRecorder, StorageFilledTo95PercentIsNot) {
  fake.usedPercent = 95;
  EXPECT_TRUE(record(0));
  EXPECT_THAT(failures(), IsEmpty());
  EXPECT_THAT(stored(), SizeIs(1));
}

TEST_F(UsbRecorder, SpaceThatCannotBeAskedIsFull) {
  fake.fails("get_free_space_percent");
  EXPECT_FALSE(record(3));
  EXPECT_THAT(failures(), ElementsAre("log_event(517)", "system(ptcmd BTONE=1 &)"));
}

TEST_F(UsbRecorder, AlertSoundsBeforeTheStorageIsReportedFull) {
  fake.usedPercent = 96;
  record(3);
  std::vector<std::string> order;
  for (const std::string& call : fake.calls())
    if (call == "log_event(517)" || call.compare(0, 7, "system(") == 0) order.push_back(call);
  EXPECT_THAT(order, ElementsAre("system(ptcmd BTONE=1 &)", "log_event(517)"));
}

TEST_F(UsbRecorder, FileThatCannotBeOpenedEndsTheRecording) {
  fake.files.readOnly();
  EXPECT_FALSE(record(3));
  EXPECT_THAT(failures(), ElementsAre("log_event(517)"));
}

TEST_F(UsbRecorder, FolderThatTriesToLeaveTheStorageStaysOnIt) {
  recorder.setFolder("../../etc");
  record(0);
  EXPECT_THAT(stored(), ElementsAre("/usb/20240603/120000.jpg"));
  EXPECT_EQ(1, fake.count("open2("));
}

TEST_F(UsbRecorder, PictureThatIsOnlyPartlyWrittenDoesNotEndTheRecording) {
  fake.files.spaceLeft(4);
  fake.at(0.5, [this] { fake.files.spaceLeft(-1); });
  EXPECT_TRUE(record(2));
  EXPECT_THAT(failures(), ElementsAre("log_event(517)"));
  EXPECT_EQ(
      "\xFF\xD8"
      "10",
      fake.files.content(kFirst));
  EXPECT_EQ(
      "\xFF\xD8"
      "1100",
      fake.files.content("/usb/pics/20240603/120001.jpg"));
  EXPECT_EQ(kCameraOnly, fake.files.openCount());
}

TEST_F(UsbRecorder, PictureThatIsWrittenInPiecesIsWhole) {
  fake.files.shortWrites(2);
  EXPECT_TRUE(record(0));
  EXPECT_THAT(failures(), IsEmpty());
  EXPECT_EQ(
      "\xFF\xD8"
      "100",
      fake.files.content(kFirst));
}

TEST_F(UsbRecorder, WriteThatFailsDoesNotEndTheRecording) {
  for (const int error : {EIO, EINTR, ENOSPC}) {
    fake.failsWith("os::write", error);
    EXPECT_TRUE(record(1));
    EXPECT_THAT(failures(), ElementsAre("log_event(517)", "log_event(517)")) << error;
    EXPECT_EQ(kCameraOnly, fake.files.openCount());
    fake.advance(10);
  }
}

TEST_F(UsbRecorder, WriteThatTakesNothingIsAFailure) {
  fake.files.shortWrites(0);
  EXPECT_TRUE(record(0));
  EXPECT_THAT(failures(), ElementsAre("log_event(517)"));
}

// A picture that was stored before stays whole, and the next look finds the storage gone.
TEST_F(UsbRecorder, StoragePulledWhileWritingEndsTheRecordingAtTheNextPicture) {
  fake.at(1, [this] { fake.failsWith("os::write", EIO); });
  fake.onCall([this](const std::string& call) {
    if (call == "open2(/usb/pics/20240603/120001.jpg)") fake.usbUnmounted();
  });
  EXPECT_FALSE(record(10));
  EXPECT_THAT(failures(), ElementsAre("log_event(517)", "log_event(515)"));
  EXPECT_EQ(
      "\xFF\xD8"
      "100",
      fake.files.content(kFirst));
  EXPECT_EQ(kCameraOnly, fake.files.openCount());
  fake.onCall(nullptr);
}

TEST_F(UsbRecorder, ExistingFileIsWrittenOverButNotCut) {
  fake.files.put(kFirst, "something longer");
  record(0);
  EXPECT_EQ(
      "\xFF\xD8"
      "100hing longer",
      fake.files.content(kFirst));
}

}  // namespace
