// The recorder on a Samba share that is full.
#include "tests/unit/record/smb_fixture.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class SmbRoom : public SmbFixture {
 protected:
  SmbRoom() { fake.recordings.capacity(1000); }
  static std::string fullMessage() {
    return "log 2 no room on the share: error " + std::to_string(ENOSPC);
  }
  std::vector<std::string> removed() const {
    std::vector<std::string> result = fake.callsWith("system(rm");
    for (const std::string& call : fake.callsWith("unlink(")) result.push_back(call);
    return result;
  }
  // A frame each 0.1 s from `first` on that needs a tenth of the share.
  void tenths(double first, const std::string& types) {
    for (std::size_t i = 0; i < types.size(); ++i)
      at(first + static_cast<double>(i) * 0.1,
         {std::string(1, types[i]), std::string(100, 'x'), "", 0});
  }
};

TEST_F(SmbRoom, OldestDayGoesFirst) {
  fake.recordings.put("/smb/camera/20240601/100000.avi", 400);
  fake.recordings.put("/smb/camera/20240602/100000.avi", 400);
  fake.recordings.put("/smb/camera/holiday/100000.avi", 0);
  fake.recordings.put("/smb/camera/2024060/100000.avi", 0);
  tenths(0.1, "IPPPPIPP");
  record(2);
  EXPECT_THAT(removed(), ElementsAre("system(rm -rf /smb/camera/20240601)"));
  // What found no room, and the rest of its file, is lost; the next key frame goes on.
  EXPECT_EQ("IP", types(smbFile("120000")));
  EXPECT_EQ("IPP", types(smbFile("120000-1")));
  EXPECT_TRUE(fake.recordings.exists("/smb/camera/20240602/100000.avi"));
  EXPECT_TRUE(fake.recordings.exists("/smb/camera/holiday/100000.avi"));
  EXPECT_THAT(failures(), IsEmpty());
}

TEST_F(SmbRoom, FileThatFindsNoRoomIsOpenedOnceMore) {
  set("Recycle", 2);  // any value but 0
  fake.recordings.put("/smb/camera/20240601/100000.avi", 1000);
  tenths(0.1, "IP");
  record(1);
  EXPECT_THAT(removed(), ElementsAre("system(rm -rf /smb/camera/20240601)"));
  EXPECT_THAT(opened(), SizeIs(2));
  EXPECT_EQ("IP", types(smbFile("120000")));
  EXPECT_THAT(failures(), IsEmpty());
}

TEST_F(SmbRoom, FolderThatFindsNoRoomIsMadeOnceMore) {
  fake.recordings.put("/smb/camera/20240601/100000.avi", 100);
  fake.failsWith("mkdir2", ENOSPC);
  fake.onCommand([this](const std::string&) {
    fake.works("mkdir2");
    return 0;
  });
  tenths(0.1, "IP");
  record(1);
  EXPECT_EQ("IP", types(smbFile("120000")));
  EXPECT_THAT(failures(), IsEmpty());
}

TEST_F(SmbRoom, OfTheCurrentDayAtMostTwoOldestFilesGo) {
  for (const char* const time : {"100000", "100500", "101000"})
    fake.recordings.put(smbFile(time), 300);
  tenths(0.1, "IPPIP");
  record(1);
  EXPECT_THAT(removed(), ElementsAre("unlink(" + smbFile("100000") + ")",
                                     "unlink(" + smbFile("100500") + ")"));
  EXPECT_TRUE(fake.recordings.exists(smbFile("101000")));
  EXPECT_TRUE(fake.recordings.exists(smbFile("120000")));
  EXPECT_EQ("IP", types(smbFile("120000-1")));
  EXPECT_THAT(failures(), IsEmpty());
}

TEST_F(SmbRoom, OnlyOtherFileGoesBeforeTheNextIsOpened) {
  fake.recordings.put(smbFile("100000"), 1000);
  tenths(0.1, "IP");
  record(1);
  EXPECT_THAT(removed(), ElementsAre("unlink(" + smbFile("100000") + ")"));
  EXPECT_EQ("IP", types(smbFile("120000")));
  EXPECT_THAT(failures(), IsEmpty());
}

