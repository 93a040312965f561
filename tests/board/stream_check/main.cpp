// stream_check: attaches to a board's stream as any program does, and judges what it delivers:
// records, chunks and pictures. Decodes every picture with its own header.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "platform/linux/root.h"
#include "platform/stream_buffer.h"
#include "platform/timer.h"
#include "tests/board/stream_check/check.h"
#include "tests/board/stream_check/shaker.h"

namespace {

constexpr char kUsage[] =
    "stream_check --board FOLDER [OPTION...]\n"
    "  --stream NAME     \"video\" (the default) or \"video2\"\n"
    "  --for SECONDS     how long at most; by default 10. SIGTERM ends it too.\n"
    "  --pictures N      or until so many pictures\n"
    "  --last FILE       store the newest picture as PNG\n"
    "  --write SLOT=N    write a status slot first, as any program may\n"
    "  --shake N         change settings N times meanwhile, at random, one to three with each "
    "frame\n"
    "  --shake-modes N   the same with the streaming mode among them\n"
    "  --seed N          other changes than with the usual one\n"
    "  --strays N        so many key pictures may carry a header from after a change of the TV "
    "standard\n"
    "Prints a JSON object. Ends with 0 when there were pictures and not one error, else with 1.\n";

volatile std::sig_atomic_t ended = 0;

struct Options {
  std::string board, stream = "video", last, write;
  long seconds = 10, pictures = 0, shake = 0, strays = 0;
  bool modes = false;
  unsigned seed = 1;
};

bool parse(int argc, char** argv, Options* options) {
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string name = argv[i];
    const char* value = argv[i + 1];
    const long number = std::atol(value);
    if (name == "--board")
      options->board = value;
    else if (name == "--stream")
      options->stream = value;
    else if (name == "--last")
      options->last = value;
    else if (name == "--write")
      options->write = value;
    else if (name == "--for")
      options->seconds = number;
    else if (name == "--pictures")
      options->pictures = number;
    else if (name == "--strays")
      options->strays = number;
    else if (name == "--shake" || name == "--shake-modes")
      options->shake = number, options->modes = name != "--shake";
    else if (name == "--seed")
      options->seed = static_cast<unsigned>(number);
    else
      return false;
  }
  return argc % 2 == 1 && !options->board.empty() &&
         (options->stream == "video" || options->stream == "video2");
}

// The next frame, copied, so that the camera has it back at once. Returns false when none came.
bool nextFrame(bool second, RawFrame* frame) {
  static std::int32_t number = 0, epoch = 0;
  SB_HANDLE* buffer = second ? sbVideo2() : sbVideo();
  const TAutoFrame pinned(buffer, 0, &number, &epoch, 100);
  if (!pinned) return false;
  frame->bytes.assign(
      reinterpret_cast<const unsigned char*>(pinned.get()),
      reinterpret_cast<const unsigned char*>(pinned.get()) + sbGetFrameSize(buffer));
  return true;
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
  const bool second = options.stream == "video2";
  StreamCheck check(second, options.strays);
  Shaker shaker(options.shake, options.seed, options.modes);
  const std::uint32_t begun = monotonicMs();
  if (!options.write.empty()) {
    const std::size_t value = options.write.find('=') + 1;  // without one: the whole text
    sbSetUserdata(sbVideo(), std::atoi(options.write.c_str()),
                  std::atoi(options.write.c_str() + value));
  }
  RawFrame frame;
  const auto enough = [&] {
    return (options.pictures > 0 || options.shake > 0) && shaker.left() == 0 &&
           check.pictures() >= options.pictures;
  };
  while (ended == 0 && monotonicMs() - begun < static_cast<std::uint32_t>(1000 * options.seconds) &&
         !enough()) {
    if ((second ? sbVideo2() : sbVideo()) == nullptr) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      continue;
    }
    if (!nextFrame(second, &frame)) continue;
    check.take(frame);
    shaker.step();
  }
  check.finish();
  std::puts(check.json().c_str());
  if (shaker.left() > 0) {
    std::fprintf(stderr, "stream_check: %ld changes were left\n", shaker.left());
    return 1;
  }
  if (!options.last.empty() && !check.storeLast(options.last)) {
    std::fprintf(stderr, "stream_check: no picture for %s\n", options.last.c_str());
    return 1;
  }
  return check.good() ? 0 : 1;
}
