// Mails with pictures and without.
#include "record/mail_recorder.h"

#include <cstring>
#include <string>
#include <vector>

#include "tests/fakes/fake_seam.h"
#include "tests/unit/record/record_fixture.h"

namespace {

using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

constexpr long kNoonS = 1717416000;  // the fixture's time, since 1970
constexpr double kStopS = 0.5;

class MailRecorder : public RecordFixture {
 protected:
  MailRecorder() { fake.video2.setDepth(2); }

  template <std::size_t size>
  static void set(char (&field)[size], const std::string& text) {
    ASSERT_LT(text.size(), size);
    std::strcpy(field, text.c_str());
  }
  TMailInfo& settings() { return fake.delivery.mail; }
  void make(const char* receiver = "", const char* subject = "door") {
    recorder = std::make_unique<TMailRecorder>(&camera, receiver, subject);
  }
  // Records for `seconds`, with a picture each 0.1 s. Returns how often the body ran.
  int record(long seconds = 0) {
    if (recorder == nullptr) make();
    pictures(fake.video2, 0.1, 0.1, static_cast<double>(seconds) + 3);
    fake.clearCalls();
    recorder->start(seconds);
    return runBodies(*recorder);
  }
  std::vector<FakeDelivery::Mail> mails() const { return fake.delivery.mails(); }
  FakeDelivery::Mail last() const {
    return mails().empty() ? FakeDelivery::Mail{} : mails().back();
  }
  std::vector<std::string> bodies() const {
    std::vector<std::string> result;
    for (const auto& mail : mails()) result.push_back(mail.body);
    return result;
  }
  std::vector<std::string> failures() const { return fake.callsWith("log"); }

  static std::string bodyAt(long seconds) {
    return "door\n\nat " + std::to_string(kNoonS + seconds);
  }

