// The writer of AVI recordings: what is in the file when, and what errors leave.
#include "platform/linux/avi_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "platform/avi.h"
#include "platform/linux/new_file.h"
#include "tests/platform/avi_content.h"
#include "tests/platform/avi_film.h"
#include "tests/platform/support.h"
#include "tests/platform/write_faults.h"

namespace {

constexpr char kName[] = "/usb/a.avi";
const std::string kZeros(20, '\0');

class AviFiles : public testing::Test {
 protected:
  AviFiles() { mkdir(root_.path("/usb").c_str(), 0700); }

  void open(AviFile* file, const AviLimits& limits = AviLimits()) {
    unlink(root_.path(kName).c_str());
    *file = AviFile(limits);
    char name[64];
    Fd fd = createNewFile(kName, name, sizeof name);
    ASSERT_TRUE(fd.valid());
    file->open(std::move(fd), 0);
  }
  bool put(AviFile* file, const FilmPicture& picture) {
    return putPicture(picture, [&](char type, const std::string& piece) {
      return file->write(type, header_.data(), piece.data(), static_cast<long>(piece.size()));
    });
  }
  std::string content(const char* name = kName) { return readFile(root_.path(name)); }
  AviContent read(bool cut = false) { return readAvi(content(), cut); }

  // Expects the first pictures of `film`, at least so many.
  void expectFilm(const AviContent& there, const std::vector<FilmPicture>& film,
                  std::size_t least) {
    EXPECT_EQ(there.wrong, "");
    EXPECT_GE(there.pictures.size(), least);
    ASSERT_LE(there.pictures.size(), film.size());
    for (std::size_t i = 0; i < there.pictures.size(); ++i)
      ASSERT_TRUE(there.pictures[i] == stored(film[i], i == 0, header_)) << i;
    for (std::size_t i = 0; i < there.keys.size(); ++i)
      ASSERT_EQ(there.keys[i], film[i].type == kTypeKey) << i;
  }

