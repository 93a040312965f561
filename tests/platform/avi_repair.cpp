// Repair of recordings: cut anywhere, damaged, hostile, or not ours.
#include "platform/linux/avi_repair.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>

#include "platform/linux/avi_file.h"
#include "platform/linux/new_file.h"
#include "tests/platform/avi_content.h"
#include "tests/platform/avi_film.h"
#include "tests/platform/support.h"
#include "tests/platform/write_faults.h"

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(__mips__)
constexpr int kShare = 10;
#else
constexpr int kShare = 1;
#endif

constexpr char kName[] = "/usb/a.avi";

class AviRepairs : public testing::Test {
 protected:
  AviRepairs() { mkdir(root_.path("/usb").c_str(), 0700); }

  // Makes a recording. Returns its content.
  std::string record(const std::vector<FilmPicture>& film, bool close = true,
                     std::uint32_t firstRiff = 1 << 30, std::uint32_t firstBlock = 8) {
    unlink(path_.c_str());
    AviLimits limits;
    limits.updateUs = 0;
    limits.firstRiff = limits.laterRiff = firstRiff;
    limits.firstBlock = firstBlock;
    AviFile file(limits);
    char name[64];
    Fd fd = createNewFile(kName, name, sizeof name);
    file.open(std::move(fd), 0);
    for (const FilmPicture& picture : film)
      putPicture(picture, [&](char type, const std::string& piece) {
        return file.write(type, header_.data(), piece.data(), static_cast<long>(piece.size()));
      });
    if (close) file.close(10000);
    return readFile(path_);
  }
  AviRepair repair(const std::string& content) {
    unlink(path_.c_str());  // some file systems wait for a disk when a file is made anew in place
    writeFile(path_, content);
    return repairAvi(path_.c_str());
  }
  std::string content() { return readFile(path_); }

  // Expects that `cut`, the start of a recording, becomes a closed one of all its whole pictures.
  void expectRepaired(const std::string& cut, const std::vector<FilmPicture>& film,
                      std::size_t whole) {
    const AviRepair done = repair(cut);
    if (whole == 0) {
      EXPECT_EQ(done.result, cut.empty() ? 0 : -1);
      EXPECT_EQ(*done.reason == '\0', cut.empty());
      EXPECT_TRUE(content() == cut);
      return;
    }
    ASSERT_GE(done.result, 0) << done.reason << done.error;
    const std::string all = content();
    const AviContent there = readAvi(all);
    EXPECT_EQ(there.wrong, "");
    EXPECT_TRUE(there.closed(all.size()));
    ASSERT_EQ(there.pictures.size(), whole);
    EXPECT_EQ(done.pictures, whole);
    for (std::size_t i = 0; i < whole; ++i) {
      ASSERT_TRUE(there.pictures[i] == stored(film[i], i == 0, header_)) << i;
      ASSERT_EQ(there.keys[i], film[i].type == kTypeKey) << i;
    }
    EXPECT_EQ(repairAvi(path_.c_str()).result, 0);
    EXPECT_TRUE(content() == all);
  }

  // Where the pictures of a recording end.
  static std::vector<std::size_t> ends(const std::string& all,
                                       const std::vector<FilmPicture>& film) {
    std::vector<std::size_t> result;
    std::size_t at = 0;
    for (const FilmPicture& picture : film) {
      at = all.find(picture.whole(), at);
      at += picture.whole().size();
      result.push_back(at);
    }
    return result;
  }

  TempRoot root_;
  std::string path_ = root_.path(kName);
  std::string header_ = streamHeader({});
};

TEST_F(AviRepairs, DoNothingToASoundFile) {
  const auto film = makeFilm(1, 100, 5000);
  for (const std::uint32_t firstRiff : {1U << 30, 20000U}) {
    const std::string all = record(film, true, firstRiff);
    WriteFaults faults;
    const AviRepair done = repairAvi(path_.c_str());
    EXPECT_EQ(done.result, 0) << done.reason;
    EXPECT_EQ(done.pictures, 100U);
    EXPECT_EQ(done.cut, 0U);
    EXPECT_TRUE(faults.writes().empty());
    EXPECT_TRUE(content() == all);
  }
}

