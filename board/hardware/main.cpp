// hardware: the chips of the virtual board. The drivers in the daemon's process and boardctl talk
// to it through two sockets in the board's folder.
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "board/drivers/protocol.h"
#include "board/hardware/control.h"
#include "board/hardware/encoder.h"
#include "board/hardware/faults.h"
#include "board/hardware/faulty_device.h"
#include "board/hardware/node_server.h"
#include "board/hardware/scene.h"
#include "board/hardware/sensor.h"
#include "board/hardware/trace.h"
#include "board/hardware/world.h"

namespace {

constexpr char kHelp[] = R"(Usage: hardware --board FOLDER [OPTION...]
The chips of a virtual board, for as long as it runs.

  --model B520|K310   sensor camera (the default), or encoder alone
  --scene WHAT        what the camera sees: "test" (the default), a video file, a folder of JPEG
                      pictures, or a camera of this PC such as /dev/video0
  --trace FILE        write a line there for each request of the drivers

boardctl turns its physical side. SIGTERM ends it.
)";
// Longer than any chip or scene needs to give its threads back.
constexpr unsigned kEndSeconds = 5;

struct Options {
  std::string board;
  std::string model = "B520";
  std::string scene = "test";
  std::string trace;
};

// Returns true iff the command line is right; otherwise `*status` is what to end with.
bool parse(int argc, char** argv, Options* options, int* status) {
  static const option kOptions[] = {
      {"board", required_argument, nullptr, 'b'}, {"model", required_argument, nullptr, 'm'},
      {"scene", required_argument, nullptr, 's'}, {"trace", required_argument, nullptr, 't'},
      {"help", no_argument, nullptr, 'h'},        {nullptr, 0, nullptr, 0}};
  *status = 2;
  for (int letter = 0; (letter = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
    switch (letter) {
      case 'b':
        options->board = optarg;
        break;
      case 'm':
        options->model = optarg;
        break;
      case 's':
        options->scene = optarg;
        break;
      case 't':
        options->trace = optarg;
        break;
      case 'h':
        std::fputs(kHelp, stdout);
        *status = 0;
        return false;
      default:
        return false;
    }
  }
  const bool knownModel = options->model == "B520" || options->model == "K310";
  if (optind == argc && !options->board.empty() && knownModel) return true;
  std::fputs(kHelp, stderr);
  return false;
}

int fail(const std::string& text) {
  std::fprintf(stderr, "hardware: %s\n", text.c_str());
  return 1;
}

// Notes the process where the board's scripts look for what runs there.
void notePid(const std::string& path) {
  std::FILE* const file = std::fopen(path.c_str(), "we");
  if (file == nullptr) return;
  std::fprintf(file, "%d\n", getpid());
  std::fclose(file);
}

int run(const Options& options, const sigset_t& ends) {
  std::string error;
  std::unique_ptr<Scene> scene = openScene(options.scene, &error);
  if (!scene) return fail(error);
  Trace trace;
  if (!options.trace.empty() && !trace.open(options.trace))
    return fail(options.trace + ": " + std::strerror(errno));

  World world(std::move(scene));
  Faults faults;
  std::unique_ptr<Sensor> sensor;
  if (options.model == "B520") sensor = std::make_unique<Sensor>(&world);
  Encoder encoder(&world, sensor.get());
  FaultyDevice faultyEncoder(Node::kEncoder, &encoder, &faults);
  FaultyDevice faultySensor(Node::kSensor, sensor.get(), &faults);
  std::vector<NodeServer::Chip> chips = {{kEncoderPath, Node::kEncoder, &faultyEncoder}};
  if (sensor) chips.push_back({kSensorPath, Node::kSensor, &faultySensor});
  NodeServer nodes(chips, &trace);
  // The encoder first: it holds its pictures back for a while, so that none comes before the
  // signal.
  world.onStandardChange([&] {
    encoder.standardChanged();
    nodes.signalOwners(Node::kEncoder);
  });
  Control control({options.model, options.scene, &world, &faults, &trace, &nodes});

  if (!nodes.start(options.board + kHardwareSocket, &error) ||
      !control.start(options.board + kControlSocket, &error))
    return fail(error);
  const std::string pidFile = options.board + "/run/hardware.pid";
  notePid(pidFile);
  int signal = 0;
  sigwait(&ends, &signal);
  alarm(kEndSeconds);
  control.stop();
  faults.end();
  nodes.stop();
  unlink(pidFile.c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  int status = 0;
  if (!parse(argc, argv, &options, &status)) return status;
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGTERM);
  sigaddset(&ends, SIGINT);
  sigprocmask(SIG_BLOCK, &ends, nullptr);  // before any thread begins
  return run(options, ends);
}
