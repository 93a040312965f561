// What the recorder on the Samba share makes of gaps, and of frames that lie.
#include <random>

#include "capture/chunk_trailers.h"
#include "record/passive_drop.h"
#include "tests/fakes/allocations.h"
#include "tests/fakes/copies.h"
#include "tests/unit/record/smb_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char kMessage[] = "stderr [vs] Another 320 frames dropped on samba recording\n";
constexpr char kUnsound[] = "log 2 frame without valid chunk trailers";

using SmbFrames = SmbFixture;

TEST_F(SmbFrames, AfterAGapNothingIsWrittenUntilTheNextKeyFrame) {
  number = 97;
  sequence(0.1, 0.1, "IPP");      // 98 to 100
  at(0.4, {"P", "data", "", 2});  // 103
  at(0.5, {"Pp", "data", "", 0});
  at(0.6, {"iI", "data", "", 0});
  at(0.7, {"P", "data", "", 0});
  record(1);
  EXPECT_EQ("IPPIP", types(smbFile("120000")));
  EXPECT_THAT(opened(), SizeIs(1)) << "a gap does not end the file";
}

TEST_F(SmbFrames, AfterAGapAJpegPictureIsWrittenAtOnce) {
  at(0.1, {"J", "data", "", 5});
  at(0.2, {"J", "data", "", 5});
  record(1);
  EXPECT_EQ("JJ", types(smbFile("120000")));
}

TEST_F(SmbFrames, DroppedChunkNumber321IsReported) {
  make();
  at(0.1, {"I", "d", "", 0});
  at(0.2, {std::string(200, 'P'), "d", "", 1});
  at(0.3, {std::string(120, 'p'), "d", "", 0});
  fake.at(0.4, [this] { EXPECT_EQ(0, fake.count("stderr")); });
  at(0.5, {"P", "d", "", 0});
  fake.at(0.6, [this] { EXPECT_EQ(1, fake.count("stderr")); });
  at(0.7, {std::string(200, 'P'), "d", "", 0});
  at(0.8, {std::string(120, 'P'), "d", "", 0});
  fake.at(0.9, [this] { EXPECT_EQ(1, fake.count("stderr")); });
  at(0.95, {"P", "d", "", 0});
  record(1);
  EXPECT_THAT(fake.callsWith("stderr"), ElementsAre(kMessage, kMessage));
}

TEST_F(SmbFrames, DroppedChunksCountWithoutAFileToo) {
  number = 5;
  at(0.1, {std::string(200, 'P'), "d", "", 0});
  at(0.2, {std::string(121, 'P'), "d", "", 0});
  record(1);
  EXPECT_THAT(opened(), IsEmpty());
  EXPECT_THAT(fake.callsWith("stderr"), ElementsAre(kMessage));
}

// A recorder that is handed its frames by the test.
class HandedRecorder : public TSmbRecorder {
 public:
  HandedRecorder() : TSmbRecorder("") {}
  using TSmbRecorder::onCapture;
};

TEST_F(SmbFrames, OfNoLengthAreNothing) {
  HandedRecorder handed;
  EXPECT_TRUE(handed.onCapture("", 0));
  EXPECT_TRUE(handed.onCapture("", -1));
  EXPECT_THAT(failures(), IsEmpty());
}

class SmbPassiveDrop : public RecordFixture {};

TEST_F(SmbPassiveDrop, BeginsWithTheFirstNumberThatIsNotTheNext) {
  TPassiveDrop drop;
  EXPECT_FALSE(drop.test(1));
  EXPECT_FALSE(drop.test(2));
  EXPECT_TRUE(drop.test(4));
  EXPECT_TRUE(drop.test(5)) << "until a key frame comes";
  drop.resume();
  EXPECT_FALSE(drop.test(6));
  EXPECT_TRUE(drop.test(6)) << "twice is a gap too";
  drop.resume();
  EXPECT_TRUE(drop.test(3));
}

TEST_F(SmbPassiveDrop, FirstNumberThatIsNotOneIsAGap) { EXPECT_TRUE(TPassiveDrop().test(100)); }

TEST_F(SmbPassiveDrop, NumbersMayWrap) {
  TPassiveDrop drop;
  drop.test(std::numeric_limits<std::int32_t>::max());
  drop.resume();
  EXPECT_FALSE(drop.test(std::numeric_limits<std::int32_t>::min()));
  drop.test(-1);
  drop.resume();
  EXPECT_FALSE(drop.test(0));
}

TEST_F(SmbPassiveDrop, CountsOnlyWhatIsDropped) {
  TPassiveDrop drop;
  drop.test(1);
  for (int i = 0; i < 1000; ++i) EXPECT_FALSE(drop.dropzone());
  EXPECT_EQ(0, fake.count("stderr"));
  drop.test(1);
  for (int i = 0; i < 320; ++i) EXPECT_TRUE(drop.dropzone());
  EXPECT_EQ(0, fake.count("stderr"));
  drop.dropzone();
  EXPECT_EQ(1, fake.count("stderr"));
}

