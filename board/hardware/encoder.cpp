#include "board/hardware/encoder.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "board/hardware/colour.h"
#include "board/hardware/encoder_settings.h"
#include "board/hardware/font_use.h"
#include "board/hardware/label.h"
#include "board/hardware/mpeg4.h"
#include "board/hardware/pace.h"
#include "board/hardware/sensor.h"
#include "board/hardware/vol_header.h"
#include "board/hardware/world.h"

namespace {

constexpr std::int64_t kStoppedWaitMs = 1000;

// Where the inputs other than 0 show their number, as there is one scene for all.
constexpr Rectangle kInputLabel = {0, kSceneHeight - 40, 160, 40};

OverlayLayer inputLabel(int input) {
  return input == 0 ? OverlayLayer() : drawLabel("INPUT " + std::to_string(input), kInputLabel);
}

}  // namespace

struct Encoder::Parts {
  Parts(World* w, Sensor* s, Pace* p)
      : world(w), sensor(s), pace(p ? p : Pace::real()), settings(w->standard()) {}

  int set(unsigned request, int value);
  void start();
  bool waitForPicture(std::unique_lock<std::mutex>* lock);
  bool makePictureNow();
  void lookInto(AVFrame* picture);

  PictureCount count;
  World* const world;    // not owned
  Sensor* const sensor;  // not owned
  Pace* const pace;      // not owned

  std::mutex mutex;  // of all below
  std::condition_variable changed;
  EncoderSettings settings;
  ColourFilter colour{kNeutralColour};
  FontUse fonts;
  OverlayLayer label;
  bool running = false;
  unsigned starts = 0;
  bool first = true;  // no picture has been fetched since the start, which nobody is late for
  bool keyNext = true;
  int sinceKey = 0;
  std::int64_t dueMs = 0;    // of the next picture
  std::int64_t quietMs = 0;  // no picture before

  Mpeg4Coder coder;
  Picture seen = makePicture(kSceneWidth, kSceneHeight);
  Picture scaled;
  std::vector<char> coded;  // the picture that is being delivered
  std::size_t taken = 0;    // bytes of it
  PictureSize codedSize{};
};

// Returns 0 or a negated errno.
int Encoder::Parts::set(unsigned request, int value) {
  switch (request) {
    case kMpg430SetMode:
      if (!settings.setResolution(value)) return -EINVAL;
      keyNext = true;
      return 0;
    case kMpg430VideoSource:
      if (!settings.setSource(value)) return -EINVAL;
      label = inputLabel(value);
      keyNext = true;
      return 0;
    case kMpg430SetFrate: {
      const std::int64_t before = dueMs - settings.periodMs();
      settings.setFrameRate(value);
      dueMs = before + settings.periodMs();
      return 0;
    }
    case kMpg430Mpeg4Qa:
      return settings.setQuantiser(value) ? 0 : -EINVAL;
    case kMpg430SetIpvalue:
      return settings.setPredicted(value) ? 0 : -EINVAL;
    case kMpg430StreamStart:
      if (value != 0 && value != 1) return -EINVAL;
      if (value == 1) start();
      running = value == 1;
      return 0;
    default:
      return -EINVAL;
  }
}

void Encoder::Parts::start() {
  // Who starts what runs already is somebody new: the one before has gone without a word.
  if (running) taken = coded.size();
  ++starts;
  first = true;
  keyNext = true;
  dueMs = pace->nowMs();
}

// Returns false when the stream stands still or was started anew meanwhile.
bool Encoder::Parts::waitForPicture(std::unique_lock<std::mutex>* lock) {
  const std::int64_t giveUpMs = pace->nowMs() + kStoppedWaitMs;
  const unsigned start = starts;
  while (taken == coded.size()) {
    if (starts != start && running) return false;
    const std::int64_t now = pace->nowMs();
    const std::int64_t due = std::max(dueMs, quietMs);
    if (running && now >= due) {
      // What is overdue is left out; later pictures keep their step.
      const std::int64_t period = settings.periodMs();
      const std::int64_t leftOut = (now - due) / period;
      if (!first) count.missed += leftOut;
      first = false;
      dueMs = due + (leftOut + 1) * period;
      return makePictureNow();
    }
    if (!running && now >= giveUpMs) return false;
    pace->wait(running ? due : giveUpMs, &changed, lock);
  }
  return true;
}

