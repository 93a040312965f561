// What the recorder on the Samba share gets through: the real recorder reads a real stream buffer
// and writes AVI files below /smb, which has to be a mount of its own in memory.
//
//   bench_samba_recorder [SECONDS]      of each figure, 5 by default
//
// Real time are 30 pictures of 640x480 a second in 15 frames, as the encoder packs them. Work is
// what a frame takes from its preview to the end of its last write. The recorder's loop pauses for
// 10 ms after each frame, so that it leaves the processor to the capture: that alone limits it to
// some 90 frames a second, six times real time. The figure for ten times real time therefore leaves
// that pause out, and waits for frames as the loop does. Prints each figure with its limit; the
// status is 1 when one is missed.
#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench/table.h"
#include "board/hardware/vol_header.h"
#include "capture/chunk_trailer.h"
#include "platform/linux/stream_buffer_owner.h"
#include "platform/media.h"
#include "platform/os.h"
#include "platform/stream_buffer.h"
#include "record/smb_recorder.h"

namespace {

constexpr int kPicturesPerFrame = 2;
constexpr double kFramesPerSecond = 15;
constexpr int kTimes = 10;     // real time
constexpr int kKeyEvery = 15;  // frames
constexpr std::size_t kKeyBytes = 60000;
constexpr std::size_t kOtherBytes = 15000;  // 4.3 Mbit/s in all
constexpr long kLoopPauseUs = 10000;
constexpr std::size_t kCopyCounts = 256;  // what is smaller is no picture

std::atomic<bool> withPause{true};
thread_local bool counting = false;  // on the recorder's thread
std::atomic<long> copied{0};

double now() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

double threadTime() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// The recorder, with a watch.
class Watched : public TSmbRecorder {
 public:
  Watched() : TSmbRecorder("") {}

  std::vector<double> work;  // seconds per frame
  double processor = 0;      // seconds
  long bytes = 0;
  std::atomic<long> frames{0};
  std::atomic<int> first{0};

 protected:
  bool onPreview(const SB_FRAME& frame) override {
    counting = true;
    begin_ = now();
    processorBegin_ = threadTime();
    if (first == 0) first = static_cast<int>(loadLe32(frame.number));
    return TSmbRecorder::onPreview(frame);
  }
  bool onCapture(const char* data, long length) override {
    const bool good = TSmbRecorder::onCapture(data, length);
    work.push_back(now() - begin_);
    processor += threadTime() - processorBegin_;
    bytes += length;
    ++frames;
    return good;
  }

 private:
  double begin_ = 0;
  double processorBegin_ = 0;
};

std::string noise(std::size_t bytes) {
  std::mt19937 random(1);
  std::string data(bytes, '\0');
  // No byte that could be part of a start code.
  for (char& c : data) c = static_cast<char>(random() % 200 + 20);
  return data;
}

// Publishes frame number `number`, as the capture thread would.
bool publish(int number, const std::string& picture, const std::string& header) {
  SB_HANDLE* const video = sbVideo();
  TAutoFrame frame(video, 0, nullptr, nullptr, 10);
  if (!frame) return false;
  char* at = frame->payload;
  char* trailer = frame->payload + sbGetFrameSize(video) - static_cast<long>(kFrameHeadBytes);
  for (int i = 0; i < kPicturesPerFrame; ++i) {
    const bool key = number % kKeyEvery == 1 && i == 0;
    const std::size_t bytes = key ? kKeyBytes : kOtherBytes;
    std::memcpy(at, picture.data(), bytes);
    std::memcpy(at, "\0\0\1\xb6", 4);
    at[4] = key ? '\x10' : '\x50';
    at += bytes;
    trailer -= kTrailerBytes;
    storeTrailer(trailer, key ? kTypeKey : kTypePredicted, kTrailerMore,
                 static_cast<std::uint32_t>(bytes));
  }
  markLastTrailer(trailer);
  TDateTime time;
  time.set();
  storeLe32(frame->seconds, time.seconds());
  storeLe32(frame->microseconds, time.microseconds());
  storeLe32(frame->length, static_cast<std::uint32_t>(at - frame->payload));
  storeLe32(frame->number, static_cast<std::uint32_t>(number));
  std::memset(frame->userdata, 0, sizeof frame->userdata);
  std::memcpy(frame->userdata[0], header.data(), header.size());
  return true;
}

struct Result {
  long published = 0;
  long lost = 0;
  double mean = 0;  // seconds of work per frame
  double worst = 0;
  double processor = 0;
  double copies = 0;  // of what was recorded
  long bytes = 0;
};

// Feeds the recorder at `frameRate` frames a second.
Result run(double frameRate, double seconds, const std::string& picture,
           const std::string& header) {
  static int number = 0;
  Result result;
  copied = 0;
  Watched recorder;
  recorder.start(static_cast<long>(seconds) + 60);
  timespec next{};
  clock_gettime(CLOCK_MONOTONIC, &next);
  const int begin = number + 1;
  const double end = now() + seconds;
  while (now() < end) {
    if (publish(number + 1, picture, header)) ++number;
    next.tv_nsec += static_cast<long>(1e9 / frameRate);
    for (; next.tv_nsec >= 1000000000; ++next.tv_sec) next.tv_nsec -= 1000000000;
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
  }
  const double patience = now() + 0.5;  // for what is still in the buffer
  while (now() < patience && recorder.first + recorder.frames <= number)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  TStopDeadline deadline;
  if (!deadline.end(recorder)) std::exit(1);
  result.published = number - begin + 1;
  result.lost = number + 1 - recorder.first - recorder.frames;
  for (const double work : recorder.work) {
    result.mean += work / static_cast<double>(recorder.work.size());
    result.worst = std::max(result.worst, work);
  }
  result.processor = recorder.processor / static_cast<double>(std::max(1L, recorder.frames.load()));
  result.copies = static_cast<double>(copied) / static_cast<double>(std::max(1L, recorder.bytes));
  result.bytes = recorder.bytes;
  if (recorder.frames == 0) result.lost = result.published;
  return result;
}

long bytesOnTheShare() {
  long bytes = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator("/smb"))
    if (entry.is_regular_file()) bytes += static_cast<long>(entry.file_size());
  return bytes;
}