  TempRoot root_;
  std::string header_ = streamHeader({});
};

AviLimits everyPicture() {
  AviLimits limits;
  limits.updateUs = 0;
  return limits;
}

TEST_F(AviFiles, HoldEveryPictureInOneChunk) {
  const auto film = makeFilm(1, 300);
  AviFile file;
  open(&file);
  for (const FilmPicture& picture : film) ASSERT_TRUE(put(&file, picture));
  const std::int64_t size = file.size();
  ASSERT_TRUE(file.close(12500));
  const std::string all = content();
  EXPECT_GT(static_cast<std::int64_t>(all.size()), size);
  const AviContent there = readAvi(all);
  EXPECT_TRUE(there.closed(all.size())) << there.wrong;
  expectFilm(there, film, film.size());
  EXPECT_EQ(there.tag, "FMP4");
  EXPECT_EQ(there.width, 640);
  EXPECT_EQ(there.height, 480);
  EXPECT_EQ(there.header, header_);
  EXPECT_EQ(there.rate, 12500U);
  EXPECT_EQ(there.riffs, 1U);
}

TEST_F(AviFiles, HoldJpegPicturesOfTheSizeTheyTell) {
  std::string jpeg("\xff\xd8\xff\xe0\0\4ab\xff\xff\xc0\0\x11\x08\1\x20\1\x60\3", 20);
  AviFile file;
  open(&file);
  for (int i = 0; i < 40; ++i) {
    jpeg += std::string(static_cast<std::size_t>(i) * 337, 'x');
    ASSERT_TRUE(file.write('J', header_.data(), jpeg.data(), static_cast<long>(jpeg.size())));
  }
  ASSERT_TRUE(file.close(1000));
  const std::string all = content();
  const AviContent there = readAvi(all);
  EXPECT_TRUE(there.closed(all.size())) << there.wrong;
  EXPECT_EQ(there.pictures.size(), 40U);
  EXPECT_EQ(there.pictures.back(), jpeg);
  EXPECT_EQ(there.tag, "MJPG");
  EXPECT_EQ(there.header, "");
  EXPECT_EQ(there.width, 352);
  EXPECT_EQ(there.height, 288);
}

TEST_F(AviFiles, AreSoundAfterEveryWriteAndInTheMiddleOfEach) {
  const auto film = makeFilm(2, 24);
  WriteFaults faults;
  AviLimits limits = everyPicture();
  limits.firstBlock = 5;
  AviFile file;
  open(&file, limits);
  std::vector<std::size_t> taken;  // pictures that had been taken before a write
  for (std::size_t i = 0; i < film.size(); ++i) {
    ASSERT_TRUE(put(&file, film[i]));
    taken.resize(faults.writes().size(), i);
  }
  ASSERT_TRUE(file.close(0));
  taken.resize(faults.writes().size(), film.size() - 1);
  std::string so;
  for (std::size_t i = 0; i < faults.writes().size(); ++i) {
    const NotedWrite& write = faults.writes()[i];
    SCOPED_TRACE(i);
    if (!write.resize && write.data.size() > 1 && !so.empty()) {
      // A page is written whole or not at all; anything longer may end anywhere.
      std::string torn = so;
      NotedWrite part = write;
      part.data.resize(write.data.size() / 2);
      if (write.at >= static_cast<std::int64_t>(so.size())) part.apply(&torn);
      expectFilm(readAvi(torn), film, 0);
    }
    write.apply(&so);
    // Of the picture before the last one, everything has been written with the last.
    expectFilm(readAvi(so), film, taken[i] < 3 ? 0 : taken[i] - 2);
  }
  EXPECT_TRUE(so == content());
  EXPECT_TRUE(readAvi(so).closed(so.size()));
}

TEST_F(AviFiles, TellNoSizeOfAPictureThatIsNotComplete) {
  const std::string piece(100000, 'x');
  AviFile file;
  open(&file);
  ASSERT_TRUE(file.write('I', header_.data(), piece.data(), 100000));
  const std::size_t picture = 4096 + 32 + 128 * 8;
  EXPECT_EQ(content().substr(picture, 8), std::string("00dc\0\0\0\0", 8));
  ASSERT_TRUE(file.write('i', header_.data(), piece.data(), 100000));
  EXPECT_EQ(content().substr(picture, 8), std::string("00dc\0\0\0\0", 8));
  ASSERT_TRUE(file.write('P', header_.data(), piece.data(), 10));
  EXPECT_EQ(readAvi(content()).pictures.size(), 1U);
  EXPECT_EQ(readAvi(content()).pictures.at(0).size(), 200020U);
}

TEST_F(AviFiles, GoOnInFurtherRiffs) {
  const auto film = makeFilm(3, 900, 3000);
  AviLimits limits;
  limits.firstRiff = 60000;
  limits.laterRiff = 40000;
  limits.firstBlock = 8;
  WriteFaults faults;
  AviFile file;
  open(&file, limits);
  for (const FilmPicture& picture : film) ASSERT_TRUE(put(&file, picture));
  ASSERT_TRUE(file.close(0));
  const std::string all = content();
  const AviContent there = readAvi(all);
  EXPECT_EQ(there.wrong, "");
  EXPECT_EQ(there.covered, all.size());
  EXPECT_GT(there.riffs, 5U);
  EXPECT_EQ(there.indexed, film.size());
  EXPECT_EQ(there.counted, film.size());
  expectFilm(there, film, film.size());
  EXPECT_LE(loadLe32(all.data() + 4) + 8, 60000U + 3000U);  // a picture in pieces
  std::string so;
  for (const NotedWrite& write : faults.writes()) {
    write.apply(&so);
    const AviContent then = readAvi(so);
    ASSERT_EQ(then.wrong, "");
  }
}

TEST_F(AviFiles, GoOnWithoutAnIndexWhenItsTableIsFull) {
  const auto film = makeFilm(4, 900, 100);
  AviLimits limits;
  limits.firstRiff = limits.laterRiff = 1;  // a picture each
  AviFile file;
  limits.firstBlock = 1;
  open(&file, limits);
  for (const FilmPicture& picture : film) ASSERT_TRUE(put(&file, picture));
  ASSERT_TRUE(file.close(0));
  const AviContent there = read();
  expectFilm(there, film, film.size());
  EXPECT_EQ(there.blocks, 236U);
  EXPECT_EQ(there.indexed, 236U);
  EXPECT_EQ(there.counted, film.size());
}

TEST_F(AviFiles, AreAsBeforeThePictureWhenTheDiskIsFull) {
  const auto film = makeFilm(5, 60);
  for (std::int64_t room = 0; room < 600000; room += room < 20000 ? 977 : 30011) {
    SCOPED_TRACE(room);
    WriteFaults faults;
    faults.room(room);
    AviLimits limits = everyPicture();
    limits.firstBlock = 8;
    limits.firstRiff = 300000;
    AviFile file;
    open(&file, limits);
    std::vector<FilmPicture> taken;
    bool failed = false;
    for (const FilmPicture& picture : film) {
      errno = 0;
      if (put(&file, picture)) {
        taken.push_back(picture);
        continue;
      }
      EXPECT_EQ(errno, ENOSPC);
      const AviContent there = read();
      if (!content().empty()) expectFilm(there, taken, 0);
      if (failed) faults.room(room + 2000000);  // the second time there is room again
      failed = true;
    }
    EXPECT_TRUE(failed || taken.size() == film.size());
    ASSERT_TRUE(file.close(0)) << std::strerror(errno);
    expectFilm(read(), taken, taken.size());
    const std::string all = content();
    EXPECT_TRUE(read().riffs > 1 || readAvi(all).closed(all.size()));
  }
}

TEST_F(AviFiles, AreClosedSoundlyOnAFullDisk) {
  const auto film = makeFilm(6, 60);
  for (std::int64_t room = 0; room < 600000; room += room < 20000 ? 977 : 30011) {
    SCOPED_TRACE(room);
    WriteFaults faults;
    faults.room(room);
    AviLimits limits;
    limits.firstBlock = 8;
    limits.firstRiff = 300000;
    AviFile file;
    open(&file, limits);
    for (const FilmPicture& picture : film)
      if (!put(&file, picture)) break;
    errno = 0;
    const bool good = file.close(0);
    EXPECT_EQ(errno, good ? 0 : ENOSPC);
    EXPECT_LE(static_cast<std::int64_t>(content().size()), std::max<std::int64_t>(room, 0));
    if (content().empty()) continue;
    const AviContent there = read();
    expectFilm(there, film, 1);
    EXPECT_EQ(there.covered, content().size());
    EXPECT_EQ(there.indexed, there.pictures.size());
    EXPECT_EQ(there.counted, there.pictures.size());
  }
}

TEST_F(AviFiles, SurviveAnErrorOfAnyCall) {
  const auto film = makeFilm(7, 20, 60000);
  for (int call = 0; call < 110; ++call) {
    SCOPED_TRACE(call);
    WriteFaults faults;
    AviLimits limits = everyPicture();
    limits.firstBlock = 8;
    limits.firstRiff = 60000;
    AviFile file;
    open(&file, limits);
    faults.failCall(call, EIO);
    std::vector<FilmPicture> taken;
    for (const FilmPicture& picture : film) {
      errno = 0;
      if (put(&file, picture)) {
        taken.push_back(picture);
      } else {
        EXPECT_EQ(errno, EIO);
      }
    }
    EXPECT_GE(taken.size() + 1, film.size());
    const bool good = file.close(0);
    const AviContent there = read();
    if (good) expectFilm(there, taken, taken.size());
    EXPECT_EQ(there.wrong, "");
  }
}

TEST_F(AviFiles, AreTheSameOverShortAndInterruptedWrites) {
  const auto film = makeFilm(8, 100);
  std::string smooth;
  for (const bool hesitate : {false, true}) {
    WriteFaults faults;
    faults.hesitate(hesitate);
    AviLimits limits = everyPicture();  // so that the clock decides nothing
    limits.firstBlock = 9000;           // reserved in several writes
    AviFile file;
    open(&file, limits);
    for (const FilmPicture& picture : film) ASSERT_TRUE(put(&file, picture));
    ASSERT_TRUE(file.close(5000));
    EXPECT_TRUE(!hesitate || content() == smooth);
    smooth = content();
  }
}

TEST_F(AviFiles, RefuseWhatIsNoPicture) {
  AviFile file;
  EXPECT_FALSE(file.write('I', header_.data(), "x", 1));
  EXPECT_EQ(errno, EBADF);
  open(&file);
  const struct {
    char type;
    long length;
    int error;
  } kBad[] = {{'i', 1, EINVAL}, {'p', 1, EINVAL},  {'x', 1, EINVAL},      {'\0', 1, EINVAL},
              {'I', 0, EINVAL}, {'J', -1, EINVAL}, {'I', 1L << 29, EFBIG}};
  for (const auto& bad : kBad) {
    errno = 0;
    EXPECT_FALSE(file.write(bad.type, header_.data(), "x", bad.length));
    EXPECT_EQ(errno, bad.error) << bad.type << bad.length;
  }
  ASSERT_TRUE(file.write('P', header_.data(), "x", 1));
  EXPECT_FALSE(file.write('i', header_.data(), "x", 1));
  EXPECT_FALSE(file.write('J', header_.data(), "x", 1));
  EXPECT_EQ(errno, EINVAL);
  ASSERT_TRUE(file.write('p', header_.data(), "y", 1));
  ASSERT_TRUE(file.close(-7));
  const AviContent there = read();
  ASSERT_EQ(there.pictures.size(), 1U);
  EXPECT_EQ(there.pictures[0], header_ + "xy");
  EXPECT_EQ(there.rate, 1U);
}

TEST_F(AviFiles, TakeAnyBytesForAPicture) {
  std::mt19937 random(9);
  for (int round = 0; round < 300; ++round) {
    AviFile file;
    open(&file);
    std::string header(20, '\0');
    if (round % 3 != 0)
      for (char& c : header) c = static_cast<char>(random());
    const char type = "IPJ"[round % 3];
    std::string data(1 + random() % 50, '\0');
    for (char& c : data) c = static_cast<char>(random() % 4 == 0 ? 0xff : random());
    if (type == 'J') data = "\xff\xd8\xff" + data;
    const std::unique_ptr<char[]> exact(new char[data.size()]);
    std::memcpy(exact.get(), data.data(), data.size());
    ASSERT_TRUE(file.write(type, header.data(), exact.get(), static_cast<long>(data.size())));
    ASSERT_TRUE(file.close(1000));
    const AviContent there = read();
    ASSERT_EQ(there.wrong, "");
    const bool ahead = type != 'J' && header != kZeros;
    ASSERT_EQ(there.pictures.at(0), (ahead ? header : "") + data);
  }
}

class RecordingHandle : public testing::Test {
 protected:
  RecordingHandle() {
    mkdir(root_.path("/usb").c_str(), 0700);
    std::memcpy(handle_.header, streamHeader({}).data(), 20);
  }
  ~RecordingHandle() override { aviRelease(&handle_); }

