// What it costs to write recordings: processor time per gigabyte against writing the same bytes in
// pieces of 64 KiB, and against `ffmpeg -c copy` from such a file into another, in turns on the
// same file system; and the memory that a long file takes.
//
//   bench_avi_writing FOLDER
//
// FOLDER should lie in memory; 0.8 GiB of it are used. The recordings' clock is set by their
// pictures, 30 a second, so that files are brought up to date as often as on a camera, not only
// as often as a second goes by while a camera's hour is written.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "bench/table.h"
#include "board/hardware/vol_header.h"
#include "platform/avi.h"

namespace {

constexpr std::size_t kMiB = 1 << 20;
constexpr std::size_t kRoundBytes = 256 * kMiB;
constexpr std::size_t kLongFile = (std::size_t{4} << 30) + 64 * kMiB;
constexpr int kRounds = 15;
constexpr int kPool = 300;  // pictures that are repeated
constexpr std::size_t kPiece = 65536;
constexpr std::int64_t kPictureUs = 1000000 / 30;

std::int64_t clockUs = 1000000;

[[noreturn]] void fail(const std::string& what) {
  std::perror(("bench_avi_writing: " + what).c_str());
  std::exit(1);
}

double processorTime(int who) {
  rusage use{};
  getrusage(who, &use);
  const auto seconds = [](const timeval& t) {
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6;
  };
  return seconds(use.ru_utime) + seconds(use.ru_stime);
}

// Pictures of a usual size, filled with noise.
struct Pictures {
  std::string name;
  std::string all;
  std::vector<std::size_t> begins;
  std::vector<char> types;

  std::size_t length(std::size_t i) const {
    return (i + 1 < begins.size() ? begins[i + 1] : all.size()) - begins[i];
  }
};

std::string noise(std::size_t bytes) {
  static std::mt19937 random(1);
  std::string data(bytes, '\0');
  // No byte that could be part of a start code or a marker.
  for (char& c : data) c = static_cast<char>(random() % 200 + 20);
  return data;
}

Pictures mpeg4Pictures() {
  Pictures made{"MPEG-4, I 30 kB, P 5 kB", {}, {}, {}};
  for (int i = 0; i < kPool; ++i) {
    const bool key = i % 10 == 0;
    made.begins.push_back(made.all.size());
    made.types.push_back(key ? 'I' : 'P');
    made.all += std::string("\0\0\1\xb6", 4) + (key ? '\x10' : '\x50') + noise(key ? 29995 : 4995);
  }
  return made;
}

Pictures jpegPictures() {
  constexpr char kHead[] = "\xff\xd8\xff\xc0\0\x11\x08\x01\xe0\x02\x80\3\1\x22\0\2\x11\1\3\x11\1";
  Pictures made{"JPEG, 60 kB", {}, {}, {}};
  for (int i = 0; i < kPool; ++i) {
    made.begins.push_back(made.all.size());
    made.types.push_back('J');
    made.all += std::string(kHead, sizeof kHead - 1) + noise(60000 - sizeof kHead - 1) + "\xff\xd9";
  }
  return made;
}

// A recording of `bytes` or a little more. `look`: called after every picture with the size.
template <typename Look>
std::size_t record(const Pictures& pictures, const std::string& file, std::size_t bytes,
                   Look look) {
  AVI_HANDLE handle;
  const auto header = volHeader(640, 480);
  std::memcpy(handle.header, header.data(), sizeof handle.header);
  if (aviCreate(&handle) < 0 || aviOpen(&handle, file.c_str()) < 0) fail(file);
  std::size_t count = 0;
  while (handle.size < static_cast<std::int64_t>(bytes)) {
    const std::size_t i = count++ % kPool;
    handle.type = pictures.types[i];
    if (aviWrite(&handle, &pictures.all[pictures.begins[i]], static_cast<long>(pictures.length(i))))
      fail("aviWrite");
    clockUs += kPictureUs;
    look(static_cast<std::size_t>(handle.size));
  }
  handle.rate = 30000;
  if (aviClose(&handle) < 0) fail("aviClose");
  const auto size = static_cast<std::size_t>(handle.size);
  aviRelease(&handle);
  return size;
}

void writePieces(const Pictures& pictures, const std::string& file, std::size_t bytes) {
  const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0640);
  if (fd < 0) fail(file);
  std::size_t at = 0;
  for (std::size_t done = 0; done < bytes;) {
    if (at + kPiece > pictures.all.size()) at = 0;
    const std::size_t length = std::min(kPiece, bytes - done);
    if (write(fd, &pictures.all[at], length) != static_cast<ssize_t>(length)) fail("write");
    at += length;
    done += length;
  }
  close(fd);
}