// Its name came out other than it was asked for, since that was taken.
TEST_F(SmbRoom, FileThatIsBeingWrittenNeverGoes) {
  fake.recordings.put(smbFile("120000"), 500);
  tenths(0.1, "IPPPPPPPP");
  fake.at(0.95, [this] { recorder->stop(false); });
  record(3);
  EXPECT_THAT(removed(), ElementsAre("unlink(" + smbFile("120000") + ")"));
  EXPECT_EQ("IPPPP", types(smbFile("120000-1")));
}

TEST_F(SmbRoom, FileThatIsBeingWrittenStaysWhenThereIsNoOther) {
  tenths(0.1, "IPPPPPPPPPPPI");
  record(10);
  EXPECT_THAT(removed(), IsEmpty());
  EXPECT_EQ("IPPPPPPPPP", types(smbFile("120000")));
  EXPECT_THAT(failures(), ElementsAre("log_event(526)", fullMessage()));
  EXPECT_EQ(0, fake.recordings.openCount());
}

TEST_F(SmbRoom, WithoutRecyclingNothingIsRemovedAndTheRecorderRests) {
  set("Recycle", 0);
  fake.recordings.put("/smb/camera/20240601/100000.avi", 800);
  tenths(0.1, "IPPPI");
  fake.at(50, [this] { EXPECT_EQ(0, fake.recordings.openCount()) << "while it rests"; });
  record(100);
  EXPECT_THAT(removed(), IsEmpty());
  EXPECT_THAT(failures(), ElementsAre("log_event(526)", fullMessage()));
  EXPECT_EQ("IP", types(smbFile("120000")));
  const std::vector<long> pauses = fake.pausesUs();
  EXPECT_GT(std::count(pauses.begin(), pauses.end(), 2000000), 40);
}

TEST_F(SmbRoom, RestBeginsAlsoWhenNoFileCanBeOpened) {
  set("Recycle", 0);
  fake.recordings.capacity(0);
  tenths(0.1, "IPI");
  record(100);
  EXPECT_THAT(opened(), SizeIs(1));
  EXPECT_THAT(failures(), ElementsAre("log_event(526)", fullMessage()));
}

TEST_F(SmbRoom, RestEndsAtOnceWhenTheRecorderIsStopped) {
  set("Recycle", 0);
  fake.recordings.capacity(0);
  at(0.1, {});
  make();
  recorder->start(1000);
  std::int64_t asked = 0;
  fake.at(51.3, [&] {
    asked = fake.clock.monotonicUs();
    fake.stopNow();
  });
  runBodies(*recorder);
  EXPECT_GT(asked, 0);
  EXPECT_LT(fake.clock.monotonicUs() - asked, 20000);
}

TEST_F(SmbRoom, StartAfterTheRestRecordsAgain) {
  set("Recycle", 0);
  fake.recordings.capacity(0);
  at(0.1, {});
  record(10);
  fake.recordings.capacity(1000);
  at(0.1, {});
  record(1);
  EXPECT_THAT(fake.recordings.paths(), SizeIs(1));
}

TEST_F(SmbRoom, FileThatFindsNoRoomToBeClosedDoesNotEndTheRecording) {
  set("MaxSize", 1);
  fake.recordings.capacity(-1);
  fake.recordings.scale(1 << 20);
  fake.recordings.put("/smb/camera/20240601/100000.avi", 100);
  fake.failsWith("aviClose", ENOSPC);
  fake.onCommand([this](const std::string&) {
    fake.works("aviClose");
    return 0;
  });
  sequence(0.1, 1, "III");
  record(4);
  EXPECT_THAT(failures(), ElementsAre("log_event(525)"));
  EXPECT_THAT(opened(), SizeIs(3));
  EXPECT_THAT(removed(), ElementsAre("system(rm -rf /smb/camera/20240601)"));
}

TEST_F(SmbRoom, SecondAttemptThatFindsNoRoomIsTheLast) {
  fake.recordings.put("/smb/camera/20240601/100000.avi", 1000);
  fake.failsWith("aviOpen", ENOSPC);
  tenths(0.1, "II");
  record(5);
  EXPECT_THAT(opened(), SizeIs(2));
  EXPECT_THAT(removed(), SizeIs(1));
  EXPECT_THAT(failures(), ElementsAre("log_event(526)", fullMessage()));
}

TEST_F(SmbRoom, CommandThatFailsIsReported) {
  for (const int status : {256, -1}) {
    fake.clearCalls();
    fake.recordings.put("/smb/camera/20240601/100000.avi", 1000);
    fake.onCommand([status](const std::string&) { return status; });
    at(0.1, {});
    record(5);
    EXPECT_THAT(failures(), ElementsAre("log 2 system(rm -rf /smb/camera/20240601) fail",
                                        "log_event(526)", fullMessage()));
  }
}

