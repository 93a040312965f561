// The recorder on a share that it fills, between the camera's own stream buffer and file system.
// Runs in a board of its own, whose share is in memory: it fills /smb.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "platform/linux/stream_buffer_owner.h"
#include "tests/avi_check/avi_report.h"
#include "tests/board/share_check/feed.h"
#include "tests/board/share_check/room_model.h"

namespace fs = std::filesystem;

namespace {

constexpr std::int64_t kSecondUs = 1000000;
constexpr long kForEver = 1L << 30;
constexpr std::size_t kPictureBytes = 170000;

void write(const std::string& path, const std::string& text) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path) << text;
}

// What others have on the share, and what only looks like a recording.
void fillWithForeignThings() {
  write("/smb/readme.txt", "a share of the whole house");
  write("/smb/20200101/000000.avi", "beside the camera's folder");
  write("/smb/camera/notes.txt", "x");
  write("/smb/camera/000000.avi", "no day");
  write("/smb/camera/2020010/000000.avi", "seven digits");
  write("/smb/camera/202001011/000000.avi", "nine digits");
  write("/smb/camera/2020-101/000000.avi", "no digits");
  write("/smb/camera/ 0200101/000000.avi", "a blank");
  write("/smb/camera/20200101;x/000000.avi", "more");
  write("/smb/other/000000.avi", "behind a link");
  fs::create_directory_symlink("/smb/other", "/smb/camera/00000000");
  fs::create_symlink("/smb/readme.txt", "/smb/camera/00000001");
  write("/smb/camera/00000002", "a file");
}

// In the day that is recorded to.
void fillWithForeignThings(const std::string& day) {
  write(day + "/00000.avi", "five digits");
  write(day + "/000000.txt", "a text");
  write(day + "/000000.avi.bak", "a copy");
  write(day + "/film.avi", "of another");
  fs::create_symlink("/smb/readme.txt", day + "/000000.avi");
}

std::string today() {
  char name[32];
  const std::time_t now = std::time(nullptr);
  std::strftime(name, sizeof name, "/smb/camera/%Y%m%d", std::localtime(&now));
  return name;
}

bool ends(WatchedRecorder& recorder) {
  TStopDeadline deadline;
  return deadline.end(recorder);
}

class Share : public testing::Test {
 protected:
  Share() {
    if (TSmbRecorder::getState() != 1 || fs::exists("/smb/camera")) {
      std::puts("this is for a board with an empty share");
      _exit(2);
    }
    sb::ownSegments({});
  }
};

}  // namespace

TEST_F(Share, RecycledForTwoHundredRoundsLosesNothingThatShouldStay) {
  constexpr int kRounds = 200;
  constexpr int kMostPictures = 40000;
  fillWithForeignThings();
  fillWithForeignThings(today());
  for (const char* const day : {"19990101", "20000229", "20200101", "20200102"})
    for (const char* const name : {"000000.avi", "235959-1.avi", "notes"})
      write(std::string("/smb/camera/") + day + "/" + name, std::string(700000, 'o'));
  Feed feed(4);
  RoomModel model(feed, kPictureBytes);
  WatchedRecorder recorder;
  recorder.before = [&] { model.before(); };
  recorder.after = [&] { model.after(); };
  recorder.start(kForEver);
  std::mt19937 random(20261121);
  for (int i = 0; i < kMostPictures && model.rounds() < kRounds && !HasFailure(); ++i) {
    const bool nextDay = random() % 1000 == 0;
    feed.publish(kPictureBytes, nextDay ? 86400 * kSecondUs : random() % 400000);
    ASSERT_TRUE(feed.waitFor(recorder)) << "picture " << feed.number();
  }
  ASSERT_TRUE(ends(recorder));
  model.end();
  EXPECT_GE(model.rounds(), kRounds);
  EXPECT_GT(model.days(), 5);
  EXPECT_GT(model.rounds() - model.days(), 50);
  EXPECT_GT(model.films(), 200U);
  std::printf("%u pictures, %zu films, %d rounds, %d of them a day; %zu pictures had no room\n",
              feed.number(), model.films(), model.rounds(), model.days(), model.lost());
}

// Nothing of it may go, and so the recording ends.
TEST_F(Share, FullOfForeignThingsStaysAsItIs) {
  fillWithForeignThings();
  write("/smb/camera/much", std::string(62 << 20, 'm'));
  const Listing foreign = listShare();
  Feed feed(1);
  WatchedRecorder recorder;
  recorder.start(kForEver);
  for (int i = 0; i < 100; ++i) {
    feed.publish(kPictureBytes);
    if (!feed.waitFor(recorder, 300)) recorder.start(kForEver);
  }
  ASSERT_TRUE(ends(recorder));
  const Listing now = listShare();
  for (const auto& [path, entry] : foreign) {
    ASSERT_EQ(now.count(path), 1U) << path;
    EXPECT_TRUE(entry == now.at(path)) << path;
  }
}

// With Recycle = 0.
TEST_F(Share, RestOnAFullOneEndsAtOnce) {
  Feed feed(1);
  WatchedRecorder recorder;
  recorder.start(kForEver);
  bool resting = false;
  for (int i = 0; i < 2000 && !resting; ++i) {
    feed.publish(kPictureBytes);
    resting = !feed.waitFor(recorder, 1000);
  }
  ASSERT_TRUE(resting);
  EXPECT_TRUE(recorder.running());
  const auto begun = std::chrono::steady_clock::now();
  ASSERT_TRUE(ends(recorder));
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(1));
  // The last one may have found no room for the old index at its end.
  for (const auto& [path, entry] : listShare()) {
    const AviReport report = checkAvi(path, true);
    EXPECT_TRUE(report.good()) << path << ": " << report.text();
    EXPECT_EQ(report.counted, report.pictures.size()) << path;
    EXPECT_EQ(report.indexed, report.pictures.size()) << path;
  }
}

// With DivideBy = 1 and MaxLength = 1: a picture every two seconds, a key picture every ten.
TEST_F(Share, FilmsEndByTheirLengthAtAKeyPicture) {
  Feed feed(5);
  WatchedRecorder recorder;
  recorder.start(kForEver);
  constexpr int kFilms = 3;
  constexpr int kPicturesOfAFilm = 35;  // up to the first key picture beyond 60 s, that at 70 s
  for (int i = 0; i < kFilms * kPicturesOfAFilm; ++i) {
    feed.publish(1000, 2 * kSecondUs);
    ASSERT_TRUE(feed.waitFor(recorder));
  }
  ASSERT_TRUE(ends(recorder));
  const Listing films = listShare();
  EXPECT_EQ(films.size(), std::size_t{kFilms});
  for (const auto& [path, entry] : films) {
    const AviReport report = checkAvi(path, false);
    EXPECT_TRUE(report.good()) << path << ": " << report.text();
    ASSERT_EQ(report.pictures.size(), std::size_t{kPicturesOfAFilm}) << path;
    EXPECT_TRUE(report.pictures.front().key);
    EXPECT_NEAR(report.rate / double(report.scale), 0.5, 0.02) << path;
  }
}