// --- Frames that lie.

// A payload in memory of just its size, so that a look outside is noticed.
class SmbChunks : public testing::Test {
 protected:
  explicit SmbChunks(long bytes = 100) : largest(bytes), payload(new char[bytes]()) {}
  void trailer(int index, char type, char more, std::uint32_t length) {
    storeTrailer(payload.get() + largest - (index + 1) * kTrailerBytes, type, more, length);
  }
  bool sound(long length) const { return TChunkReader::sound(payload.get(), length, largest); }

  long largest;
  std::unique_ptr<char[]> payload;
};

TEST_F(SmbChunks, AreGivenInTheirOrder) {
  trailer(0, 'I', 'o', 10);
  trailer(1, 'i', 'o', 1);
  trailer(2, 'P', 'x', 71);  // up to the first trailer
  EXPECT_TRUE(sound(82));
  TChunkReader reader(payload.get(), 82, largest);
  TChunk chunk;
  ASSERT_TRUE(reader.next(&chunk));
  EXPECT_TRUE(chunk.type == 'I' && chunk.data == payload.get() && chunk.length == 10);
  EXPECT_FALSE(reader.complete());
  ASSERT_TRUE(reader.next(&chunk));
  EXPECT_TRUE(chunk.type == 'i' && chunk.data == payload.get() + 10 && chunk.length == 1);
  ASSERT_TRUE(reader.next(&chunk));
  EXPECT_TRUE(chunk.type == 'P' && chunk.data == payload.get() + 11 && chunk.length == 71);
  EXPECT_TRUE(reader.complete());
  EXPECT_FALSE(reader.next(&chunk));
}

TEST_F(SmbChunks, MayReachTheEndWithoutALastMark) {
  trailer(0, 'P', 'o', 10);
  EXPECT_TRUE(sound(10));
}

TEST_F(SmbChunks, WithoutTrailersAreNotSound) {
  EXPECT_FALSE(sound(10));
  std::memset(payload.get(), 0xff, 100);
  EXPECT_FALSE(sound(10));
  EXPECT_FALSE(sound(100));
}

TEST_F(SmbChunks, OfNoLengthOrTooLongAreNotSound) {
  for (const std::uint32_t length : {0U, 9U, 11U, 95U, 0x7fffffffU, 0x80000000U, 0xffffffffU}) {
    trailer(0, 'I', 'x', length);
    EXPECT_FALSE(sound(10)) << length;
  }
  trailer(0, 'I', 'x', 95);
  EXPECT_FALSE(sound(95)) << "reaches into its trailer";
  trailer(0, 'I', 'x', 94);
  EXPECT_TRUE(sound(94));
}

TEST_F(SmbChunks, OfUnknownTypeOrMarkAreNotSound) {
  for (const char* const marks : {"Qx", "\0x", "Iy", "I\0", "jx"}) {
    trailer(0, marks[0], marks[1], 10);
    EXPECT_FALSE(sound(10)) << marks;
  }
}

TEST_F(SmbChunks, WithoutEndAreNotSound) {
  for (int i = 0; i < 14; ++i) trailer(i, 'P', 'o', 1);
  EXPECT_FALSE(sound(40));
  EXPECT_TRUE(sound(14)) << "each is sound";
}

TEST_F(SmbChunks, ThatEndTooEarlyAreNotSound) {
  trailer(0, 'I', 'x', 9);
  trailer(1, 'i', 'x', 1);
  EXPECT_FALSE(sound(10));
}

TEST_F(SmbChunks, OfAnImpossibleLengthAreNotSound) {
  trailer(0, 'I', 'x', 10);
  for (const long length : {0L, -1L, 101L, std::numeric_limits<long>::max()})
    EXPECT_FALSE(sound(length));
  EXPECT_FALSE(TChunkReader::sound(payload.get(), 3, 5)) << "no room for a trailer";
  EXPECT_FALSE(TChunkReader::sound(payload.get(), 0, 0));
}

// Whatever the trailers say, the chunks lie one behind the other inside the payload.
TEST_F(SmbChunks, OfRandomTrailersStayInside) {
  std::mt19937 random(1);
  const char kTypes[] = "IPipJx?";
  int good = 0;
  for (int round = 0; round < 20000; ++round) {
    largest = static_cast<long>(random() % 120);
    payload.reset(new char[static_cast<std::size_t>(largest)]);
    for (long i = 0; i < largest; ++i)
      payload[static_cast<std::size_t>(i)] = static_cast<char>(random());
    for (int i = 0; (i + 1) * kTrailerBytes <= largest; ++i)
      if (random() % 8 != 0)
        trailer(i, kTypes[random() % 7], random() % 3 != 0 ? 'o' : 'x',
                static_cast<std::uint32_t>(random() % 16 != 0 ? random() % 24 : random()));
    const long length = static_cast<long>(random() % 130);
    TChunkReader reader(payload.get(), length, largest);
    TChunk chunk;
    long end = 0;
    while (reader.next(&chunk)) {
      ASSERT_EQ(payload.get() + end, chunk.data);
      ASSERT_GE(chunk.length, 1);
      end += chunk.length;
      ASSERT_LE(end, std::min(length, largest));
    }
    ASSERT_EQ(reader.complete(), end == length && end > 0);
    good += reader.complete() ? 1 : 0;
  }
  EXPECT_GT(good, 50);
}

