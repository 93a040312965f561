// reload_storm: tells a camera again and again that its configuration has changed, and spoils its
// files meanwhile.
#include <getopt.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "core/status_slots.h"
#include "platform/linux/root.h"
#include "platform/linux/stream_buffer_inspect.h"
#include "platform/stream_buffer.h"
#include "platform/timer.h"
#include "tests/torture/kills/moments.h"
#include "tests/torture/kills/processes.h"
#include "tests/torture/reload/spoiler.h"

namespace {

constexpr char kUsage[] =
    "reload_storm --good FOLDER [--seed N] FILE...\n"
    "  spoils one of the files, which FOLDER has as they are to be\n"
    "reload_storm --board FOLDER --for SECONDS --patience SECONDS --good FOLDER [--seed N] "
    "FILE...\n"
    "  does so all the time and tells the camera; fails when it takes no notice for so long.\n"
    "  Prints how many flags were raised, how many of them the camera took, and how many files\n"
    "  were spoilt.\n";

constexpr double kFlagMs = 2.5;  // from one flag to the next
constexpr int kMostFlags = 12;   // between two changes of files
constexpr int kMostFiles = 3;    // that change at once
constexpr int kTriggerTurns = 3;

struct Options {
  std::string board, good;
  double seconds = 0, patience = 20;
  unsigned seed = 1;
};

class Storm {
 public:
  Storm(const Options& options, Spoiler* spoiler, Moments* moments)
      : options_(options), spoiler_(spoiler), moments_(moments) {}

  // Returns false when the camera takes no flag any more.
  bool run();
  long flags() const { return flags_; }
  long taken() const { return taken_; }

 private:
  void turn();
  bool raise();

  const Options options_;
  Spoiler* const spoiler_;
  Moments* const moments_;
  bool raised_ = false;
  long flags_ = 0, taken_ = 0, turns_ = 0;
  double takenAt_ = nowMs();
};

// What a camera does about a flag that it has taken is to read everything anew, once.
bool Storm::raise() {
  SB_HANDLE* const video = sbVideo();
  if (video == nullptr) return nowMs() - takenAt_ < options_.patience * 1000;
  if (raised_ && !sb::inspect(video).slots[kSlotConfigChanged].marked) {
    ++taken_;
    takenAt_ = nowMs();
  }
  sbSetUserdata(video, kSlotConfigChanged, 1);
  raised_ = true;
  ++flags_;
  return nowMs() - takenAt_ < options_.patience * 1000;
}

// Events that fire meanwhile are taken down as well.
void Storm::turn() {
  for (int i = moments_->whole(kMostFiles - 1); i >= 0; --i) spoiler_->spoilOne();
  const int slot = turns_ / kTriggerTurns % 2 == 0 ? kSlotWebTrigger1 : kSlotWebTrigger2;
  if (turns_ % kTriggerTurns == 0) sbSetUserdata(sbVideo(), slot, slot);
  std::ofstream(options_.board + "/run/camera/io/input") << turns_ % 2 << '\n';
  ++turns_;
}

bool Storm::run() {
  const double begun = nowMs();
  double next = begun;
  while (nowMs() - begun < options_.seconds * 1000) {
    turn();
    for (int i = moments_->whole(kMostFlags - 1); i >= 0; --i) {
      if (!raise()) return false;
      next += kFlagMs;
      if (next < nowMs()) next = nowMs();  // what a busy machine costs is not made up for
      sleepMs(next - nowMs());
    }
  }
  return true;
}

bool parse(int argc, char** argv, Options* options, std::vector<std::string>* files) {
  static const option kOptions[] = {
      {"board", required_argument, nullptr, 'b'}, {"good", required_argument, nullptr, 'g'},
      {"for", required_argument, nullptr, 't'},   {"patience", required_argument, nullptr, 'p'},
      {"seed", required_argument, nullptr, 's'},  {nullptr, 0, nullptr, 0}};
  for (int letter = 0; (letter = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
    if (letter == 'b')
      options->board = optarg;
    else if (letter == 'g')
      options->good = optarg;
    else if (letter == 't')
      options->seconds = std::atof(optarg);
    else if (letter == 'p')
      options->patience = std::atof(optarg);
    else if (letter == 's')
      options->seed = static_cast<unsigned>(std::atol(optarg));
    else
      return false;
  }
  files->assign(argv + optind, argv + argc);
  return !options->good.empty() && !files->empty();
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  std::vector<std::string> files;
  if (!parse(argc, argv, &options, &files)) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  Moments moments(options.seed);
  Spoiler spoiler(files, options.good, &moments);
  if (options.board.empty()) {
    spoiler.spoilOne();
    return 0;
  }
  setPlatformRoot(options.board);
  Storm storm(options, &spoiler, &moments);
  const bool heard = storm.run();
  std::printf("%ld %ld %ld\n", storm.flags(), storm.taken(), spoiler.count());
  return heard ? 0 : 1;
}