void line(const char* what, double value, const char* unit, const std::string& limit) {
  std::printf("%-58s %8.2f %s%s\n", what, value, unit, limit.c_str());
}

}  // namespace

// --- What the linker redirects to here.
extern "C" {
void* __real_memcpy(void* to, const void* from, std::size_t size);
void* __real_memmove(void* to, const void* from, std::size_t size);
// What the compiler makes of those whose destination it knows.
void* __real___memcpy_chk(void* to, const void* from, std::size_t size, std::size_t room);
void* __real___memmove_chk(void* to, const void* from, std::size_t size, std::size_t room);
int __real__ZN2os6usleepEm(unsigned long microseconds);

void* __wrap_memcpy(void* to, const void* from, std::size_t size) {
  if (counting && size >= kCopyCounts) copied += static_cast<long>(size);
  return __real_memcpy(to, from, size);
}

void* __wrap_memmove(void* to, const void* from, std::size_t size) {
  if (counting && size >= kCopyCounts) copied += static_cast<long>(size);
  return __real_memmove(to, from, size);
}

void* __wrap___memcpy_chk(void* to, const void* from, std::size_t size, std::size_t room) {
  if (counting && size >= kCopyCounts) copied += static_cast<long>(size);
  return __real___memcpy_chk(to, from, size, room);
}

void* __wrap___memmove_chk(void* to, const void* from, std::size_t size, std::size_t room) {
  if (counting && size >= kCopyCounts) copied += static_cast<long>(size);
  return __real___memmove_chk(to, from, size, room);
}

int __wrap__ZN2os6usleepEm(unsigned long microseconds) {
  return withPause || microseconds != kLoopPauseUs ? __real__ZN2os6usleepEm(microseconds) : 0;
}
}

int main(int argc, char** argv) {
  const double seconds = argc > 1 ? std::atof(argv[1]) : 5;
  if (TSmbRecorder::getState() != 1 || !(seconds > 0)) {
    std::fprintf(stderr, "bench_samba_recorder: nothing is mounted at /smb\n");
    return 1;
  }
  sb::ownSegments({});
  const auto head = volHeader(640, 480);
  char header[2 * sizeof head + 1];
  bin2hex(head.data(), sizeof head, header, sizeof header);
  const std::string picture = noise(kKeyBytes);
  bool good = true;

  withPause = false;
  const Result fast = run(kTimes * kFramesPerSecond, seconds, picture, header);
  withPause = true;
  const double written = static_cast<double>(bytesOnTheShare()) / static_cast<double>(fast.bytes);
  std::printf("fed with %d times real time, without the loop's pause: %ld frames\n", kTimes,
              fast.published);
  line("  frames lost", static_cast<double>(fast.lost), "", " (reach: none)");
  line("  work per frame, mean", fast.mean * 1e3, "ms", "");
  line("  work per frame, worst", fast.worst * 1e3, "ms", "");
  line("  work per frame, processor time", fast.processor * 1e3, "ms", "");
  const double times = 1 / kFramesPerSecond / fast.mean;
  line("  frame's duration / work", times, "times real time", " (reach: at least 10)");
  line("  copies of what was recorded", fast.copies, "", " (reach: at most 1)");
  line("  on the share, of what was recorded", written, "", " (reach: at least 1)");
  tableLine("share recorder, work a frame, without the loop's pause",
            tableValue(fast.mean * 1e3, "ms") + ", " + std::to_string(fast.lost) + " frames lost",
            "a tenth of a frame's duration, " + tableValue(100 / kFramesPerSecond, "ms"),
            kTimes / times, "at most 1");
  good = fast.lost == 0 && times >= kTimes && fast.copies <= 1 && written >= 1;

  std::printf("with the loop's pause of 10 ms after each frame\n");
  int through = 0;
  for (const int rate : {1, 2, 3, 4, 5, 6, 7}) {
    const Result result = run(rate * kFramesPerSecond, seconds, picture, header);
    if (result.lost > 0) {
      std::printf("  at %d times real time %ld of %ld frames are lost\n", rate, result.lost,
                  result.published);
      break;
    }
    through = rate;
  }
  line("  without a gap get through", through, "times real time", " (reach: at least 2)");
  tableLine("share recorder without a gap, with the loop's pause of 10 ms",
            std::to_string(through) + " times real time", "real time", through, "at least 2");
  return good && through >= 2 ? 0 : 1;
}
