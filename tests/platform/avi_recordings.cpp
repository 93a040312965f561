// Recordings as players see them: closed, cut anywhere, left behind by a kill, repaired.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <random>
#include <string>
#include <thread>

#include "platform/linux/avi_repair.h"
#include "platform/linux/root.h"
#include "tests/avi_check/avi_report.h"
#include "tests/platform/recording_fixture.h"
#include "tests/platform/support.h"

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kShare = 20;  // of what is random: more would only take time
#else
constexpr int kShare = 1;
#endif
constexpr int kCuts = 1000 / kShare;
constexpr int kKills = 100 / kShare;
constexpr std::int64_t kTenth = 100000;
// What a cut may take besides the picture in which it is: a second, and the picture that ends it.
constexpr std::size_t kLastSecond = 10 + 1;

// A folder in memory: nobody waits for a disk.
class AviRecordings : public testing::Test {
 protected:
  AviRecordings() : folder_("/dev/shm/vs_recordings." + std::to_string(getpid())) {
    std::filesystem::create_directories(folder_);
  }
  ~AviRecordings() override { std::filesystem::remove_all(folder_); }

  std::string path(const std::string& name) const { return folder_ + '/' + name; }

  // Makes a closed recording.
  void record(const Film& film, const std::string& file, int pictures) {
    StandingClock clock;
    Recording recording(film, file, kTenth);
    ASSERT_TRUE(recording.isOpen());
    ASSERT_TRUE(recording.add(&clock, pictures));
    ASSERT_TRUE(recording.close());
  }

  // Expects a file as if it had been closed after `pictures`.
  void expectClosed(const std::string& file, const Film& film, std::size_t pictures) {
    const AviReport report = checkAvi(file, false);
    EXPECT_TRUE(report.good()) << report.text();
    EXPECT_EQ(report.pictures.size(), pictures);
    const Played played = play(file, film);
    EXPECT_EQ(played.pictures, pictures);
    EXPECT_EQ(played.wrong, "");
    EXPECT_EQ(played.complaints, "");
  }

  // Expects a cut file that plays at least so many pictures; all that are whole come back.
  void expectCut(const std::string& file, const Film& film, std::size_t least) {
    const AviReport report = checkAvi(file, true);
    EXPECT_TRUE(report.good()) << report.text();
    EXPECT_GE(report.pictures.size(), least);
    if (least > 0) {
      const Played played = play(file, film);
      EXPECT_GE(played.pictures, least) << report.json();
      EXPECT_EQ(played.wrong, "");
    }
    if (report.pictures.empty()) return;
    const AviRepair repair = repairAvi(file.c_str());
    EXPECT_GE(repair.result, 0) << report.json();
    expectClosed(file, film, report.pictures.size());
  }

  void expectGoodAfterEveryWrite(const Film& film, const AviLimits& limits, std::size_t parts);
  void expectBackAfterEveryCut(const Film& film, bool closed);
  void expectGrowsBeyond(std::uint64_t bytes);

 private:
  std::string folder_;
};

TEST_F(AviRecordings, HaveTheRateAndDurationTheyWereClosedWith) {
  for (const int rate : {1000, 2000, 5000, 7500, 10000, 14985, 25000, 30000}) {
    for (const Film* film : {&mpeg4Film(), &jpegFilm()}) {
      SCOPED_TRACE(std::to_string(rate) + ' ' + film->header);
      const std::string file = path(std::to_string(rate) + film->type(0) + ".avi");
      StandingClock clock;
      Recording recording(*film, file, 1000000000 / rate);
      ASSERT_TRUE(recording.add(&clock, 45) && recording.close(rate));
      expectClosed(file, *film, 45);
      const AviReport report = checkAvi(file, false);
      EXPECT_NEAR(static_cast<double>(report.durationMs()), 45e6 / rate, 1);
      EXPECT_EQ(report.tag, film->header.empty() ? "MJPG" : "FMP4");
      const Played played = play(file, *film, Play::kDecode);
      EXPECT_EQ(played.decoded, 45U);
      EXPECT_EQ(played.complaints, "");
      EXPECT_NEAR(played.rate, rate / 1000.0, 0.01);
      EXPECT_NEAR(played.seconds, 45e3 / rate, 0.01);
    }
  }
}

TEST_F(AviRecordings, OpenWithoutAWord) {
  for (const Film* film : {&mpeg4Film(), &jpegFilm()}) {
    const std::string file = path("silent.avi");
    std::filesystem::remove(file);
    record(*film, file, 30);
    EXPECT_EQ(
        outputOf("ffprobe -v warning -of csv=p=0 -count_frames -show_entries stream=codec_name,"
                 "codec_tag_string,width,height,r_frame_rate,duration,nb_read_frames " +
                 file),
        film->header.empty() ? "mjpeg,MJPG,160,120,10/1,3.000000,30\n"
                             : "mpeg4,FMP4,160,120,10/1,3.000000,30\n");
    EXPECT_EQ(outputOf("ffmpeg -v warning -xerror -err_detect explode -i " + file + " -f null -"),
              "");
  }
}

