// How long it takes from something that moves in front of the camera to the message that switches
// the relay on.
//
//   bench_motion_latency BOARD EVENTS
//
// BOARD is the folder of a running board whose motion events switch a relay each, window 1 the
// first and window 2 the second. This process takes the place of socmond there, lets something move
// in both windows by turns, and notes when the message comes. Prints one line per figure, and ends
// with status 1 when a movement is followed by none.
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/root.h"
#include "platform/linux/unix_address.h"
#include "platform/message.h"
#include "platform/motion.h"
#include "platform/stream_buffer.h"
#include "tools/boardctl/hardware.h"

namespace {

constexpr int kWindows = 2;
constexpr int kRelayMessages[kWindows] = {52, 59};
constexpr double kEventPauseMs = 2000;  // of a motion event that has fired
// Then its level must have come down again; and it looks anew a poll later.
constexpr double kRestMs = 500;
constexpr double kMissedMs = 5000;
// A movement comes at any time between two looks of its event, as in life.
constexpr double kPollMs = 200;
// What the promise allows besides a poll and two pictures.
constexpr double kAllowanceMs = 50;
constexpr long kFrameWaitMs = 100;

[[noreturn]] void fail(const std::string& text) {
  std::fprintf(stderr, "bench_motion_latency: %s\n", text.c_str());
  std::exit(1);
}

double nowMs() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) * 1e-6;
}

void sleepUntil(double ms) {
  const double left = ms - nowMs();
  if (left > 0) usleep(static_cast<useconds_t>(left * 1e3));
}

// Figures of one kind.
class Sample {
 public:
  void add(double value) { values_.push_back(value); }
  std::size_t size() const { return values_.size(); }
  double mean() const {
    double sum = 0;
    for (const double value : values_) sum += value;
    return values_.empty() ? 0 : sum / static_cast<double>(values_.size());
  }
  // The smallest value that `percent` of all do not exceed.
  double percentile(double percent) const {
    if (values_.empty()) return 0;
    std::vector<double> sorted = values_;
    std::sort(sorted.begin(), sorted.end());
    const double rank = std::ceil(percent / 100 * static_cast<double>(sorted.size()));
    return sorted[static_cast<std::size_t>(std::max(rank, 1.0)) - 1];
  }

 private:
  std::vector<double> values_;
};

// Notes the times between frames, that is, how long one call for a picture takes. On a thread of
// its own until stop().
class FrameClock {
 public:
  FrameClock() : thread_([this] { run(); }) {}
  const Sample& stop() {
    ending_ = true;
    thread_.join();
    return times_;
  }

 private:
  void run() {
    std::int32_t number = 0;
    std::int32_t epoch = 0;
    std::int32_t last = 0;
    double lastMs = 0;
    while (!ending_) {
      const TAutoFrame frame(sbVideo(), 0, &number, &epoch, kFrameWaitMs);
      if (!frame) continue;
      const double now = nowMs();
      if (lastMs > 0 && number == last + 1) times_.add(now - lastMs);
      last = number;
      lastMs = now;
    }
  }

  std::atomic<bool> ending_{false};
  Sample times_;
  std::thread thread_;
};

// The process "socmond" of the board.
class RelayPeer {
 public:
  explicit RelayPeer(const std::string& board) {
    const std::string path = board + "/run/camera/msg/socmond";
    unlink(path.c_str());  // of a predecessor that was killed
    UnixAddress address;
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0 || !address.set(path.c_str()) || bind(fd_, address.get(), address.size()) != 0)
      fail(path + ": " + std::strerror(errno));
    address.clear();
  }

  // Waits for the message that switches the relay of `window` on. Returns when it came, 0 when it
  // has not come until `untilMs`.
  double await(int window, double untilMs) const {
    for (;;) {
      const double left = untilMs - nowMs();
      pollfd one = {fd_, POLLIN, 0};
      if (left <= 0 || poll(&one, 1, static_cast<int>(left) + 1) < 1) return 0;
      const double now = nowMs();
      TMessage message{};
      if (recv(fd_, &message, sizeof message, 0) != static_cast<ssize_t>(sizeof message)) continue;
      if (message.id == kRelayMessages[window] && message.argument1 == 1) return now;
    }
  }

 private:
  int fd_ = -1;
};

void tellHardware(const std::string& board, const std::string& line) {
  std::string text;
  if (askHardware(board, line, &text) != Answer::kOk) fail(line + ": " + text);
}

// The command that lets something move in the middle of a window.
std::string movementIn(int window) {
  tag_MotionDetect place{};
  if (get_motion_detect(&place, window + 1) != 0 || place.enable <= 0)
    fail("window " + std::to_string(window + 1) + " is off");
  return "motion on " + std::to_string(place.x + place.width / 4) + ' ' +
         std::to_string(place.y + place.height / 4) + ' ' + std::to_string(place.width / 2) + ' ' +
         std::to_string(place.height / 2);
}

Sample measure(const std::string& board, int events) {
  const RelayPeer peer(board);
  std::minstd_rand random(1);
  std::uniform_real_distribution<double> phase(0, 2 * kPollMs);
  double readyMs[kWindows] = {};
  Sample latency;
  for (int i = 0; i < events; ++i) {
    const int window = i % kWindows;
    const std::string movement = movementIn(window);
    sleepUntil(std::max(readyMs[window], nowMs()) + phase(random));
    const double begin = nowMs();
    tellHardware(board, movement);
    const double end = peer.await(window, begin + kMissedMs);
    tellHardware(board, "motion off");
    if (end <= 0) fail("a movement in window " + std::to_string(window + 1) + " switched no relay");
    readyMs[window] = end + kEventPauseMs + kRestMs;
    latency.add(end - begin);
  }
  return latency;
}

}  // namespace

int main(int argc, char** argv) {
  const int events = argc == 3 ? std::atoi(argv[2]) : 0;
  if (events < 1) {
    std::fprintf(stderr, "usage: bench_motion_latency BOARD EVENTS\n");
    return 2;
  }
  setPlatformRoot(argv[1]);
  FrameClock clock;
  const Sample latency = measure(argv[1], events);
  const Sample& frames = clock.stop();
  const double bound = kPollMs + 2 * frames.percentile(99) + kAllowanceMs;
  std::printf("%-58s %8.1f ms median, %.1f ms in 99 of 100, %.1f ms at most\n",
              ("movement to relay message, " + std::to_string(latency.size()) + " events").c_str(),
              latency.percentile(50), latency.percentile(99), latency.percentile(100));
  std::printf("%-58s %8.1f ms mean, %.1f ms in 99 of 100\n", "time between frames", frames.mean(),
              frames.percentile(99));
  std::printf("%-58s %8.1f ms (with the mean: %.1f ms)\n", "a poll, two frames and 50 ms", bound,
              kPollMs + 2 * frames.mean() + kAllowanceMs);
  std::printf("%-58s %8.2f (reach: at most 1)\n", "99 of 100 against it",
              latency.percentile(99) / bound);
  return 0;
}
