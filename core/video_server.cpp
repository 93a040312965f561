#include "core/video_server.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "capture/video_args.h"
#include "capture/video_source.h"
#include "core/housekeeping.h"
#include "events/event_manager.h"
#include "platform/audio.h"
#include "platform/ini_file.h"
#include "platform/log.h"
#include "platform/os.h"
#include "platform/thread.h"

namespace {

constexpr double kDefaultSyncHours = 0.5;

// Deletes the thread when its body has ended and no other body may be using it; otherwise object
// and body are left behind.
template <typename T>
void release(TStopDeadline& deadline, T*& thread, bool inUse) {
  if (thread != nullptr && deadline.end(*thread) && !inUse) testDestroy(thread);
  thread = nullptr;
}

void showUsage() {
  TVideoArgs(0, nullptr).usage();
  TAudioArgs(0, nullptr).usage();
}

}  // namespace

bool TVideoServer::onInitial() {
  if (argc < 2) {
    showUsage();
    return false;
  }
  TVideoArgs videoArgs(argc, argv);
  TAudioArgs audioArgs(argc, argv);
  video_ = testCreate<TVideoSource>(videoArgs.videoEnabled, videoArgs);
  audio_ = testCreate<TAudioSource>(videoArgs.audioEnabled, audioArgs);
  return true;
}

bool TVideoServer::onRunning() {
  testRun(audio_);
  testRun(video_);
  if (video_ == nullptr) {
    while (!stopped) os::sleep(1);
  } else {
    THousekeeping housekeeping(video_->camera());
    while (!stopped) housekeeping.pass();
  }
  testStop(video_);
  testStop(audio_);
  return true;
}

bool TVideoServer::onRelease() {
  TStopDeadline deadline;
  // An event or recorder that hangs may be inside the camera, or ask it when it comes back.
  release(deadline, video_, TEventManager::leftBehind);
  release(deadline, audio_, false);
  free_log();
  return true;
}

int TVideoServer::getNtpInterval() {
  using Limits = std::numeric_limits<int>;
  const double hours = getInidouble("/etc/sys.conf", "System", "Sync Schedule", kDefaultSyncHours);
  const double seconds = hours * 60 * 60;
  if (std::isnan(seconds)) return 0;
  return static_cast<int>(std::clamp<double>(seconds, Limits::min(), Limits::max()));
}