TEST_F(AviRecordings, PicturesInPiecesAreWhole) {
  for (const int pieces : {2, 3, 7}) {
    const std::string file = path(std::to_string(pieces) + ".avi");
    StandingClock clock;
    Recording recording(mpeg4Film(), file, kTenth, pieces);
    ASSERT_TRUE(recording.add(&clock, 120) && recording.close());
    expectClosed(file, mpeg4Film(), 120);
  }
}

TEST_F(AviRecordings, WithoutAPictureLeaveNoFile) {
  const std::string file = path("none.avi");
  Recording recording(mpeg4Film(), file, kTenth);
  ASSERT_TRUE(recording.isOpen());
  EXPECT_TRUE(recording.close());
  EXPECT_FALSE(std::filesystem::exists(file));
}

// A film of hours: so many pictures need several index blocks, and larger and larger ones.
TEST_F(AviRecordings, AreIndexedForHours) {
  const std::string file = path("hours.avi");
  Film film = jpegFilm();
  film.pictures.resize(1);
  film.keys.resize(1);
  record(film, file, 60000);
  expectClosed(file, film, 60000);
}

// All states in which a crash can leave the file, one after the other.
void AviRecordings::expectGoodAfterEveryWrite(const Film& film, const AviLimits& limits,
                                              std::size_t parts) {
  constexpr int kPictures = 64;
  const std::string file = path("journal.avi");
  std::filesystem::remove(file);
  WriteJournal journal;
  {
    StandingClock clock;
    Recording recording(film, file, kTenth, 1, limits);
    ASSERT_TRUE(recording.add(&clock, kPictures) && recording.close());
  }
  EXPECT_EQ(checkAvi(file, false).parts.size(), parts);
  expectClosed(file, film, kPictures);
  const std::vector<Write> writes = journal.writes();
  ASSERT_GT(writes.size(), 12U);
  std::string content;
  const std::string state = path("state.avi");
  for (std::size_t i = 0; i < writes.size(); ++i) {
    const Write& write = writes[i];
    SCOPED_TRACE("write " + std::to_string(i) + " of " + std::to_string(writes.size()) + " at " +
                 std::to_string(write.at) + ", picture " + std::to_string(write.pictures));
    if (write.kind == Write::kLength) {
      content.resize(write.at);
    } else {
      content.resize(std::max<std::size_t>(content.size(), write.at + write.data.size()));
      content.replace(write.at, write.data.size(), write.data);
    }
    writeFile(state, content);
    expectCut(state, film, write.pictures > kLastSecond ? write.pictures - kLastSecond : 0);
    if (HasFailure()) return;
  }
  EXPECT_EQ(content, readFile(file)) << "the journal has not seen every write";
}

TEST_F(AviRecordings, PlayUpToTheLastSecondAfterEveryWrite) {
  expectGoodAfterEveryWrite(mpeg4Film(), AviLimits(), 1);
  expectGoodAfterEveryWrite(jpegFilm(), AviLimits(), 1);
}

// What happens every gigabyte and every few thousand pictures, in a short file.
TEST_F(AviRecordings, PlayUpToTheLastSecondAfterEveryWriteOfManyParts) {
  AviLimits limits;
  limits.firstRiff = 20000;
  limits.laterRiff = 15000;
  limits.firstBlock = 5;
  expectGoodAfterEveryWrite(mpeg4Film(), limits, 3);
  limits.firstRiff = 50000;
  limits.laterRiff = 40000;
  expectGoodAfterEveryWrite(jpegFilm(), limits, 4);
}

// `closed`: the file that is cut was closed before; otherwise it was being written.
void AviRecordings::expectBackAfterEveryCut(const Film& film, bool closed) {
  constexpr int kPictures = 110;
  const std::string file = path("whole.avi");
  std::filesystem::remove(file);
  std::string content;
  {
    StandingClock clock;
    Recording recording(film, file, kTenth);
    ASSERT_TRUE(recording.add(&clock, kPictures));
    if (closed) {
      ASSERT_TRUE(recording.close());
    }
    content = readFile(file);
  }
  const std::vector<AviPicture> pictures = checkAvi(file, !closed).pictures;
  std::mt19937 random(closed ? 1 : 2);
  const std::string cut = path("cut.avi");
  for (int i = 0; i < kCuts / 4; ++i) {
    const std::size_t length =
        std::uniform_int_distribution<std::size_t>(0, content.size() - 1)(random);
    SCOPED_TRACE("cut at " + std::to_string(length) + " of " + std::to_string(content.size()));
    std::size_t whole = 0;
    while (whole < pictures.size() && pictures[whole].at + 8 + pictures[whole].size <= length)
      ++whole;
    writeFile(cut, content.substr(0, length));
    EXPECT_EQ(checkAvi(cut, true).pictures.size(), whole);
    expectCut(cut, film, whole);
    if (HasFailure()) return;
  }
}