  TempRoot root_;
  LogReader log_{root_};
  AVI_HANDLE handle_;
};

TEST_F(RecordingHandle, TellsNameSizeAndState) {
  EXPECT_EQ(aviOpen(&handle_, "/usb/b.avi"), -1);
  EXPECT_EQ(errno, EINVAL);
  ASSERT_EQ(aviCreate(&handle_), 0);
  ASSERT_EQ(aviOpen(&handle_, "/usb/b.avi"), 0);
  EXPECT_EQ(aviOpen(&handle_, "/usb/c.avi"), -1);
  EXPECT_EQ(errno, EBUSY);
  EXPECT_TRUE(handle_.open);
  EXPECT_STREQ(handle_.name, "/usb/b.avi");
  handle_.type = 'I';
  ASSERT_EQ(aviWrite(&handle_, "abc", 3), 0);
  EXPECT_EQ(handle_.size, 4096 + 1056 + 8 + 20 + 3);
  EXPECT_EQ(aviClose(&handle_), 0);
  EXPECT_FALSE(handle_.open);
  EXPECT_EQ(handle_.size, static_cast<std::int64_t>(readFile(root_.path("/usb/b.avi")).size()));
  EXPECT_EQ(aviClose(&handle_), 0);
  EXPECT_EQ(aviWrite(&handle_, "abc", 3), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(aviRelease(&handle_), 0);
  EXPECT_EQ(aviRelease(&handle_), 0);
  struct stat status {};
  ASSERT_EQ(stat(root_.path("/usb/b.avi").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640U);
}

TEST_F(RecordingHandle, TakesTheNextFreeName) {
  ASSERT_EQ(aviCreate(&handle_), 0);
  handle_.type = 'J';
  for (const char* name : {"/usb/a.b/c.avi", "/usb/a.b/c-1.avi", "/usb/a.b/c-2.avi"}) {
    ASSERT_EQ(aviOpen(&handle_, "/usb/a.b/c.avi"), 0);
    EXPECT_STREQ(handle_.name, name);
    ASSERT_EQ(aviWrite(&handle_, "x", 1), 0);
    ASSERT_EQ(aviClose(&handle_), 0);
  }
  writeFile(root_.path("/usb/a.b/c"), "mine");
  writeFile(root_.path("/usb/a.b/.c"), "mine");
  ASSERT_EQ(rawOpen(&handle_, "/usb/a.b/c"), 0);
  EXPECT_STREQ(handle_.name, "/usb/a.b/c-1");
  ASSERT_EQ(rawClose(&handle_), 0);
  ASSERT_EQ(rawOpen(&handle_, "/usb/a.b/.c"), 0);
  EXPECT_STREQ(handle_.name, "/usb/a.b/.c-1");
  ASSERT_EQ(rawClose(&handle_), 0);
  EXPECT_EQ(readFile(root_.path("/usb/a.b/c")), "mine");
}

TEST_F(RecordingHandle, OpensNothingUnderAnUnsafeName) {
  ASSERT_EQ(aviCreate(&handle_), 0);
  const std::string tooLong = "/usb/" + std::string(300, 'x');
  std::string deep = "/usb";
  for (int i = 0; i < 30; ++i) deep += "/0123456789";
  const struct {
    std::string name;
    int error;
  } kBad[] = {{"/usb/../a.avi", EACCES}, {"a.avi", EACCES},       {"/usb/\x01.avi", EACCES},
              {"/usb/", EISDIR},         {tooLong, ENAMETOOLONG}, {deep, ENAMETOOLONG}};
  for (const auto& bad : kBad) {
    errno = 0;
    EXPECT_EQ(aviOpen(&handle_, bad.name.c_str()), -1) << bad.name;
    EXPECT_EQ(errno, bad.error) << bad.name;
    errno = 0;
    EXPECT_EQ(rawOpen(&handle_, bad.name.c_str()), -1);
    EXPECT_EQ(errno, bad.error) << bad.name;
    EXPECT_FALSE(handle_.open);
  }
}

TEST_F(RecordingHandle, OpensNothingOnAShareThatIsNotThere) {
  ASSERT_EQ(aviCreate(&handle_), 0);
  mkdir(root_.path("/smb").c_str(), 0700);
  EXPECT_EQ(aviOpen(&handle_, "/smb/camera/a.avi"), -1);
  EXPECT_EQ(errno, ENODEV);
  EXPECT_EQ(rawOpen(&handle_, "/smb/a.raw"), -1);
  EXPECT_EQ(errno, ENODEV);
  EXPECT_EQ(rmdir(root_.path("/smb").c_str()), 0);
}

TEST_F(RecordingHandle, LeavesNoFileWithoutAPicture) {
  ASSERT_EQ(aviCreate(&handle_), 0);
  ASSERT_EQ(aviOpen(&handle_, "/usb/a.avi"), 0);
  ASSERT_EQ(aviClose(&handle_), 0);
  EXPECT_NE(access(root_.path("/usb/a.avi").c_str(), F_OK), 0);
  // But somebody else's under its name.
  ASSERT_EQ(aviOpen(&handle_, "/usb/a.avi"), 0);
  ASSERT_EQ(unlink(root_.path("/usb/a.avi").c_str()), 0);
  writeFile(root_.path("/usb/a.avi"), "mine");
  ASSERT_EQ(aviClose(&handle_), 0);
  EXPECT_EQ(readFile(root_.path("/usb/a.avi")), "mine");
}

TEST_F(RecordingHandle, RecordsTheBareStream) {
  WriteFaults faults;
  faults.hesitate(true);
  ASSERT_EQ(rawOpen(&handle_, "/usb/a.raw"), 0);
  ASSERT_EQ(rawWrite(&handle_, "abc", 3), 0);
  EXPECT_EQ(handle_.size, 3);
  EXPECT_EQ(rawWrite(&handle_, "abc", 0), -1);
  EXPECT_EQ(errno, EINVAL);
  faults.room(5);
  EXPECT_EQ(rawWrite(&handle_, "defg", 4), -1);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(handle_.size, 3);
  EXPECT_EQ(readFile(root_.path("/usb/a.raw")), "abc");
  faults.room(10);
  ASSERT_EQ(rawWrite(&handle_, "defg", 4), 0);
  ASSERT_EQ(rawClose(&handle_), 0);
  ASSERT_EQ(rawClose(&handle_), 0);
  EXPECT_EQ(readFile(root_.path("/usb/a.raw")), "abcdefg");
  EXPECT_EQ(rawWrite(&handle_, "x", 1), -1);
  EXPECT_EQ(errno, EBADF);
}

}  // namespace