TEST_F(AviRepairs, BringBackEveryWholePictureOfACutFile) {
  std::mt19937 random(2);
  for (int recording = 0; recording < 20 / (kShare > 1 ? 4 : 1); ++recording) {
    const auto film = makeFilm(static_cast<unsigned>(recording), 40, 2000);
    // Of more than one RIFF, the index behind the first can't be made anew where it was cut.
    const std::string all = record(film, recording % 3 != 0, recording % 2 == 0 ? 1 << 30 : 10000);
    const auto end = ends(all, film);
    for (int i = 0; i < 50 / (kShare > 1 ? 2 : 1); ++i) {
      const std::size_t cut = random() % (all.size() + 1);
      std::size_t whole = 0;
      while (whole < film.size() && end[whole] <= cut) ++whole;
      // The last one of a file that was not closed has no size yet.
      if (recording % 3 == 0) whole = std::min(whole, film.size() - 1);
      SCOPED_TRACE(std::to_string(recording) + " " + std::to_string(cut));
      const AviContent there = readAvi(all.substr(0, cut), true);
      EXPECT_TRUE(cut < 4096 || there.wrong.empty()) << there.wrong;
      expectRepaired(all.substr(0, cut), film, cut < 4096 ? 0 : whole);
      if (HasFailure()) return;
    }
  }
}

TEST_F(AviRepairs, AreDoneWhenRunAgainAfterAKill) {
  const auto film = makeFilm(3, 60, 2000);
  std::string all = record(film);
  const std::string cut = all.substr(0, ends(all, film)[50] + 20);
  std::vector<NotedWrite> writes;
  std::string mended;
  // A file with nothing in its index, so that there is much to write.
  std::string bare = cut;
  for (std::size_t at = bare.find("ix00", 4096); at != std::string::npos;
       at = bare.find("ix00", at + 1))
    bare.replace(at + 12, 4, 4, '\0').replace(at + 32, 64, 64, '\x55');
  {
    WriteFaults faults;
    ASSERT_EQ(repair(bare).result, 1);
    writes = faults.writes();
    mended = content();
  }
  ASSERT_GT(writes.size(), 10U);
  for (std::size_t count = 0; count <= writes.size(); ++count) {
    std::string killed = bare;
    for (std::size_t i = 0; i < count; ++i) writes[i].apply(&killed);
    EXPECT_GE(repair(killed).result, 0);
    EXPECT_TRUE(content() == mended) << count;
  }
}

TEST_F(AviRepairs, SkipDamageAheadOfWholePictures) {
  const auto film = makeFilm(4, 40, 2000);
  const std::string all = record(film);
  const auto end = ends(all, film);
  std::string damaged = all;
  for (std::size_t at = end[9]; at < end[19]; ++at) damaged[at] = '\0';  // ten pictures
  const AviRepair done = repair(damaged);
  ASSERT_EQ(done.result, 1) << done.reason;
  EXPECT_EQ(done.cut, 0U);
  const AviContent there = readAvi(content());
  EXPECT_EQ(there.wrong, "");
  ASSERT_EQ(there.pictures.size(), 30U);
  EXPECT_TRUE(there.pictures.back() == film.back().whole());
  EXPECT_EQ(repairAvi(path_.c_str()).result, 0);
}

TEST_F(AviRepairs, LeaveAloneWhatIsNotOurs) {
  const std::string all = record(makeFilm(5, 10, 500));
  std::string other = all;
  other[4076] = 'x';  // in what fills the head
  std::string foreign = all;
  foreign.replace(112, 4, "XVID");
  std::string avi = "RIFF" + std::string(4, '\x40') + "AVI LIST";
  avi.resize(9000, 'x');
  for (const std::string& content :
       {std::string("R"), std::string("RIFF"), std::string(9000, '\0'), std::string(4095, 'x'), avi,
        other, foreign, all.substr(0, 4095), all.substr(0, 4096)}) {
    const AviRepair done = repair(content);
    EXPECT_EQ(done.result, -1);
    EXPECT_STRNE(done.reason, "");
    EXPECT_EQ(done.error, 0);
    EXPECT_TRUE(this->content() == content);
  }
  EXPECT_EQ(repairAvi(root_.path("/usb").c_str()).result, -1);
  EXPECT_EQ(repairAvi(root_.path("/usb/none").c_str()).error, ENOENT);
  ASSERT_EQ(symlink(path_.c_str(), root_.path("/usb/link").c_str()), 0);
  EXPECT_EQ(repairAvi(root_.path("/usb/link").c_str()).error, ELOOP);
  ASSERT_EQ(mkfifo(root_.path("/usb/pipe").c_str(), 0600), 0);
  EXPECT_EQ(repairAvi(root_.path("/usb/pipe").c_str()).result, -1);
}

