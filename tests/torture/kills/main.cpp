// lives: a camera whose daemon is killed, or asked to end, again and again at random moments. Runs
// in a board, which has in /home: video_svr socmond boardctl hardware libvs_drivers.so.
#include <getopt.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>

#include "core/status_slots.h"
#include "platform/stream_buffer.h"
#include "tests/torture/kills/camera_life.h"
#include "tests/torture/kills/processes.h"

namespace {

constexpr char kUsage[] =
    "lives [OPTION...]\n"
    "  --model B520|K310  a camera with hardware; without it one with a file source\n"
    "  --exits            asked to end, under faults, instead of killed\n"
    "  --films            /smb can be written: record to it\n"
    "  --disk             /usb is small: let it be full\n"
    "  --fault NAME       with --exits: always this one, such as \"drivers fail\"\n"
    "  --server PID       process that serves /smb: let it hang\n"
    "  --for SECONDS      how long\n"
    "  --seed N           where the random choices start\n"
    "  --report FILE      gets what came of it\n"
    "or --reader, --stream-reader: reads frames until it is killed; ends when one is not whole\n";

// Reads, holds frames for a while, and writes a status slot, all as fast as it can.
int runReader(bool stream) {
  std::unique_ptr<Pictures> pictures;
  if (!stream) pictures = std::make_unique<Pictures>(Pictures::there());
  std::random_device seed;
  Moments moments(seed());
  std::int32_t number = 0, epoch = 0;
  for (;;) {
    SB_HANDLE* const video = sbVideo();
    if (video == nullptr) sleepMs(1);
    const TAutoFrame frame(video, 100, &number, &epoch, 20);
    if (moments.chance(20)) sbSetUserdata(video, kSlotTimestamp, moments.whole(1000));
    if (!frame) continue;
    const std::uint32_t length = frame->length[0] | frame->length[1] << 8 | frame->length[2] << 16 |
                                 static_cast<std::uint32_t>(frame->length[3]) << 24;
    const auto room = static_cast<std::size_t>(sbGetFrameSize(video)) - kFrameHeadBytes;
    if (length < 1 || length > room) return 3;
    if (moments.chance(30)) sleepMs(moments.upTo(100));
    if (pictures != nullptr && !pictures->whole(frame->payload, length)) return 4;
  }
}

}  // namespace

int main(int argc, char** argv) {
  static const option kOptions[] = {
      {"model", required_argument, nullptr, 'm'},   {"exits", no_argument, nullptr, 'e'},
      {"films", no_argument, nullptr, 'f'},         {"disk", no_argument, nullptr, 'd'},
      {"fault", required_argument, nullptr, 'x'},   {"server", required_argument, nullptr, 'p'},
      {"for", required_argument, nullptr, 't'},     {"seed", required_argument, nullptr, 's'},
      {"report", required_argument, nullptr, 'r'},  {"reader", no_argument, nullptr, 'R'},
      {"stream-reader", no_argument, nullptr, 'S'}, {nullptr, 0, nullptr, 0}};
  Options options;
  std::string file = "/home/lives.report";
  for (int letter = 0; (letter = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
    switch (letter) {
      case 'm':
        options.model = optarg;
        break;
      case 'e':
        options.orderly = true;
        break;
      case 'f':
        options.films = true;
        break;
      case 'd':
        options.disk = true;
        break;
      case 'x':
        options.fault = optarg;
        break;
      case 'p':
        options.server = std::atoi(optarg);
        break;
      case 't':
        options.seconds = std::atof(optarg);
        break;
      case 's':
        options.seed = static_cast<unsigned>(std::atol(optarg));
        break;
      case 'r':
        file = optarg;
        break;
      case 'R':
      case 'S':
        return runReader(letter == 'S');
      default:
        std::fputs(kUsage, stderr);
        return 2;
    }
  }
  signal(SIGPIPE, SIG_IGN);
  std::unique_ptr<Pictures> pictures;
  if (options.model.empty()) pictures = std::make_unique<Pictures>();
  Report report;
  const double end = nowMs() + options.seconds * 1000;
  {
    CameraLife camera(options, pictures.get(), &report);
    while (nowMs() < end) camera.live();
    camera.leave();
  }
  report.write(file);
  return 0;
}
