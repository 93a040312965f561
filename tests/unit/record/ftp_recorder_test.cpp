// Uploads to an FTP server.
#include "record/ftp_recorder.h"

#include <cstring>
#include <string>
#include <vector>

#include "tests/unit/record/record_fixture.h"

namespace {

using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

constexpr double kStopS = 0.5;
const char* const kLogin = "ftpOpenSession(ftp.example.net,21,camera)";

class FtpRecorder : public RecordFixture {
 protected:
  FtpRecorder() {
    fake.video2.setDepth(2);
    set(fake.delivery.ftp.folder, "pics");
    set(fake.delivery.ftp.prefix, "cam");
  }

  template <std::size_t size>
  static void set(char (&field)[size], const std::string& text) {
    ASSERT_LT(text.size(), size);
    std::strcpy(field, text.c_str());
  }
  TFtpServer& settings() { return fake.delivery.ftp; }
  void make() { recorder = std::make_unique<TFtpRecorder>(&camera); }

  // Records for `seconds`, with a picture each 0.1 s. Returns how often the body ran.
  int record(long seconds) {
    if (recorder == nullptr) make();
    pictures(fake.video2, 0.1, 0.1, static_cast<double>(seconds) + 3);
    fake.clearCalls();
    recorder->start(seconds);
    return runBodies(*recorder);
  }
  // As record(), for what goes wrong: with the time that it took.
  double secondsOf(long seconds) {
    const std::int64_t begin = fake.clock.monotonicUs();
    record(seconds);
    return static_cast<double>(fake.clock.monotonicUs() - begin) / 1e6;
  }
  std::vector<std::string> names() const {
    std::vector<std::string> result;
    for (const auto& upload : fake.delivery.uploads()) result.push_back(upload.name);
    return result;
  }
  std::vector<std::string> ftpCalls() const { return fake.callsWith("ftp"); }
  std::vector<std::string> failures() const {
    std::vector<std::string> all = fake.callsWith("log");
    return all;
  }