void Encoder::Parts::lookInto(AVFrame* picture) {
  if (sensor) {
    sensor->capture(picture);
    return;
  }
  world->look(picture);
  label.blend(picture);
}

bool Encoder::Parts::makePictureNow() {
  const PictureSize size = settings.size();
  lookInto(seen.get());
  if (!scaled || scaled->width != size.width || scaled->height != size.height)
    scaled = makePicture(size.width, size.height);
  scalePicture(*seen, scaled.get());
  colour.apply(scaled.get());
  const bool key = keyNext || sinceKey >= settings.predicted();
  if (!coder.encode(*scaled, pace->nowMs(), {settings.quantiser(), key}, &coded)) {
    std::fprintf(stderr, "hardware: can't encode a picture of %dx%d\n", size.width, size.height);
    keyNext = true;
  } else {
    keyNext = false;
    sinceKey = key ? 0 : sinceKey + 1;
    ++count.given;
  }
  codedSize = size;
  taken = 0;
  return !coded.empty();
}

Encoder::Encoder(World* world, Sensor* sensor, Pace* pace)
    : parts_(std::make_unique<Parts>(world, sensor, pace)) {}
Encoder::~Encoder() = default;

int Encoder::ioctl(unsigned request, std::vector<char>* argument) {
  Parts& parts = *parts_;
  const std::lock_guard<std::mutex> lock(parts.mutex);
  if (request == kMpg430GetImgheader) {
    const PictureSize size = parts.settings.size();
    const auto header = volHeader(size.width, size.height);
    argument->assign(header.begin(), header.end());
    if (parts.codedSize.width != size.width || parts.codedSize.height != size.height)
      parts.taken = parts.coded.size();
    return kMpg430HeaderBytes;
  }
  if (request == kMpg430VideoSetcolor) {
    TMpg430Colour setting;
    if (argument->size() != sizeof setting) return -EINVAL;
    std::memcpy(&setting, argument->data(), sizeof setting);
    parts.colour = ColourFilter(setting);
    return 0;
  }
  std::int32_t value = 0;
  if (argument->size() != sizeof value) return -EINVAL;
  std::memcpy(&value, argument->data(), sizeof value);
  const int result = parts.set(request, value);
  parts.changed.notify_all();
  return result;
}

int Encoder::read(std::size_t limit, std::vector<char>* data) {
  data->clear();
  if (limit == 0) return 0;
  Parts& parts = *parts_;
  std::unique_lock<std::mutex> lock(parts.mutex);
  if (!parts.waitForPicture(&lock)) return 0;
  const std::size_t count = std::min({limit, kChunkMax, parts.coded.size() - parts.taken});
  const auto begin = parts.coded.begin() + static_cast<std::ptrdiff_t>(parts.taken);
  data->assign(begin, begin + static_cast<std::ptrdiff_t>(count));
  parts.taken += count;
  return static_cast<int>(count);
}

void Encoder::closed() {
  Parts& parts = *parts_;
  const std::lock_guard<std::mutex> lock(parts.mutex);
  parts.taken = parts.coded.size();
}

const PictureCount* Encoder::count() const { return &parts_->count; }

void Encoder::standardChanged() {
  Parts& parts = *parts_;
  const std::lock_guard<std::mutex> lock(parts.mutex);
  parts.settings.setStandard(parts.world->standard());
  parts.keyNext = true;
  parts.quietMs = parts.pace->nowMs() + kSynchroniseMs;
  parts.changed.notify_all();
}