TEST_F(AviRecordings, ClosedOnesAreGoodAfterEveryCut) {
  expectBackAfterEveryCut(mpeg4Film(), true);
  if (!HasFailure()) expectBackAfterEveryCut(jpegFilm(), true);
}

TEST_F(AviRecordings, OpenOnesAreGoodAfterEveryCut) {
  expectBackAfterEveryCut(mpeg4Film(), false);
  if (!HasFailure()) expectBackAfterEveryCut(jpegFilm(), false);
}

void AviRecordings::expectGrowsBeyond(std::uint64_t bytes) {
  constexpr std::size_t kPictureBytes = 1 << 20;
  const Film film = largePictures(kPictureBytes - 5);
  const std::string file = path("huge.avi");
  const HolesForZeros holes;
  const auto count = static_cast<int>(bytes / kPictureBytes) + 100;
  {
    StandingClock clock;
    Recording recording(film, file, kTenth);
    ASSERT_TRUE(recording.add(&clock, count));
    const AviReport open = checkAvi(file, true);
    EXPECT_TRUE(open.good()) << open.text();
    EXPECT_GE(open.pictures.size(), static_cast<std::size_t>(count) - kLastSecond);
    ASSERT_TRUE(recording.close());
    EXPECT_GT(recording.handle().size, static_cast<std::int64_t>(bytes));
  }
  const AviReport report = checkAvi(file, false);
  EXPECT_TRUE(report.good()) << report.text();
  EXPECT_EQ(report.pictures.size(), static_cast<std::size_t>(count));
  EXPECT_GT(report.fileSize, bytes);
  EXPECT_EQ(report.durationMs(), count * 100);
  EXPECT_LE(report.parts.at(0).end, (1ULL << 30) + 2 * kPictureBytes);
  EXPECT_EQ(
      outputOf("ffprobe -v warning -of csv=p=0 -show_entries stream=nb_frames,duration " + file),
      std::to_string(count / 10) + '.' + std::to_string(count % 10) + "00000," +
          std::to_string(count) + '\n');
  // A part that was lost comes back.
  std::filesystem::resize_file(file, report.pictures[report.pictures.size() - 20].at + 100);
  EXPECT_TRUE(checkAvi(file, true).good()) << checkAvi(file, true).text();
  EXPECT_GE(repairAvi(file.c_str()).result, 0);
  const AviReport repaired = checkAvi(file, false);
  EXPECT_TRUE(repaired.good()) << repaired.text();
  EXPECT_EQ(repaired.pictures.size(), static_cast<std::size_t>(count) - 20);
}

TEST_F(AviRecordings, GrowBeyondOneGibibyte) { expectGrowsBeyond(1ULL << 30); }

TEST_F(AviRecordings, GrowBeyondFourGibibytes) {
  if (kShare > 1) GTEST_SKIP() << "shows nothing new in a slow build";
  expectGrowsBeyond(1ULL << 32);
}

// What a recording process tells of itself.
struct Progress {
  std::atomic<std::uint32_t> taken;
};

// Records until it is killed.
int recordForEver(const Film& film, const std::string& file, Progress* progress) {
  StandingClock clock;
  Recording recording(film, file, kTenth);
  while (recording.add(&clock)) progress->taken = static_cast<std::uint32_t>(recording.count());
  return 1;
}

TEST_F(AviRecordings, PlayUpToTheLastSecondAfterAKill) {
  auto* const progress = static_cast<Progress*>(
      mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(progress, MAP_FAILED);
  mpeg4Film();
  jpegFilm();
  std::mt19937 random(3);
  for (int i = 0; i < kKills; ++i) {
    const Film& film = i % 2 == 0 ? mpeg4Film() : jpegFilm();
    const std::string file = path("killed.avi");
    std::filesystem::remove(file);
    progress->taken = 0;
    const std::uint32_t enough = std::uniform_int_distribution<std::uint32_t>(1, 1500)(random);
    Child child([&] { return recordForEver(film, file, progress); });
    while (progress->taken < enough) std::this_thread::yield();
    child.signal(SIGKILL);
    EXPECT_EQ(child.wait(), -SIGKILL);
    const std::size_t taken = progress->taken;
    SCOPED_TRACE("kill " + std::to_string(i) + " after picture " + std::to_string(taken));
    expectCut(file, film, taken > kLastSecond ? taken - kLastSecond : 0);
    if (HasFailure()) break;
  }
  munmap(progress, sizeof(Progress));
}

}  // namespace