  FakeCamera camera;
  std::unique_ptr<TFtpRecorder> recorder;
};

TEST_F(FtpRecorder, UploadsEachPictureUnderFolderDayPrefixAndTime) {
  record(2);
  EXPECT_THAT(names(), ElementsAre("pics/20240603/cam120000.jpg", "pics/20240603/cam120001.jpg",
                                   "pics/20240603/cam120002.jpg"));
  EXPECT_EQ(
      "\xFF\xD8"
      "100",
      fake.delivery.uploads()[0].data);
  EXPECT_THAT(failures(), IsEmpty());
}

TEST_F(FtpRecorder, WithoutFolderAndPrefixTheDaysAreInTheLoginDirectory) {
  set(settings().folder, "");
  set(settings().prefix, "");
  record(0);
  EXPECT_THAT(names(), ElementsAre("20240603/120000.jpg"));
}

TEST_F(FtpRecorder, KeyFramesAreUploadedAsAvi) {
  make();
  fake.at(0.1, [this] { fake.video2.push("header and key frame"); });
  recorder->start(0);
  runBodies(*recorder);
  ASSERT_THAT(names(), ElementsAre("pics/20240603/cam120000.avi"));
  EXPECT_EQ("AVI:header and key frame", fake.delivery.uploads()[0].data);
}

TEST_F(FtpRecorder, LogsInUploadsAndLogsOut) {
  settings().port = 2121;
  settings().option = kFtpActive;
  record(0);
  EXPECT_THAT(ftpCalls(),
              ElementsAre("ftpOpenSession(ftp.example.net,2121,camera)",
                          "ftpTransfer(pics/20240603/cam120000.jpg,5,1)", "ftpCloseSession()"));
  EXPECT_EQ("secret", fake.delivery.password());
  EXPECT_EQ(0, fake.delivery.openSessions);
}

TEST_F(FtpRecorder, WithoutAUsersNameLogsInAsAnonymous) {
  set(settings().user, "");
  record(0);
  EXPECT_TRUE(fake.called("ftpOpenSession(ftp.example.net,21,anonymous)"));
}

TEST_F(FtpRecorder, SettingsThatCannotBeReadAreReportedAndNoServerIsKnown) {
  fake.fails("get_ftp_server");
  make();
  EXPECT_THAT(fake.callsWith("log"), ElementsAre("log 2 get_ftp_server() fail"));
  fake.fails("ftpOpenSession");
  record(0);
  EXPECT_THAT(ftpCalls(), ElementsAre("ftpOpenSession(,0,anonymous)"));
  EXPECT_THAT(failures(), ElementsAre("log_event(512)"));
}

TEST_F(FtpRecorder, LoginThatFailsKeepsTheRecordingFromStarting) {
  fake.fails("ftpOpenSession", 1);
  EXPECT_LT(secondsOf(5), 0.01);
  EXPECT_THAT(ftpCalls(), ElementsAre(kLogin));
  EXPECT_THAT(failures(), ElementsAre("log_event(512)"));
  EXPECT_FALSE(aviWriter()->getRef());
  EXPECT_FALSE(jpgWriter()->getRef());
  record(0);  // the next start tries again
  EXPECT_THAT(names(), SizeIs(1));
}

TEST_F(FtpRecorder, StartDuringALoginThatFailsIsNotLost) {
  make();
  fake.fails("ftpOpenSession", 1);
  bool again = false;
  fake.onCall([&](const std::string& call) {
    if (call != kLogin || again) return;
    again = true;
    recorder->start(0);
  });
  EXPECT_EQ(2, record(5));
  fake.onCall(nullptr);
  EXPECT_THAT(failures(), ElementsAre("log_event(512)"));
  EXPECT_THAT(names(), SizeIs(1));
}

TEST_F(FtpRecorder, UploadThatFailsEndsTheRecordingAndLogsOut) {
  make();
  fake.at(1, [this] { fake.fails("ftpTransfer"); });
  EXPECT_LT(secondsOf(10), 3);
  EXPECT_THAT(failures(), ElementsAre("log_event(512)"));
  EXPECT_THAT(names(), SizeIs(1));
  EXPECT_EQ("ftpCloseSession()", ftpCalls().back());
  EXPECT_EQ(0, fake.delivery.openSessions);
}

TEST_F(FtpRecorder, LoginAndLogoutFailBelowZeroAndAnUploadWithAnythingElseThanZero) {
  fake.delivery.success = 1;
  record(0);
  EXPECT_THAT(names(), SizeIs(1));
  EXPECT_THAT(failures(), IsEmpty());
  fake.delivery.failure = 1;
  fake.fails("ftpTransfer");
  record(5);
  EXPECT_THAT(failures(), ElementsAre("log_event(512)"));
}

TEST_F(FtpRecorder, LogoutThatFailsIsReportedOnly) {
  fake.fails("ftpCloseSession");
  record(1);
  EXPECT_THAT(failures(), ElementsAre("log 2 ftpCloseSession() fail"));
  EXPECT_THAT(names(), SizeIs(2));
  fake.works("ftpCloseSession");
  record(0);
  EXPECT_THAT(names(), SizeIs(3));
}

TEST_F(FtpRecorder, EachRecordingHasASessionOfItsOwn) {
  record(1);
  record(0);
  EXPECT_EQ(2, fake.delivery.loginCount);
  EXPECT_EQ(0, fake.delivery.openSessions);
}

TEST_F(FtpRecorder, StartDuringARecordingProlongsItInTheSameSession) {
  make();
  fake.at(0.5, [this] { recorder->start(2); });
  record(1);
  EXPECT_EQ(1, fake.delivery.loginCount);
  EXPECT_THAT(names(), SizeIs(3));
}

// --- The frame writers

TEST_F(FtpRecorder, StaysRegisteredWithBothWritersAndIsGoneWithItself) {
  make();
  EXPECT_FALSE(aviWriter()->getRef());
  record(0);
  EXPECT_TRUE(aviWriter()->getRef());
  EXPECT_TRUE(jpgWriter()->getRef());
  record(0);
  recorder.reset();
  EXPECT_FALSE(aviWriter()->getRef());
  EXPECT_FALSE(jpgWriter()->getRef());
}

TEST_F(FtpRecorder, BodyThatWasForgottenEndsBeforeTheRecorderDeregisters) {
  record(0);
  recorder->start(10);
  fake.threadStuck("pthread");
  bool registered = false;
  fake.at(1, [&] { registered = aviWriter()->getRef() && jpgWriter()->getRef(); });
  recorder.reset();
  EXPECT_TRUE(registered) << "it would register again";
}

// --- Names

TEST_F(FtpRecorder, FixedNameIsThatOfEveryUpload) {
  settings().fixedName = 1;
  set(settings().fileName, "latest");
  record(2);
  EXPECT_THAT(names(), AllOf(SizeIs(3), Each(std::string("pics/latest.jpg"))));
}

TEST_F(FtpRecorder, FixedNameHasTheExtensionOfTheFrame) {
  settings().fixedName = -1;  // anything but 0
  set(settings().fileName, "latest");
  make();
  fake.at(0.1, [this] { fake.video2.push("key frame"); });
  recorder->start(0);
  runBodies(*recorder);
  EXPECT_THAT(names(), ElementsAre("pics/latest.avi"));
}

TEST_F(FtpRecorder, FixedNameBelowFiveCharactersIsNotUsed) {
  settings().fixedName = 1;
  set(settings().folder, "");
  record(0);
  EXPECT_THAT(names(), ElementsAre("20240603/cam120000.jpg")) << "four: .jpg";
  set(settings().fileName, "a");
  make();
  record(0);
  EXPECT_EQ("a.jpg", names().back()) << "five";
}

TEST_F(FtpRecorder, FixedNameThatIsSwitchedOffIsNotUsed) {
  set(settings().fileName, "latest");
  record(0);
  EXPECT_THAT(names(), ElementsAre("pics/20240603/cam120000.jpg"));
}

// 126 characters and the slash of the folder, the name, ".jpg": 255 fit.
TEST_F(FtpRecorder, FixedNameLongerThanItsBufferFailsTheStep) {
  settings().fixedName = 1;
  const std::string folder(126, 'f');
  const std::string name(124, 'n');
  set(settings().folder, folder);
  set(settings().fileName, name);
  record(0);
  EXPECT_THAT(names(), ElementsAre(folder + "/" + name + ".jpg"));
  set(settings().fileName, name + "n");
  make();
  EXPECT_LT(secondsOf(5), 1);
  EXPECT_THAT(failures(), ElementsAre("log 2 recording name longer than 255 bytes: " + folder +
                                      "/" + name + "n.jp"));
  EXPECT_THAT(names(), SizeIs(1));
  EXPECT_EQ(0, fake.delivery.openSessions);
}

TEST_F(FtpRecorder, LongestPartsOfADatedNameFit) {
  const std::string folder(126, 'f');
  const std::string prefix(64, 'p');
  set(settings().folder, folder);
  set(settings().prefix, prefix);
  record(0);
  EXPECT_THAT(names(), ElementsAre(folder + "/20240603/" + prefix + "120000.jpg"));
}

TEST_F(FtpRecorder, FolderAndPrefixThatAreTooLongAreReportedAndLeftOut) {
  const std::string folder(128, 'f');
  const std::string prefix(67, 'p');
  set(settings().folder, folder);
  set(settings().prefix, prefix);
  make();
  EXPECT_THAT(fake.callsWith("log"),
              ElementsAre("log 2 path too long: " + folder, "log 2 path too long: " + prefix));
  record(0);
  EXPECT_THAT(names(), ElementsAre("20240603/120000.jpg"));
}

TEST_F(FtpRecorder, FolderThatClimbsIsReportedAndLeftOut) {
  for (const char* folder : {"../other", "a/../../b", "a\nDELE b"}) {
    set(settings().folder, folder);
    fake.clearCalls();
    make();
    EXPECT_EQ(1, fake.logged(std::string("unsafe path refused: ") + folder));
    record(0);
    EXPECT_EQ(0U, names().back().find("20240603/cam")) << names().back();
    fake.advance(5);
  }
}

// --- Ends from outside

TEST_F(FtpRecorder, StopDuringTheLoginEndsItAtOnce) {
  fake.delivery.hangs("ftpOpenSession");
  fake.stopAfter(kStopS);
  EXPECT_LT(secondsOf(10), kStopS + 0.2);
  EXPECT_THAT(ftpCalls(), ElementsAre(kLogin));
  EXPECT_THAT(failures(), ElementsAre("log_event(512)"));
  EXPECT_FALSE(aviWriter()->getRef());
}

TEST_F(FtpRecorder, StopRightAfterTheLoginLogsOut) {
  make();
  fake.onCall([this](const std::string& call) {
    if (call == kLogin) fake.at(0.01, [this] { fake.stopNow(); });
  });
  record(10);
  fake.onCall(nullptr);
  EXPECT_THAT(ftpCalls(), ElementsAre(kLogin, "ftpCloseSession()"));
  EXPECT_EQ(0, fake.delivery.openSessions);
}

TEST_F(FtpRecorder, StopInTheMiddleOfAnUploadEndsItAtOnce) {
  fake.delivery.hangs("ftpTransfer");
  fake.stopAfter(kStopS);
  EXPECT_LT(secondsOf(10), kStopS + 0.2);
  EXPECT_THAT(ftpCalls(), ElementsAre(kLogin, HasSubstr("ftpTransfer("), "ftpCloseSession()"));
  EXPECT_THAT(failures(), Contains("log_event(512)"));
  EXPECT_EQ(0, fake.delivery.openSessions);
  EXPECT_FALSE(recorder->running());
}

TEST_F(FtpRecorder, ServerThatSaysNothingEndsTheRecordingAndTheNextStartTriesAgain) {
  fake.delivery.hangs("ftpTransfer");
  const double seconds = secondsOf(60);
  EXPECT_GT(seconds, 19);
  EXPECT_LT(seconds, 22);
  EXPECT_THAT(failures(), ElementsAre("log_event(512)"));
  fake.delivery.answers("ftpTransfer");
  record(0);
  EXPECT_THAT(names(), SizeIs(1));
}

TEST_F(FtpRecorder, StopDuringTheLogoutEndsItAtOnce) {
  fake.delivery.hangs("ftpCloseSession");
  fake.onCall([this](const std::string& call) {
    if (call == "ftpCloseSession()") fake.at(kStopS, [this] { fake.stopNow(); });
  });
  EXPECT_LT(secondsOf(0), kStopS + 1.5);
  fake.onCall(nullptr);
  EXPECT_THAT(failures(), ElementsAre("log 2 ftpCloseSession() fail"));
}

// --- What must not happen, however often

TEST_F(FtpRecorder, FailuresOfAllKindsLeaveNoSessionOpen) {
  make();
  const char* const kinds[] = {"ftpOpenSession", "ftpTransfer", "ftpCloseSession", "nothing"};
  constexpr int kRounds = 1000;
  for (int round = 0; round < kRounds; ++round) {
    const char* const kind = kinds[round % 4];
    fake.fails(kind);
    fake.at(0.1, [this] { fake.video2.push("\xFF\xD8picture"); });
    recorder->start(0);
    runBodies(*recorder);
    fake.works(kind);
    fake.clearCalls();
    ASSERT_EQ(0, fake.delivery.openSessions) << round;
    fake.advance(1);
  }
  EXPECT_EQ(kRounds / 2, fake.delivery.uploadCount);
}

TEST_F(FtpRecorder, PasswordIsInNoMessage) {
  for (const char* kind : {"nothing", "ftpOpenSession", "ftpTransfer", "ftpCloseSession"}) {
    fake.fails(kind);
    record(0);
    fake.works(kind);
    EXPECT_THAT(fake.calls(), Each(Not(HasSubstr("secret"))));
    fake.advance(10);
  }
}

}  // namespace