TEST_F(AviRepairs, LeaveAloneWhatIsBeingWritten) {
  const std::string all = record(makeFilm(6, 10, 500));
  const std::string cut = all.substr(0, all.size() - 30);
  writeFile(path_, cut);
  {
    const Fd writer(os::open(path_.c_str(), O_RDWR));
    ASSERT_TRUE(lockForWriting(writer.get()));
    const AviRepair done = repairAvi(path_.c_str());
    EXPECT_EQ(done.result, -1);
    EXPECT_STREQ(done.reason, "is being written");
    EXPECT_TRUE(content() == cut);
  }
  EXPECT_EQ(repairAvi(path_.c_str()).result, 1);
}

TEST_F(AviRepairs, GoWithoutTheOldIndexOnAFullDisk) {
  const auto film = makeFilm(7, 40, 2000);
  const std::string all = record(film);
  const auto end = ends(all, film);
  const std::string cut = all.substr(0, end[20]);
  WriteFaults faults;
  faults.room(static_cast<std::int64_t>(cut.size()) + 10);
  ASSERT_EQ(repair(cut).result, 1);
  const AviContent there = readAvi(content());
  EXPECT_EQ(there.wrong, "");
  EXPECT_EQ(there.pictures.size(), 21U);
  EXPECT_EQ(there.indexed, 21U);
  EXPECT_EQ(there.old, 0U);
  EXPECT_EQ(there.covered, content().size());
}

TEST_F(AviRepairs, TellOfErrors) {
  const auto film = makeFilm(8, 40, 2000);
  const std::string all = record(film);
  const std::string cut = all.substr(0, ends(all, film)[20]);
  for (int call = 0; call < 3; ++call) {
    WriteFaults faults;
    faults.failCall(call, EIO);
    const AviRepair done = repair(cut);
    EXPECT_EQ(done.result, -1);
    EXPECT_EQ(done.error, EIO);
    EXPECT_STREQ(done.reason, "can't be written");
    EXPECT_EQ(repairAvi(path_.c_str()).result, 1);
    EXPECT_TRUE(readAvi(content()).closed(content().size()));
  }
}

TEST_F(AviRepairs, LeaveAloneWhatHasNoWholePicture) {
  const auto film = makeFilm(8, 40, 2000);
  const std::string all = record(film);
  const std::string cut = all.substr(0, ends(all, film)[0] - 100);
  const AviRepair done = repair(cut);
  EXPECT_EQ(done.result, -1);
  EXPECT_STREQ(done.reason, "without a whole picture");
  EXPECT_TRUE(content() == cut);
}

// Whatever the file holds, the repair ends, stays inside, and what it has repaired is sound.
TEST_F(AviRepairs, SurviveAnyBytes) {
  std::mt19937 random(9);
  const auto film = makeFilm(9, 40, 300);
  const std::string one = record(film);
  const std::string several = record(film, true, 6000, 3);
  constexpr std::uint32_t kWords[] = {0,          1,          0xffffffff, 0x7fffffff, 0x80000000,
                                      0xfffffff0, 0x10000000, 0x30306369, 0x63643030, 0x46464952};
  int repaired = 0;
  for (int round = 0; round < 2000 / kShare; ++round) {
    std::string data = round % 2 == 0 ? one : several;
    for (auto change = random() % 6; change > 0; --change) {
      const std::size_t from = random() % 3 == 0 ? 0 : 4096;
      const std::size_t at = (from + random() % (data.size() - from - 4)) & ~std::size_t{1};
      if (random() % 2 == 0) {
        storeLe32(&data[at], kWords[random() % std::size(kWords)]);
      } else {
        // Where it counts: the words behind the names of chunks.
        static const char* const kNames[] = {"00dc", "ix00", "RIFF", "idx1"};
        const std::size_t chunk = data.find(kNames[random() % 4], at);
        if (chunk < data.size() - 8)
          storeLe32(&data[chunk + 4], kWords[random() % std::size(kWords)]);
      }
    }
    if (random() % 2 == 0) data.resize(random() % data.size());
    const AviRepair done = repair(data);
    if (done.result < 0) {
      ASSERT_STRNE(done.reason, "");
      ASSERT_TRUE(content() == data);
      continue;
    }
    ++repaired;
    const std::string all = content();
    const AviContent there = readAvi(all);
    ASSERT_EQ(there.wrong, "") << round;
    ASSERT_EQ(there.pictures.size(), done.pictures);
    ASSERT_LE(there.covered, all.size());
    ASSERT_EQ(repairAvi(path_.c_str()).result, 0) << round;
  }
  EXPECT_GT(repaired, 300 / kShare);
}

}  // namespace
