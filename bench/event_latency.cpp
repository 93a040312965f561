// How long it takes from what an event watches for to the message that switches its relay on.
//
//   bench_event_latency BOARD KIND EVENTS
//
// BOARD is the folder of a running board. KIND is "motion" (something moves in front of the camera;
// the events of window 1 and 2 switch the first and the second relay), "web" (the web interface
// asks for its first and second trigger, which do the same) or "input" (the digital input signals,
// and the first relay switches). This process takes the place of socmond there, makes what is
// watched for happen, and notes when the message comes. Prints one line per figure, and ends with
// status 1 when no message follows.
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

#include "bench/table.h"
#include "core/status_slots.h"
#include "platform/linux/root.h"
#include "platform/linux/unix_address.h"
#include "platform/message.h"
#include "platform/motion.h"
#include "platform/stream_buffer.h"
#include "tools/boardctl/hardware.h"

namespace {

constexpr int kRelays = 2;
constexpr int kRelayMessages[kRelays] = {52, 59};
constexpr double kEventPauseMs = 2000;  // of an event that has fired
// Then a level must have come down again; and the event looks anew a poll later.
constexpr double kRestMs = 500;
constexpr double kMissedMs = 5000;
// What the promise allows besides the pauses.
constexpr double kAllowanceMs = 50;
constexpr long kFrameWaitMs = 100;

struct Kind {
  const char* name;
  int relays;      // that such events switch
  double pollMs;   // between two looks of the event: what happens may come at any time within
  double aheadMs;  // and what the main loop pauses before that
  // Makes the thing happen that the event of relay `relay` watches for.
  void (*cause)(const std::string& board, int relay);
};

void movement(const std::string& board, int relay);
void webTrigger(const std::string& board, int relay);
void inputSignal(const std::string& board, int relay);

constexpr Kind kKinds[] = {{"motion", 2, 200, 0, movement},
                           {"web", 2, 2000, 0, webTrigger},
                           {"input", 1, 100, 300, inputSignal}};
constexpr const Kind& kMotion = kKinds[0];

[[noreturn]] void fail(const std::string& text) {
  std::fprintf(stderr, "bench_event_latency: %s\n", text.c_str());
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

  // Waits for the message that switches relay `relay` on. Returns when it came, 0 when it
  // has not come until `untilMs`.
  double await(int relay, double untilMs) const {
    for (;;) {
      const double left = untilMs - nowMs();
      pollfd one = {fd_, POLLIN, 0};
      if (left <= 0 || poll(&one, 1, static_cast<int>(left) + 1) < 1) return 0;
      const double now = nowMs();
      TMessage message{};
      if (recv(fd_, &message, sizeof message, 0) != static_cast<ssize_t>(sizeof message)) continue;
      if (message.id == kRelayMessages[relay] && message.argument1 == 1) return now;
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

void movement(const std::string& board, int relay) { tellHardware(board, movementIn(relay)); }

void webTrigger(const std::string& /*board*/, int relay) {
  const int slot = relay == 0 ? kSlotWebTrigger1 : kSlotWebTrigger2;
  sbSetUserdata(sbVideo(), slot, slot);
}

void inputSignal(const std::string& /*board*/, int /*relay*/) {
  if (SendMessage("video_svr", 0, 0, 0, kMessageInputTrigger) != 0)
    fail("the daemon takes no message");
}

Sample measure(const std::string& board, const Kind& kind, int events) {
  const RelayPeer peer(board);
  std::minstd_rand random(1);
  std::uniform_real_distribution<double> phase(0, kind.pollMs + std::max(kind.aheadMs, 200.0));
  double readyMs[kRelays] = {};
  Sample latency;
  for (int i = 0; i < events; ++i) {
    const int relay = i % kind.relays;
    sleepUntil(std::max(readyMs[relay], nowMs()) + phase(random));
    const double begin = nowMs();
    kind.cause(board, relay);
    const double end = peer.await(relay, begin + kMissedMs);
    if (&kind == &kMotion) tellHardware(board, "motion off");
    if (end <= 0) fail(std::string(kind.name) + " has not switched relay " + std::to_string(relay));
    readyMs[relay] = end + kEventPauseMs + kRestMs;
    latency.add(end - begin);
  }
  return latency;
}

void report(const std::string& what, const Sample& latency, double bound, const char* pauses) {
  const double p99 = latency.percentile(99);
  std::printf("%-58s %8.1f ms median, %.1f ms in 99 of 100, %.1f ms at most\n",
              (what + ", " + std::to_string(latency.size()) + " events").c_str(),
              latency.percentile(50), p99, latency.percentile(100));
  std::printf("%-58s %8.1f ms\n", pauses, bound);
  std::printf("%-58s %8.2f (reach: at most 1)\n", "99 of 100 against it", p99 / bound);
  char figure[64];
  std::snprintf(figure, sizeof figure, "p50 %.0f ms, p99 %.0f ms", latency.percentile(50), p99);
  tableLine(what, figure, std::string(pauses) + ", " + tableValue(bound, "ms"), p99 / bound,
            "at most 1");
}

}  // namespace

int main(int argc, char** argv) {
  const Kind* kind = nullptr;
  for (const Kind& one : kKinds)
    if (argc == 4 && std::strcmp(argv[2], one.name) == 0) kind = &one;
  const int events = argc == 4 ? std::atoi(argv[3]) : 0;
  if (kind == nullptr || events < 1) {
    std::fprintf(stderr, "usage: bench_event_latency BOARD motion|web|input EVENTS\n");
    return 2;
  }
  setPlatformRoot(argv[1]);
  if (kind != &kMotion) {
    const Sample latency = measure(argv[1], *kind, events);
    report(std::string(kind->name) + " trigger to relay message", latency,
           kind->aheadMs + kind->pollMs + kAllowanceMs,
           kind->aheadMs > 0 ? "a pass, a poll and 50 ms" : "a poll and 50 ms");
    return 0;
  }
  FrameClock clock;
  const Sample latency = measure(argv[1], *kind, events);
  const Sample& frames = clock.stop();
  std::printf("%-58s %8.1f ms mean, %.1f ms in 99 of 100\n", "time between frames", frames.mean(),
              frames.percentile(99));
  const int mode = kStatusMode.get(sbGetUserdata(sbVideo(), kSlotStatus));
  report("movement to relay message in mode " + std::to_string(mode), latency,
         kind->pollMs + 2 * frames.percentile(99) + kAllowanceMs, "a poll, two frames and 50 ms");
  return 0;
}
