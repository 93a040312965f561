#include "board/hardware/sensor_settings.h"

#include <cerrno>
#include <cstring>
#include <limits>

#include "board/drivers/requests.h"
#include "platform/bytes.h"

namespace {

// A setting that is one word.
struct Word {
  std::int32_t* field = nullptr;
  // Positions and windows may be anywhere: what lies outside the picture is cut off where it is
  // used.
  std::int32_t lowest = std::numeric_limits<std::int32_t>::min();
  std::int32_t highest = std::numeric_limits<std::int32_t>::max();
};

// Returns the setting that the request sets; one without a field when there is none.
Word wordOf(unsigned request, SensorSettings* s) {
  switch (request) {
    case kVicamSetFlip:
      return {&s->flip, 0, 1};
    case kVicamSetMirror:
      return {&s->mirror, 0, 1};
    case kVicamSetExposure:
      return {&s->exposure, kExposureAutomatic, kExposureBrightest};
    case kVicamSetMaxshutter:
      return {&s->maxShutter, 0, kShutterShortest};
    case kVicamSetBalance:
      return {&s->balance, kBalanceAutomatic, kBalanceShade};
    case kVicamSetNoisefilter:
      return {&s->noiseFilter, 0, kNoiseFilterStrongest};
    case kVicamSetBacklight:
      return {&s->backlight, 0, kBacklightStrongest};
    case kVicamSetFlickerMode:
      return {&s->flicker, kFlicker50Hz, kFlickerOff};
    case kVicamSetFramerateId:
      return {&s->rate, 1, kSensorRate};
    case kVicamSetCompRate:
      return {&s->quality, 1, 100};

    case kVicamSetGposdEnable:
      return {&s->graphic.enable};
    case kVicamSetGposdTransp:
      return {&s->graphic.transparency, kOpaque, kTranslucent};
    case kVicamSetGposdXpos:
      return {&s->graphic.x};
    case kVicamSetGposdYpos:
      return {&s->graphic.y};

    case kVicamSetMdosdEnable:
      return {&s->motionText.enable};
    case kVicamSetMdosdTransp:
      return {&s->motionText.transparency, kOpaque, kTranslucent};
    case kVicamSetMdosdColor:
      return {&s->motionText.colour, 0, kTextColours - 1};
    case kVicamSetMdosdXpos:
      return {&s->motionText.x};
    case kVicamSetMdosdYpos:
      return {&s->motionText.y};

    case kVicamSetDtosdEnable:
      return {&s->dateTime.enable};
    case kVicamSetDtosdTransp:
      return {&s->dateTime.transparency, kOpaque, kTranslucent};
    case kVicamSetDtosdColor:
      return {&s->dateTime.colour, 0, kTextColours - 1};
    case kVicamSetDtosdXpos:
      return {&s->dateTime.x};
    case kVicamSetDtosdYpos:
      return {&s->dateTime.y};

    case kVicamSetMdwnd1Enable:
      return {&s->windows[0].enable};
    case kVicamSetMdwnd1Xpos:
      return {&s->windows[0].x};
    case kVicamSetMdwnd1Ypos:
      return {&s->windows[0].y};
    case kVicamSetMdwnd1Width:
      return {&s->windows[0].width};
    case kVicamSetMdwnd1Height:
      return {&s->windows[0].height};
    case kVicamSetMdwnd1Threshold:
      return {&s->windows[0].threshold};
    case kVicamSetMdwnd2Enable:
      return {&s->windows[1].enable};
    case kVicamSetMdwnd2Xpos:
      return {&s->windows[1].x};
    case kVicamSetMdwnd2Ypos:
      return {&s->windows[1].y};
    case kVicamSetMdwnd2Width:
      return {&s->windows[1].width};
    case kVicamSetMdwnd2Height:
      return {&s->windows[1].height};
    case kVicamSetMdwnd2Threshold:
      return {&s->windows[1].threshold};
    default:
      return {};
  }
}

// Copies the argument into a record of the driver's interface. Returns false when it is too short.
template <typename Record>
bool take(const std::vector<char>& argument, Record* record) {
  if (argument.size() < sizeof(*record)) return false;
  std::memcpy(record, argument.data(), sizeof(*record));
  return true;
}

int setWord(const Word& word, const std::vector<char>& argument) {
  std::int32_t value = 0;
  if (word.field == nullptr || !take(argument, &value)) return -EINVAL;
  if (value < word.lowest || value > word.highest) return -EINVAL;
  *word.field = value;
  return 0;
}

int setText(const std::vector<char>& argument, TextOverlay* overlay) {
  const std::size_t limit = argument.size() < kTextMax ? argument.size() : kTextMax;
  const std::size_t length = argument.empty() ? 0 : strnlen(argument.data(), limit);
  overlay->text.assign(argument.data(), length);
  return 0;
}

int setImage(const std::vector<char>& argument, GraphicOverlay* overlay) {
  TOverlayImage head;
  if (!take(argument, &head)) return -EINVAL;
  if (std::memcmp(head.magic, kOverlayMagic, sizeof(head.magic)) != 0) return -EINVAL;
  const int width = loadLe16(head.width);
  const int height = loadLe16(head.height);
  const std::size_t count = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
  const std::size_t size = sizeof(head) + 2 * count;
  if (count == 0 || size > static_cast<std::size_t>(kOverlayImageMax) || size > argument.size())
    return -EINVAL;
  auto image = std::make_shared<OverlayImage>(OverlayImage{width, height, {}});
  image->pixels.reserve(count);
  for (std::size_t at = sizeof(head); at < size; at += 2)
    image->pixels.push_back(loadLe16(argument.data() + at));
  overlay->image = std::move(image);
  return 0;
}

// The largest of the sensor's sizes that fits into the window.
int setWindow(const std::vector<char>& argument, SensorSettings* s) {
  constexpr std::uint32_t kWidths[] = {640, 320, 160};
  TVideoWindow window;
  if (!take(argument, &window) || window.width > kWidths[0] || window.height > kWidths[0] / 4 * 3)
    return -EINVAL;
  for (const std::uint32_t width : kWidths) {
    const std::uint32_t height = width / 4 * 3;
    if (window.width < width || window.height < height) continue;
    s->width = static_cast<int>(width);
    s->height = static_cast<int>(height);
    return 0;
  }
  return -EINVAL;
}

int readPicture(const TVideoPicture& colours, std::vector<char>* argument) {
  if (argument->size() < sizeof(colours)) return -EINVAL;
  std::memcpy(argument->data(), &colours, sizeof(colours));
  return 0;
}

}  // namespace

bool GraphicOverlay::operator==(const GraphicOverlay& other) const {
  return enable == other.enable && transparency == other.transparency && x == other.x &&
         y == other.y && image == other.image;
}

bool TextOverlay::operator==(const TextOverlay& other) const {
  return enable == other.enable && transparency == other.transparency && colour == other.colour &&
         x == other.x && y == other.y && text == other.text;
}

int changeSettings(unsigned request, std::vector<char>* argument, SensorSettings* settings) {
  switch (request) {
    case kVicamSetMdosdString:
      return setText(*argument, &settings->motionText);
    case kVicamSetDtosdString:
      return setText(*argument, &settings->dateTime);
    case kVicamSetGposdImg:
      return setImage(*argument, &settings->graphic);
    case kVidiocgpict:
      return readPicture(settings->colours, argument);
    case kVidiocspict:
      return take(*argument, &settings->colours) ? 0 : -EINVAL;
    case kVidiocswin:
      return setWindow(*argument, settings);
    default:
      return setWord(wordOf(request, settings), *argument);
  }
}