TEST_F(SmbFrames, WithoutTrailersArePassedOverAndReportedOnce) {
  const auto plain = [this](double seconds) {
    fake.at(seconds, [this] {
      push({}, [](SB_FRAME* frame) { std::memset(frame->payload, 0x55, kUsable); });
    });
  };
  for (const double seconds : {0.1, 0.2, 0.3}) plain(seconds);
  at(0.4, {"I", "data", "", 0});
  plain(0.5);
  plain(0.6);
  at(0.7, {"P", "data", "", 0});
  record(1);
  EXPECT_THAT(failures(), ElementsAre(kUnsound, kUnsound));
  EXPECT_EQ("IP", types(smbFile("120000"))) << "the next good frame counts";
}

TEST_F(SmbFrames, ThatLieAreNotWrittenInPart) {
  at(0.1, {"I", "data", "", 0});
  fake.at(0.2, [this] {
    push({"PPP", "data", "", 0}, [](SB_FRAME* frame) {
      storeTrailer(frame->payload + kUsable - 3 * kTrailerBytes, 'P', 'x', 5);
    });
  });
  record(1);
  EXPECT_EQ("I", types(smbFile("120000")));
  EXPECT_THAT(failures(), ElementsAre(kUnsound));
}

TEST_F(SmbFrames, ThatLieGiveTheFileThatTheyEndNothing) {
  at(0.1, {"I", "data", "", 0});
  fake.at(0.2, [this] {
    push({"iiP", "data", "ff", 0}, [](SB_FRAME* frame) {
      storeTrailer(frame->payload + kUsable - 3 * kTrailerBytes, 'P', 'x', 5);
    });
  });
  record(1);
  EXPECT_EQ("I", types(smbFile("120000")));
  EXPECT_THAT(failures(), ElementsAre(kUnsound));
}

TEST_F(SmbFrames, OfAnyContentDoNoHarm) {
  std::mt19937 random(7);
  make();
  fake.recordings.capacity(100000);
  int frames = 0;
  const char kTypes[] = "IPipJ";
  fake.onPause([&](long) {
    push({std::string(1 + random() % 3, kTypes[random() % 5]), "data", "",
          random() % 9 == 0 ? 1 : 0},
         [&](SB_FRAME* frame) {
           if (random() % 2 == 0) return;
           for (int i = 0; i < 4; ++i)
             frame->payload[kUsable - 1 - static_cast<long>(random() % 24)] =
                 static_cast<char>(random());
           if (random() % 4 == 0)
             for (char& c : frame->userdata[0]) c = static_cast<char>(random());
           if (random() % 4 == 0)
             storeLe32(frame->length, static_cast<std::uint32_t>(random() % kUsable));
         });
    fake.video.setSlot(kSlotStatus, random() % 50 == 0 ? static_cast<int>(random()) : 0);
    if (++frames == 5000) fake.stopNow();
  });
  recorder->start(100000);
  while (frames < 5000 && fake.started(*recorder)) {
    runBodies(*recorder);
    if (frames < 5000) recorder->start(100000);
  }
  fake.onPause(nullptr);
  EXPECT_EQ(5000, frames);
  EXPECT_EQ(0, fake.recordings.openCount());
  recorder.reset();
  EXPECT_EQ(0, fake.recordings.handles());
}

TEST_F(SmbFrames, TakeNothingFromTheHeapAndAreNotCopied) {
  fake.recordings.keepData(false);
  make();
  const SmbFrame key{"I", std::string(1900, 'x'), "", 0};
  const SmbFrame more{"P", std::string(1900, 'x'), "", 0};
  long early = 0, late = 0, copiedEarly = 0, copiedLate = 0;
  int frames = 0;
  fake.onPause([&](long) {
    const FakeScope scope;
    push(frames % 10 == 0 ? key : more);
    if (++frames == 50) early = allocations(), copiedEarly = copiedBytes();
    if (frames == 150) late = allocations(), copiedLate = copiedBytes(), fake.stopNow();
  });
  recorder->start(1000);
  runBodies(*recorder);
  fake.onPause(nullptr);
  EXPECT_EQ(150, frames);
  EXPECT_EQ(early, late);
  EXPECT_EQ(copiedEarly, copiedLate);
  EXPECT_GT(fake.recordings.used(), 140 * 1900);
}

}  // namespace
