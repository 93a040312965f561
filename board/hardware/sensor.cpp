#include "board/hardware/sensor.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <mutex>

#include "board/hardware/jpeg.h"
#include "board/hardware/motion_meter.h"
#include "board/hardware/overlay_painter.h"
#include "board/hardware/pace.h"
#include "board/hardware/sensor_processor.h"
#include "board/hardware/sensor_settings.h"
#include "board/hardware/world.h"

// Each group of fields has its own lock, so that a request never waits for a picture. Locks are
// taken in the order of the groups, from the last to the first.
struct Sensor::Parts {
  Parts(World* seen, Pace* given) : world(seen), pace(given != nullptr ? given : Pace::real()) {}

  World* world;
  Pace* pace;
  PictureCount count;

  std::mutex settingsMutex;
  SensorSettings settings;
  unsigned version = 0;        // grows with each change of the settings
  std::int64_t lastDueMs = 0;  // when the picture that was read last was due
  std::condition_variable rateChanged;

  std::mutex motionMutex;
  Picture observed = makePicture(kSceneWidth, kSceneHeight);
  MotionMeter meter;

  std::mutex pictureMutex;
  SensorSettings used;  // for what was finished last
  unsigned usedVersion = 0;
  int usedHz = 0;
  std::int64_t number = -1;
  Picture raw = makePicture(kSceneWidth, kSceneHeight);
  Picture finished = makePicture(kSceneWidth, kSceneHeight);
  SensorProcessor processor;
  OverlayPainter painter;

  std::mutex readMutex;
  Picture captured = makePicture(kSceneWidth, kSceneHeight);
  Picture scaled;
  JpegCoder coder;
  std::vector<char> jpeg;

  int motionLevel(int window);
  void awaitPicture();
};

namespace {

// Where the window lies in what the sensor sees, whose picture is turned only afterwards.
Rectangle inScene(const MotionWindow& window, const SensorSettings& settings) {
  const auto turned = [](std::int64_t begin, std::int64_t length, std::int64_t whole) {
    return static_cast<int>(std::clamp<std::int64_t>(whole - begin - length, INT32_MIN, INT32_MAX));
  };
  return {settings.mirror != 0 ? turned(window.x, window.width, kSceneWidth) : window.x,
          settings.flip != 0 ? turned(window.y, window.height, kSceneHeight) : window.y,
          window.width, window.height};
}

}  // namespace

Sensor::Sensor(World* world, Pace* pace) : parts_(new Parts(world, pace)) {}

Sensor::~Sensor() = default;

int Sensor::ioctl(unsigned request, std::vector<char>* argument) {
  if (request == kVicamGetMdwnd1Status) return parts_->motionLevel(0);
  if (request == kVicamGetMdwnd2Status) return parts_->motionLevel(1);
  const std::lock_guard<std::mutex> lock(parts_->settingsMutex);
  const int result = changeSettings(request, argument, &parts_->settings);
  if (result != 0 || request == kVidiocgpict) return result;
  ++parts_->version;
  if (request == kVicamSetFramerateId) parts_->rateChanged.notify_all();
  return result;
}

int Sensor::Parts::motionLevel(int window) {
  Rectangle where;
  {
    const std::lock_guard<std::mutex> lock(settingsMutex);
    if (settings.windows[window].enable <= 0) return 0;
    where = inScene(settings.windows[window], settings);
  }
  const std::lock_guard<std::mutex> lock(motionMutex);
  const std::int64_t seen = world->look(observed.get());
  meter.see(*observed, seen);
  return meter.level(where);
}

// Waits until a picture is due by the rate, also by one that is set meanwhile. A reader who is late
// by more than a picture's time does not get those that it has missed.
void Sensor::Parts::awaitPicture() {
  std::unique_lock<std::mutex> lock(settingsMutex);
  const auto periodMs = [this] { return 1000 / settings.rate; };
  while (pace->nowMs() < lastDueMs + periodMs())
    pace->wait(lastDueMs + periodMs(), &rateChanged, &lock);
  const std::int64_t now = pace->nowMs();
  const bool first = lastDueMs == 0;
  lastDueMs += periodMs();
  const std::int64_t lateMs = now - lastDueMs;
  if (lateMs < periodMs()) return;
  if (!first) count.missed += lateMs / periodMs();
  lastDueMs = now;
}

int Sensor::read(std::size_t limit, std::vector<char>* data) {
  Parts& p = *parts_;
  p.awaitPicture();
  const std::lock_guard<std::mutex> lock(p.readMutex);
  capture(p.captured.get());
  int width = 0;
  int height = 0;
  int quality = 0;
  {
    const std::lock_guard<std::mutex> settingsLock(p.settingsMutex);
    width = p.settings.width;
    height = p.settings.height;
    quality = p.settings.quality;
  }
  const AVFrame* picture = p.captured.get();
  if (width != kSceneWidth) {
    if (!p.scaled || p.scaled->width != width) p.scaled = makePicture(width, height);
    scalePicture(*picture, p.scaled.get());
    picture = p.scaled.get();
  }
  if (!p.coder.encode(*picture, quality, &p.jpeg)) return -EIO;
  ++p.count.given;
  data->assign(p.jpeg.begin(),
               p.jpeg.begin() + static_cast<std::ptrdiff_t>(std::min(limit, p.jpeg.size())));
  return static_cast<int>(data->size());
}

const PictureCount* Sensor::count() const { return &parts_->count; }

void Sensor::capture(AVFrame* picture) {
  Parts& p = *parts_;
  const std::lock_guard<std::mutex> lock(p.pictureMutex);
  const int mainsHz = p.world->standard() == TvStandard::kNtsc ? 60 : 50;
  const std::int64_t number = p.world->look(p.raw.get());
  bool same = number == p.number && mainsHz == p.usedHz;
  {
    const std::lock_guard<std::mutex> settingsLock(p.settingsMutex);
    if (p.usedVersion != p.version) {
      p.used = p.settings;
      p.usedVersion = p.version;
      same = false;
    }
  }
  if (!same) {
    p.number = number;
    p.usedHz = mainsHz;
    p.finished.swap(p.raw);
    p.processor.process(p.used, number, mainsHz, p.finished.get());
    p.painter.paint(p.used, p.finished.get());
  }
  copyPicture(*p.finished, picture);
}
