// What the recorder on USB storage takes for a picture: the real recorder's name and its writing,
// against opening, writing and closing a file of the same bytes in the same folder, and against
// `cp` of as many files; the same for a film, which is an MPEG-4 key picture that is made an AVI
// file.
//
//   bench_usb_recorder [FILES]      of each kind, 300 by default
//
// Runs in a board whose /usb lies in memory.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/table.h"
#include "board/hardware/vol_header.h"
#include "platform/linux/stream_buffer_owner.h"
#include "platform/media.h"
#include "platform/storage.h"
#include "record/usb_recorder.h"

namespace {

constexpr std::size_t kPictureBytes = 100000;
constexpr std::size_t kKeyBytes = 30000;
constexpr int kRounds = 9;
constexpr std::uint32_t kBegin = 1700000000;  // of the seconds that name the pictures

[[noreturn]] void fail(const std::string& what) {
  std::perror(("bench_usb_recorder: " + what).c_str());
  std::exit(1);
}

double nowUs() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_nsec) * 1e-3;
}

// The recorder, whose steps this program takes itself: its loop takes one picture a second.
class Recorder : public TUsbRecorder {
 public:
  Recorder() : TUsbRecorder(nullptr, "/usb", "ours", "") {}

  // Stores a picture under the name of this second.
  void store(const std::string& picture, std::uint32_t second) {
    const char* data = picture.data();
    auto length = static_cast<long>(picture.size());
    const char* const extension = getExtention(data);
    if (std::strcmp(extension, "avi") == 0) {
      length = i2avi(data, length, film_.data(), static_cast<long>(film_.size()));
      data = film_.data();
    }
    if (length < 1 || !onSetname(TDateTime(second, 0), extension) || !onCapture(data, length))
      fail("the recorder");
  }

 private:
  std::vector<char> film_ = std::vector<char>(256 << 10);
};

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// The least that anybody does for a file.
void writeFile(const std::string& data, const std::string& name) {
  const int fd = open(name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0640);
  if (fd < 0 || write(fd, data.data(), data.size()) != static_cast<ssize_t>(data.size()))
    fail(name);
  close(fd);
}

void copyByCp(const std::string& from, const std::string& to) {
  const char* const words[] = {"cp", "-r", from.c_str(), to.c_str(), nullptr};
  pid_t pid = 0;
  int status = 0;
  if (posix_spawnp(&pid, "cp", nullptr, nullptr, const_cast<char**>(words), environ) != 0 ||
      waitpid(pid, &status, 0) != pid || status != 0)
    fail("cp");
}

// Microseconds per file.
template <typename Work>
double timed(int files, Work work) {
  const double begin = nowUs();
  work();
  return (nowUs() - begin) / files;
}

void measure(const char* what, const std::string& picture, int files) {
  Recorder recorder;
  std::vector<double> ours, least, copied;
  for (int round = -1; round < kRounds; ++round) {
    std::filesystem::create_directory("/usb/least");
    const double a = timed(files, [&] {
      for (int i = 0; i < files; ++i) recorder.store(picture, kBegin + static_cast<unsigned>(i));
    });
    const std::filesystem::path folder = std::filesystem::directory_iterator("/usb/ours")->path();
    std::string stored(std::filesystem::file_size(*std::filesystem::directory_iterator(folder)),
                       'x');
    const double b = timed(files, [&] {
      for (int i = 0; i < files; ++i) writeFile(stored, "/usb/least/" + std::to_string(i));
    });
    const double c = timed(files, [&] { copyByCp("/usb/least", "/usb/copy"); });
    for (const char* name : {"/usb/ours", "/usb/least", "/usb/copy"})
      std::filesystem::remove_all(name);
    if (round < 0) continue;  // the first one warms up
    ours.push_back(a);
    least.push_back(b);
    copied.push_back(c);
  }
  const double us = median(ours);
  std::printf("%-58s %8.1f us; open, write and close %.1f us (%.2f), cp %.1f us (%.2f)\n", what, us,
              median(least), us / median(least), median(copied), us / median(copied));
  tableLine(what, tableValue(us, "us"), "open, write, close " + tableValue(median(least), "us"),
            us / median(least), "-");
  tableLine(std::string(what) + ", against cp", tableValue(us, "us"),
            "cp of as many " + tableValue(median(copied), "us"), us / median(copied), "-");
}

}  // namespace

int main(int argc, char** argv) {
  const int files = argc > 1 ? std::atoi(argv[1]) : 300;
  int mounted = 0;
  if (files < 1 || get_usb_mount_state(&mounted) != 0 || mounted == 0) {
    std::fputs("bench_usb_recorder: nothing is mounted at /usb\n", stderr);
    return 1;
  }
  sb::ownSegments({});
  const auto header = volHeader(640, 480);
  measure("USB recorder, a JPEG picture of 100 kB",
          "\xff\xd8" + std::string(kPictureBytes - 2, 'x'), files);
  measure("USB recorder, a film of a key picture of 30 kB",
          std::string(reinterpret_cast<const char*>(header.data()), header.size()) +
              std::string("\0\0\1\xb6\x10", 5) + std::string(kKeyBytes, 'x'),
          files);
  return 0;
}
