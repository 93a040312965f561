// camctl watch: the camera's life, a line a second.
#include <cinttypes>
#include <cstdio>
#include <ctime>

#include "platform/timer.h"
#include "tools/camctl/camera.h"
#include "tools/camctl/commands.h"
#include "tools/camctl/event_tail.h"
#include "tools/camctl/frame_reader.h"
#include "tools/camctl/slots.h"
#include "tools/camctl/stop_flag.h"

namespace {

constexpr std::uint32_t kLineMs = 1000;
constexpr long kLookMs = 100;  // so that events show soon

// What came in since the last line.
struct Count {
  std::uint32_t frames = 0;
  std::uint64_t bytes = 0;
  std::uint32_t lost = 0;
};

class Watch {
 public:
  explicit Watch(long eventsFrom) : events_(eventsFrom) {}

  // Takes what comes within `waitMs`.
  void take(long waitMs) {
    const FrameReader::Frame frame(&reader_, waitMs);
    if (!frame) return;
    const std::uint32_t number = frame.number();
    // A number that went back is a camera that began anew, not a loss.
    const auto ahead = static_cast<std::int32_t>(number - last_);
    if (known_ && ahead > 1) count_.lost += static_cast<std::uint32_t>(ahead - 1);
    known_ = true;
    last_ = number;
    ++count_.frames;
    count_.bytes += frame.length();
  }

  void printEvents() {
    for (const std::string& line : events_.newLines()) {
      // The log's own time is in UTC and stands before the first blank.
      const std::size_t blank = line.find(' ');
      printTime();
      std::printf("  event %s\n", line.c_str() + (blank == std::string::npos ? 0 : blank + 1));
    }
  }

  void printLine(std::uint32_t elapsedMs) {
    const double seconds = elapsedMs / 1000.0;
    printTime();
    std::printf("  %5.1f frames/s  %7.1f kB/s  %" PRIu32 " lost  %s\n", count_.frames / seconds,
                static_cast<double>(count_.bytes) / 1000.0 / seconds, count_.lost,
                inWords(statusFields(sbGetUserdata(sbVideo(), kSlotStatus)), false).c_str());
    count_ = Count();
  }

 private:
  static void printTime() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    std::printf("%02d:%02d:%02d", local.tm_hour, local.tm_min, local.tm_sec);
  }

  FrameReader reader_;
  EventTail events_;
  Count count_;
  bool known_ = false;  // whether last_ is a frame's number
  std::uint32_t last_ = 0;
};

}  // namespace

int runWatch(long seconds, long eventsFrom) {
  endInOrder();
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  Watch watch(eventsFrom);
  std::uint32_t lineBegan = monotonicMs();
  for (long lines = 0; seconds == 0 || lines < seconds;) {
    const std::uint32_t elapsed = monotonicMs() - lineBegan;
    if (endAsked() || std::ferror(stdout) != 0) return kExitOk;
    if (elapsed < kLineMs) {
      const long left = static_cast<long>(kLineMs - elapsed);
      watch.take(left < kLookMs ? left : kLookMs);
      watch.printEvents();
      continue;
    }
    watch.printLine(elapsed);
    lineBegan += elapsed;
    ++lines;
    if (!cameraRuns()) return sayNoPicture();
  }
  return kExitOk;
}
