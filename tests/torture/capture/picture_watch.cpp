// picture_watch: counts the pictures of a board that are lost, by what the virtual hardware says
// and by what reaches the stream, and tells apart those that the machine itself cost.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <string>

#include "platform/linux/root.h"
#include "platform/stream_buffer.h"
#include "platform/timer.h"
#include "tests/board/stream_check/frame_parser.h"
#include "tests/torture/capture/evidence.h"
#include "tests/torture/capture/hardware_count.h"

namespace {

constexpr char kUsage[] =
    "picture_watch --board FOLDER --daemon PID (--node NODE --hardware PID | --period MS)\n"
    "  --node NODE    the pictures are those of this node, such as /dev/mpg430\n"
    "  --period MS    one comes every so many ms\n"
    "Until SIGTERM. Prints a JSON object; ends with 0 iff nothing was lost.\n";

constexpr long kFrameWaitMs = 20;  // how often it looks at the clocks at least
// A picture that was lost is the machine's affair when threads that it needed stood in the queue
// for a processor about that long at that time. Half of a picture's time, because the rest of it
// passes with work in any case.
constexpr long kWaitedPerPictureMs = 16;
// What a thread waits is counted when it has a processor at last, which may be later.
constexpr std::uint32_t kBeforeMs = 200;
constexpr std::uint32_t kBehindMs = 600;
constexpr std::size_t kSteady = 60;  // frames that show how far the stream is behind the hardware

volatile std::sig_atomic_t ended = 0;

struct Options {
  std::string board, node;
  int daemon = 0, hardware = 0;
  long period = 0;
};

bool parse(int argc, char** argv, Options* options) {
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string name = argv[i];
    if (name == "--board")
      options->board = argv[i + 1];
    else if (name == "--node")
      options->node = argv[i + 1];
    else if (name == "--daemon")
      options->daemon = std::atoi(argv[i + 1]);
    else if (name == "--hardware")
      options->hardware = std::atoi(argv[i + 1]);
    else if (name == "--period")
      options->period = std::atol(argv[i + 1]);
    else
      return false;
  }
  const bool byHardware = !options->node.empty() && options->hardware > 0;
  return argc % 2 == 1 && !options->board.empty() && options->daemon > 0 &&
         byHardware == (options->period == 0);
}

// How many pictures the stream is behind the hardware. That swings by what is under way; a picture
// that the daemon has taken and lost stays away for good.
class Distance {
 public:
  void take(long behind) {
    recent_.push_back(behind);
    if (recent_.size() < kSteady) return;
    const long least = *std::min_element(recent_.begin(), recent_.end());
    recent_.pop_front();
    if (!steady_) least_ = least;
    steady_ = true;
    last_ = least;
  }
  // Pictures that have gone. What is late on a busy machine has come by then.
  long lost() const { return std::max(0L, last_ - least_); }

 private:
  std::deque<long> recent_;
  bool steady_ = false;
  long least_ = 0;
  long last_ = 0;
};

class Watch {
 public:
  explicit Watch(const Options& options) : options_(options) {
    evidence_.watchThread(options.daemon, "KVX-video");
    if (options.hardware > 0) evidence_.watchProcess(options.hardware);
  }

  void step();
  int report();

 private:
  void take(const SB_FRAME* frame, long size);
  void lookAtHardware();
  void noteMissed(long count, long spanMs);
  void judgeMissed(bool all);

  const Options options_;
  Evidence evidence_;
  const std::uint32_t begun_ = monotonicMs();
  std::int32_t number_ = 0, epoch_ = 0;

  std::uint32_t lastNumber_ = 0;
  std::uint64_t lastUs_ = 0;
  long frames_ = 0, pictures_ = 0, unseen_ = 0, broken_ = 0;
  bool known_ = false;  // the hardware's count at the beginning
  HardwareCount first_, last_;
  struct Missed {
    std::uint32_t fromMs, atMs;
    long count;
  };
  std::deque<Missed> missedNow_;  // still to be judged
  long missed_ = 0, byMachine_ = 0, dropped_ = 0;
  Distance distance_;
};