  FakeCamera camera;
  std::unique_ptr<TMailRecorder> recorder;
};

// --- With picture

TEST_F(MailRecorder, MailsOnePictureForADurationOfZero) {
  record();
  ASSERT_THAT(mails(), SizeIs(1));
  EXPECT_EQ("image/jpeg", last().type);
  EXPECT_EQ("20240603/120000.jpg", last().name);
  EXPECT_EQ(
      "\xFF\xD8"
      "100",
      last().data);
  EXPECT_EQ("admin@example.net", last().receiver);
  EXPECT_EQ("door", last().subject);
  EXPECT_EQ(bodyAt(0), last().body);
  EXPECT_THAT(failures(), IsEmpty());
}

TEST_F(MailRecorder, KeyFrameIsMailedAsVideo) {
  make();
  fake.at(0.1, [this] { fake.video2.push("header and key frame"); });
  recorder->start(0);
  runBodies(*recorder);
  ASSERT_THAT(mails(), SizeIs(1));
  EXPECT_EQ("video/avi", last().type);
  EXPECT_EQ("20240603/120000.avi", last().name);
  EXPECT_EQ("AVI:header and key frame", last().data);
}

TEST_F(MailRecorder, EachPictureOfALongerRecordingIsAMailWithTheTimeOfItsFrame) {
  record(2);
  EXPECT_THAT(bodies(), ElementsAre(bodyAt(0), bodyAt(1), bodyAt(2)));
}

TEST_F(MailRecorder, DeregistersWhenItHasMailed) {
  record();
  EXPECT_FALSE(aviWriter()->getRef());
  EXPECT_FALSE(jpgWriter()->getRef());
}

// --- Receiver, subject and login

TEST_F(MailRecorder, ReceiverOfTheEventGoesBeforeThatOfTheSettings) {
  make("guard@example.net, desk@example.net");
  record();
  EXPECT_EQ("guard@example.net, desk@example.net", last().receiver);
}

TEST_F(MailRecorder, WithoutAReceiverOfTheEventThatOfTheSettingsGetsIt) {
  for (const char* none : {"", static_cast<const char*>(nullptr)}) {
    make(none);
    record();
    EXPECT_EQ("admin@example.net", last().receiver);
    fake.advance(5);
  }
  EXPECT_THAT(mails(), SizeIs(2));
}

TEST_F(MailRecorder, ReceiverThatDoesNotFitGetsNothingAndNobodyElseDoes) {
  const std::string longest(128, 'a');
  make(longest.c_str());
  EXPECT_THAT(failures(), IsEmpty());
  record();
  EXPECT_EQ(longest, last().receiver);
  make((longest + "b").c_str());
  EXPECT_THAT(failures(),
              ElementsAre("log 2 mail receiver longer than 128 bytes: " + longest + "b"));
  record();
  EXPECT_EQ("", last().receiver);
}

TEST_F(MailRecorder, SubjectIsACopy) {
  char subject[] = "door";
  make("", subject);
  std::strcpy(subject, "gone");
  record();
  EXPECT_EQ("door", last().subject);
}

TEST_F(MailRecorder, SubjectIsCutTo127Bytes) {
  const std::string longest(127, 's');
  make("", (longest + "t").c_str());
  record();
  EXPECT_EQ(longest, last().subject);
  EXPECT_EQ(longest + "\n\nat " + std::to_string(kNoonS), last().body);
  EXPECT_THAT(failures(), IsEmpty());
}

TEST_F(MailRecorder, SubjectIsNeverCutInsideACharacter) {
  const std::pair<std::string, std::string> cases[] = {
      {"T\xC3\xBCr", "T\xC3\xBCr"},
      {"T\xC3\xBC", "T\xC3\xBC"},
      {"T\xC3", "T"},
      {"\xE2\x82\xAC", "\xE2\x82\xAC"},
      {"\xE2\x82", ""},
      {"\xE2", ""},
      {"\xF0\x9F\x9A\xAA", "\xF0\x9F\x9A\xAA"},
      {"x\xF0\x9F\x9A", "x"},
      {"x\xF0\x9F", "x"},
      {"x\xF0", "x"},
      {"x\x80\x80\x80\x80", "x\x80\x80\x80\x80"},  // no UTF-8: stays as it is
      {"", ""},
      {std::string(126, 's') + "\xC3\xBC", std::string(126, 's')},
      {std::string(125, 's') + "\xC3\xBC", std::string(125, 's') + "\xC3\xBC"}};
  for (const auto& [subject, sent] : cases) {
    make("", subject.c_str());
    record();
    EXPECT_EQ(sent, last().subject);
    fake.advance(5);
  }
}

TEST_F(MailRecorder, WithoutASubjectTheTextBeginsWithTwoLineFeeds) {
  for (const char* none : {"", static_cast<const char*>(nullptr)}) {
    make("", none);
    record();
    EXPECT_EQ("", last().subject);
    EXPECT_EQ(0U, last().body.find("\n\nat "));
    fake.advance(5);
  }
}

TEST_F(MailRecorder, WithoutLoginUserPasswordAndMethodAreEmpty) {
  set(settings().user, "camera");
  set(settings().password, "secret");
  set(settings().method, "PLAIN");
  record();
  EXPECT_EQ("", last().user + last().password + last().method);
  settings().login = 1;
  make();
  record();
  EXPECT_EQ("camera", last().user);
  EXPECT_EQ("secret", last().password);
  EXPECT_EQ("PLAIN", last().method);
  EXPECT_THAT(fake.calls(), Each(Not(testing::HasSubstr("secret"))));
}

TEST_F(MailRecorder, SettingsThatCannotBeReadAreReportedAndATextToNobodyIsTried) {
  fake.fails("get_mail_info");
  make();
  EXPECT_THAT(failures(), ElementsAre("log 2 get_mail_info() fail"));
  fake.fails("send_mail");
  record(5);
  EXPECT_THAT(fake.callsWith("send_mail"), ElementsAre("send_mail()"));
  EXPECT_THAT(failures(), ElementsAre("log_event(507)"));
}

// --- The text

TEST_F(MailRecorder, TextHasWhatIsLeftOf2048Bytes) {
  record();
  EXPECT_THAT(fake.callsWith("get_mail_body"),
              ElementsAre("get_mail_body(2042," + std::to_string(kNoonS) + ")"));
}

TEST_F(MailRecorder, WithoutAnyTextTheMailIsSentAllTheSame) {
  fake.fails("get_mail_body");
  record();
  ASSERT_THAT(mails(), SizeIs(1));
  EXPECT_FALSE(last().hasBody);
  EXPECT_THAT(last().data, Not(IsEmpty()));
  EXPECT_THAT(failures(), ElementsAre("log 3 get_mail_body() fail"));
}

TEST_F(MailRecorder, TextThatFailsIsReplacedByTheLastOneThatWasWhole) {
  make();
  fake.at(0.5, [this] { fake.fails("get_mail_body", 2); });
  record(3);
  EXPECT_THAT(bodies(), ElementsAre(bodyAt(0), bodyAt(0), bodyAt(0), bodyAt(3)));
  EXPECT_EQ(2, fake.logged("get_mail_body() fail"));
}

TEST_F(MailRecorder, LastTextIsKeptAcrossRecordings) {
  record();
  fake.fails("get_mail_body");
  fake.advance(100);
  record();
  EXPECT_THAT(bodies(), ElementsAre(bodyAt(0), bodyAt(0)));
}

// --- Failures

TEST_F(MailRecorder, MailThatCannotBeSentDoesNotEndTheRecording) {
  make();
  fake.at(0.5, [this] { fake.fails("send_mail", 2); });
  record(3);
  EXPECT_THAT(failures(), ElementsAre("log_event(507)", "log_event(507)"));
  EXPECT_THAT(bodies(), ElementsAre(bodyAt(0), bodyAt(3)));
}

TEST_F(MailRecorder, StopInTheMiddleOfAMailEndsItAtOnce) {
  fake.delivery.hangs("send_mail");
  for (const int attach : {0, 1}) {
    settings().attach = attach;
    make();
    const std::int64_t begin = fake.clock.monotonicUs();
    fake.stopAfter(kStopS);
    EXPECT_EQ(1, record(10));
    EXPECT_LT(fake.clock.monotonicUs() - begin, (kStopS + 0.2) * 1e6);
    EXPECT_THAT(failures(), ElementsAre("log_event(507)"));
    EXPECT_FALSE(recorder->running());
    fake.advance(15);
  }
}

// --- Text alone

class TextMail : public MailRecorder {
 protected:
  TextMail() {
    settings().attach = 0;
    make();
  }
};

TEST_F(TextMail, IsOnePerStartWithItsTimeAndNoPicture) {
  record(60);  // whatever the duration
  ASSERT_THAT(mails(), SizeIs(1));
  EXPECT_EQ("", last().type + last().data + last().name);
  EXPECT_EQ("door", last().subject);
  EXPECT_EQ(bodyAt(0), last().body);
  EXPECT_THAT(fake.pausesUs(), ElementsAre(1000000));
  EXPECT_FALSE(recorder->running());
  fake.advance(100);
  recorder->start(0);
  EXPECT_EQ(1, runBodies(*recorder));
  EXPECT_THAT(bodies(), ElementsAre(bodyAt(0), bodyAt(101)));
}

TEST_F(TextMail, CapturesNothing) {
  bool registered = false;
  fake.onPause([&](long) { registered = aviWriter()->getRef() || jpgWriter()->getRef(); });
  record(5);
  fake.onPause(nullptr);
  EXPECT_FALSE(registered);
  EXPECT_EQ(0, fake.count("i2avi"));
}

TEST_F(TextMail, ThatFailsIsReportedOnce) {
  fake.fails("send_mail");
  record(5);
  EXPECT_THAT(failures(), ElementsAre("log_event(507)"));
  fake.works("send_mail");
  record();
  EXPECT_THAT(mails(), SizeIs(1));
}

TEST_F(TextMail, StartDuringAMailIsTheNextOne) {
  fake.at(0.5, [this] { recorder->start(0); });
  EXPECT_EQ(2, record());
  EXPECT_THAT(bodies(), ElementsAre(bodyAt(0), bodyAt(0)));
}

TEST_F(TextMail, StartInTheBodysLastStepsIsNotLost) {
  for (const bool gone : {false, true}) {
    bool started = false;
    fake.onLeave([&](bool now) {
      if (now != gone || started) return;
      started = true;
      recorder->start(0);
    });
    const auto before = mails().size();
    EXPECT_EQ(2, record()) << gone;
    fake.onLeave(nullptr);
    EXPECT_THAT(mails(), SizeIs(before + 2)) << gone;
    fake.advance(5);
  }
}

TEST_F(TextMail, StartOnAnotherBufferDuringAMailIsTheNextOne) {
  fake.at(0.5, [this] {
    camera.mode = 1;
    recorder->start(0);
  });
  EXPECT_EQ(2, record());
  EXPECT_THAT(mails(), SizeIs(2));
  EXPECT_THAT(failures(), IsEmpty());
}

// A recorder whose body is asked to stop before it begins.
class StoppedRecorder : public TMailRecorder {
 public:
  using TMailRecorder::TMailRecorder;
  void execute() override {
    fake_seam::askHere();
    TMailRecorder::execute();
  }
};

TEST_F(TextMail, IsNotSentByABodyThatWasStoppedBeforeItBegan) {
  StoppedRecorder stopped(&camera, "", "door");
  stopped.start(0);
  EXPECT_EQ(1, runBodies(stopped));
  EXPECT_EQ(0, fake.count("send_mail("));
}

TEST_F(TextMail, StopTakesBackAStartThatCameDuringAMail) {
  fake.at(0.5, [this] {
    recorder->start(0);
    recorder->stop(false);
  });
  EXPECT_EQ(1, record());
  EXPECT_THAT(mails(), SizeIs(1));
}

}  // namespace
