// boardctl: the hand at the physical side of a virtual board.
#include <getopt.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "platform/linux/root.h"
#include "tools/boardctl/hardware.h"
#include "tools/boardctl/usb.h"
#include "tools/camctl/boards.h"
#include "tools/camctl/io_files.h"

namespace {

constexpr char kHelp[] = R"(Usage: boardctl [--board FOLDER] COMMAND...
Turns the physical side of a virtual board. --board is needless where one camera runs.

What the camera sees and feels:
  motion on X Y WIDTH HEIGHT    something moves in this part of the scene (of 640x480)
  motion off                    nothing moves
  tv pal|ntsc                   the standard of the video inputs
  input 0|1                     the digital input
  usb plug|unplug               the disk at /usb
  usb fill [SIZE]               a full disk instead, of 1M

Faults, for good unless TIMES says how often:
  fail REQUEST|* ERROR [TIMES]           a driver's request fails: fail SET_MIRROR EIO 3
  fail read-encoder|read-sensor ERROR [TIMES]
  reads NODE short BYTES [TIMES]         reads of encoder or sensor give less at a time,
  reads NODE late MS [TIMES]             come later,
  reads NODE torn|empty|headless [TIMES] cut off, without anything, without their start code
  lie LENGTH                             the length of the stream header
  hang encoder|sensor                    all calls block, until: go-on
  heal                                   no fault any more

What happens:
  status                        the hardware as it is
  trace FILE|off                a line there for each request of the drivers

Exit status: 0 done; 1 failed; 2 wrong command line; 3 no hardware runs there.
See also: man boardctl
)";
constexpr long kFullDiskSize = 1L << 20;

enum ExitCode { kExitOk = 0, kExitFailed = 1, kExitUsage = 2, kExitNoHardware = 3 };

int fail(ExitCode code, const std::string& text) {
  std::fprintf(stderr, "boardctl: %s\n", text.c_str());
  return code;
}

int usage() { return fail(kExitUsage, "wrong command line, see boardctl --help"); }

// "1M" and the like; -1 when it is no size.
long sizeOf(const std::string& word) {
  char* end = nullptr;
  long size = std::strtol(word.c_str(), &end, 10);
  const std::string unit = end;
  int shift = 0;
  if (unit == "K") shift = 10;
  if (unit == "M") shift = 20;
  if (unit == "G") shift = 30;
  if (end == word.c_str() || (shift == 0 && !unit.empty())) return -1;
  return size > 0 && size <= (LONG_MAX >> shift) ? size << shift : -1;
}

int runUsb(const std::string& folder, const std::vector<std::string>& words) {
  std::string error;
  bool done = false;
  if (words.size() == 2 && words[1] == "plug") {
    done = plugUsb(folder, &error);
  } else if (words.size() == 2 && words[1] == "unplug") {
    done = unplugUsb(folder, &error);
  } else if ((words.size() == 2 || words.size() == 3) && words[1] == "fill") {
    const long size = words.size() == 3 ? sizeOf(words[2]) : kFullDiskSize;
    if (size < 0) return usage();
    done = fillUsb(folder, size, &error);
  } else {
    return usage();
  }
  return done ? kExitOk : fail(kExitFailed, error);
}

int runInput(const std::string& folder, const std::vector<std::string>& words) {
  if (words.size() != 2 || (words[1] != "0" && words[1] != "1")) return usage();
  setPlatformRoot(folder);
  return setInput(words[1] == "1") ? kExitOk : kExitFailed;
}

int runHardware(const std::string& folder, const std::vector<std::string>& words) {
  std::string line;
  for (const std::string& word : words) line += (line.empty() ? "" : " ") + word;
  if (words[0] == "trace" && words.size() == 2 && words[1] != "off") {
    // The hardware has a working folder of its own.
    char here[PATH_MAX];
    const bool isAbsolute = words[1][0] == '/';
    if (!isAbsolute && realpath(".", here) != nullptr)
      line = "trace " + std::string(here) + "/" + words[1];
  }
  std::string text;
  switch (askHardware(folder, line, &text)) {
    case Answer::kOk:
      std::fputs(text.c_str(), stdout);
      return kExitOk;
    case Answer::kUsage:
      return usage();
    case Answer::kNobody:
      return fail(kExitNoHardware, "no hardware runs in " + folder);
    case Answer::kFailed:
      break;
  }
  if (!text.empty()) text.pop_back();
  return fail(kExitFailed, text);
}

// Returns the board to turn at; empty when it is not clear which.
std::string findBoard(const std::string& told) {
  char resolved[PATH_MAX];
  if (!told.empty()) return realpath(told.c_str(), resolved) != nullptr ? resolved : told;
  std::vector<std::string> boards;
  for (const std::string& root : runningCameras())
    if (!root.empty()) boards.push_back(root);
  return boards.size() == 1 ? boards.front() : "";
}

int run(int argc, char** argv) {
  static const option kOptions[] = {{"board", required_argument, nullptr, 'b'},
                                    {"help", no_argument, nullptr, 'h'},
                                    {nullptr, 0, nullptr, 0}};
  std::string told;
  // "+": what follows the command is its own, such as a negative number.
  for (int letter = 0; (letter = getopt_long(argc, argv, "+h", kOptions, nullptr)) != -1;) {
    if (letter == 'h') {
      std::fputs(kHelp, stdout);
      return kExitOk;
    }
    if (letter != 'b') return usage();
    told = optarg;
  }
  const std::vector<std::string> words(argv + optind, argv + argc);
  if (words.empty()) return usage();
  for (const std::string& word : words)
    if (word.empty() || word.find('\n') != std::string::npos) return usage();
  const std::string folder = findBoard(told);
  if (folder.empty()) return fail(kExitUsage, "say which board by --board FOLDER");
  if (words[0] == "usb") return runUsb(folder, words);
  if (words[0] == "input") return runInput(folder, words);
  return runHardware(folder, words);
}

}  // namespace

// A lack of memory is the only exception that gets as far as here.
int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "boardctl: %s\n", error.what());
  }
  return kExitFailed;
}