void copyByFfmpeg(const std::string& from, const std::string& to) {
  const char* const words[] = {"ffmpeg", "-nostdin", "-v", "fatal",    "-i",   from.c_str(),
                               "-c",     "copy",     "-y", to.c_str(), nullptr};
  pid_t pid = 0;
  int status = 0;
  if (posix_spawnp(&pid, "ffmpeg", nullptr, nullptr, const_cast<char**>(words), environ) != 0 ||
      waitpid(pid, &status, 0) != pid || status != 0)
    fail("ffmpeg");
}

// What else the computer does only ever adds time: the quickest round tells what the work takes.
double least(const std::vector<double>& values) {
  return *std::min_element(values.begin(), values.end());
}

void compare(const Pictures& pictures, const std::string& folder) {
  const std::string ours = folder + "/ours.avi";
  const std::string theirs = folder + "/theirs.avi";
  const auto timed = [](int who, auto&& work) {
    const double before = processorTime(who);
    work();
    return processorTime(who) - before;
  };
  std::vector<double> recorded, written, copied;
  for (int round = -1; round < kRounds; ++round) {
    std::size_t size = 0;
    const double record1 =
        timed(RUSAGE_SELF, [&] { size = record(pictures, ours, kRoundBytes, [](std::size_t) {}); });
    const double write1 = timed(RUSAGE_SELF, [&] { writePieces(pictures, theirs, size); });
    unlink(theirs.c_str());
    const double copy1 = timed(RUSAGE_CHILDREN, [&] { copyByFfmpeg(ours, theirs); });
    unlink(theirs.c_str());
    unlink(ours.c_str());
    if (round < 0) continue;  // the first one warms up
    const double gigabytes = static_cast<double>(size) * 1e-9;
    recorded.push_back(record1 / gigabytes);
    written.push_back(write1 / gigabytes);
    copied.push_back(copy1 / gigabytes);
  }
  std::printf("%-58s %8.2f (reach: at most 1.2)\n",
              (pictures.name + ": against write() of 64 KiB").c_str(),
              least(recorded) / least(written));
  std::printf("%-58s %8.2f (reach: at most 0.8)\n", "  against ffmpeg -c copy",
              least(recorded) / least(copied));
  const std::string what = "film, " + pictures.name + ", processor time a GB";
  tableLine(what, tableValue(least(recorded) * 1e3, "ms"),
            "write() of 64 KiB, " + tableValue(least(written) * 1e3, "ms"),
            least(recorded) / least(written), "at most 1.2");
  tableLine(what, tableValue(least(recorded) * 1e3, "ms"),
            "ffmpeg -c copy, " + tableValue(least(copied) * 1e3, "ms"),
            least(recorded) / least(copied), "at most 0.8");
  std::printf("  %.0f ms per GB; write() %.0f ms, ffmpeg %.0f ms\n", least(recorded) * 1e3,
              least(written) * 1e3, least(copied) * 1e3);
}

long residentKiB() {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    long value = 0;
    if (word == "VmRSS:" && status >> value) return value;
  }
  fail("/proc/self/status");
}

// What lies far behind the end is taken out of the file again, so that it never takes more of the
// computer's memory than that; the recording does not notice.
void recordLongFile(const Pictures& pictures, const std::string& folder) {
  constexpr std::size_t kKeep = 256 * kMiB;
  const std::string file = folder + "/long.avi";
  int fd = -1;
  std::size_t holeEnd = kMiB;  // the headers stay
  long first = 0;
  long most = 0;
  const std::size_t size = record(pictures, file, kLongFile, [&](std::size_t at) {
    if (at < holeEnd + 2 * kKeep) return;
    if (fd < 0) {
      fd = open(file.c_str(), O_RDWR | O_CLOEXEC);
      first = residentKiB();
    }
    if (fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(holeEnd),
                  static_cast<off_t>(kKeep)) != 0)
      fail("fallocate");
    holeEnd += kKeep;
    most = std::max(most, residentKiB());
  });
  close(fd);
  unlink(file.c_str());
  std::printf("%-58s %8ld KiB (reach: 0), of %ld\n",
              ("  memory that is added over " + std::to_string(size >> 20) + " MiB").c_str(),
              std::max(most, residentKiB()) - first, first);
}

}  // namespace

// The clock of the recordings.
extern "C" int __wrap_clock_gettime(clockid_t, timespec* now) {
  now->tv_sec = static_cast<time_t>(clockUs / 1000000);
  now->tv_nsec = static_cast<long>(clockUs % 1000000 * 1000);
  return 0;
}

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: bench_avi_writing FOLDER\n", stderr);
    return 2;
  }
  for (const Pictures& pictures : {mpeg4Pictures(), jpegPictures()}) {
    compare(pictures, argv[1]);
    recordLongFile(pictures, argv[1]);
  }
  return 0;
}