void Watch::step() {
  {
    const TAutoFrame frame(sbVideo(), 0, &number_, &epoch_, kFrameWaitMs);
    evidence_.sample(monotonicMs());
    if (frame) take(frame.get(), sbGetFrameSize(sbVideo()));
  }
  if (!options_.node.empty()) lookAtHardware();
  judgeMissed(false);
}

void Watch::take(const SB_FRAME* frame, long size) {
  RawFrame raw;
  const auto* bytes = reinterpret_cast<const unsigned char*>(frame);
  raw.bytes.assign(bytes, bytes + size);
  const bool follows = frames_ > 0 && raw.number() == lastNumber_ + 1;
  if (frames_ > 0 && !follows) {
    unseen_ += raw.number() - lastNumber_ - 1;
    dropped_ += distance_.lost();
    distance_ = Distance();
  }
  ++frames_;
  lastNumber_ = raw.number();
  if (options_.node.empty()) {
    ++pictures_;
    const auto passed = static_cast<long>((raw.timeUs() - lastUs_) / 1000);
    if (follows) noteMissed(passed / options_.period - 1, passed);
    lastUs_ = raw.timeUs();
    return;
  }
  std::string error;
  const auto chunks = parseChunks(raw, &error);
  if (!error.empty()) ++broken_;
  for (const Chunk& chunk : chunks)
    if (chunk.type != 'i' && chunk.type != 'p') ++pictures_;
  HardwareCount now;
  if (!countHardware(options_.board, options_.node, &now)) return;
  distance_.take(now.given - pictures_);
}

void Watch::lookAtHardware() {
  HardwareCount now;
  if (!countHardware(options_.board, options_.node, &now)) return;
  if (!known_) first_ = last_ = now;
  known_ = true;
  const long more = now.missed - last_.missed;
  noteMissed(more, 40 * more);
  last_ = now;
}

void Watch::noteMissed(long count, long spanMs) {
  if (count < 1) return;
  missed_ += count;
  const std::uint32_t now = monotonicMs();
  missedNow_.push_back({now - static_cast<std::uint32_t>(spanMs) - kBeforeMs, now, count});
}

void Watch::judgeMissed(bool all) {
  const std::uint32_t now = monotonicMs();
  while (!missedNow_.empty() && (all || now - missedNow_.front().atMs >= kBehindMs)) {
    const Missed& missed = missedNow_.front();
    const long waited = evidence_.waitedMs(missed.fromMs);
    byMachine_ += std::min(missed.count, waited / kWaitedPerPictureMs);
    std::fprintf(stderr, "%8.3f s: %ld missed, %ld ms waited for a processor\n",
                 (missed.atMs - begun_) / 1000.0, missed.count, waited);
    missedNow_.pop_front();
  }
}

int Watch::report() {
  judgeMissed(true);
  dropped_ += distance_.lost();
  const long lost = missed_ - byMachine_ + dropped_;
  const long given = options_.node.empty() ? pictures_ : last_.given - first_.given;
  const double seconds = (monotonicMs() - begun_) / 1000.0;
  std::printf(
      "{\"seconds\":%.1f,\"pictures\":%ld,\"rate\":%.1f,\"frames\":%ld,\"unseen\":%ld,"
      "\"broken\":%ld,\"missed\":%ld,\"byMachine\":%ld,\"dropped\":%ld,\"lost\":%ld}\n",
      seconds, given, static_cast<double>(given) / seconds, frames_, unseen_, broken_, missed_,
      byMachine_, dropped_, lost);
  return lost == 0 && broken_ == 0 && given > 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!parse(argc, argv, &options)) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  std::signal(SIGTERM, [](int) { ended = 1; });
  setPlatformRoot(options.board);
  Watch watch(options);
  while (ended == 0) watch.step();
  return watch.report();
}