TEST_F(SmbRoom, OldestThatCannotBeFoundIsReported) {
  fake.recordings.put("/smb/camera/20240601/100000.avi", 1000);
  fake.failsWith("get_oldest_name", EIO);
  at(0.1, {});
  record(5);
  EXPECT_THAT(failures(), ElementsAre("log 2 get_oldest_name(/smb/camera) fail", "log_event(523)"));
  EXPECT_THAT(removed(), IsEmpty());
}

TEST_F(SmbRoom, OldestFileThatCannotBeFoundIsReported) {
  fake.recordings.put(smbFile("100000"), 900);
  tenths(0.1, "IP");
  fake.at(0.15, [this] {
    fake.onCall([this](const std::string& call) {
      if (call.compare(0, 7, "unlink(") == 0) fake.failsWith("get_oldest_name", EIO);
    });
  });
  record(5);
  EXPECT_THAT(failures(),
              ElementsAre("log 2 get_oldest_name(/smb/camera/20240603) fail", "log_event(524)"));
  fake.onCall(nullptr);
}

TEST_F(SmbRoom, FolderOfTheFileThatCannotBeToldIsReported) {
  fake.recordings.put("/smb/camera/20240601/100000.avi", 900);
  tenths(0.1, "IP");
  fake.at(0.15, [this] { fake.fails("get_folder"); });
  record(5);
  EXPECT_THAT(failures(), ElementsAre("log 2 get_folder(" + smbFile("120000") + ") fail",
                                      "log_event(526)", fullMessage()));
  EXPECT_THAT(removed(), IsEmpty());
}

TEST_F(SmbRoom, FileThatCannotBeRemovedIsReported) {
  fake.recordings.put(smbFile("100000"), 900);
  fake.failsWith("os::unlink", EACCES);
  tenths(0.1, "IP");
  record(5);
  EXPECT_THAT(failures(),
              ElementsAre("log 2 unlink(" + smbFile("100000") + ") fail", "log_event(524)"));
}

// Only the folder of a day is handed to the shell.
TEST_F(SmbRoom, NothingButADayReachesTheShell) {
  fake.failsWith("test_dir", 0);
  fake.failsWith("mkdir2", ENOSPC);
  for (const std::string name : {"100000.avi;reboot", "20240601;reboot.avi", "202406011.avi"}) {
    const std::string path = "/smb/camera/" + name;
    fake.recordings.put(path, 1000);
    at(0.1, {});
    record(5);
    EXPECT_EQ(0, fake.count("system("));
    EXPECT_THAT(failures(), Contains("log 2 system(rm -rf " + path + ") fail"));
    fake.recordings.removeTree(path);
  }
}

// A share of 64 MiB for weeks: what is there never exceeds it, and only the oldest goes.
TEST_F(SmbRoom, RecyclesForWeeks) {
  constexpr int kDays = 20;
  set("MaxSize", 4);
  fake.recordings.keepData(false);
  fake.recordings.scale(4096);
  fake.recordings.capacity(64 << 20);
  fake.setWallClock("2024-06-03 00:00:00");
  int frames = 0;
  std::string newest;
  make();
  fake.onPause([&](long) {
    fake.advance(300);
    push({frames % 3 == 0 ? "I" : "P", std::string(80, 'x'), "", 0});
    if (++frames == kDays * 288) fake.stopNow();
  });
  fake.onCall([&](const std::string& call) {
    EXPECT_NE(0, call.compare(0, 4, "log ")) << call;
    EXPECT_EQ(call.npos, call.find("unlink(" + newest + ")")) << "the file being written";
    if (call.compare(0, 8, "aviOpen(") == 0) newest = call.substr(8, call.size() - 9);
  });
  recorder->start(kDays * 2 * 86400);
  fake.keepCalls(false);
  runBodies(*recorder);
  fake.onPause(nullptr);
  fake.onCall(nullptr);
  EXPECT_EQ(kDays * 288, frames);
  const std::vector<std::string> files = fake.recordings.paths();
  EXPECT_GE(files.size(), 8U);
  EXPECT_LE(fake.recordings.used(), 64 << 20);
  EXPECT_GE(files.front(), "/smb/camera/20240621") << "only the last days are left";
}

}  // namespace
