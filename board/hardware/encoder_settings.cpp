#include "board/hardware/encoder_settings.h"

#include <iterator>

namespace {

constexpr int kSizes = 11;
constexpr PictureSize kPictureSizes[kSizes] = {{352, 288}, {720, 288}, {720, 576}, {352, 240},
                                               {720, 240}, {720, 480}, {176, 144}, {640, 480},
                                               {320, 240}, {0, 0},     {160, 120}};
// NTSC has fewer lines than the largest pictures: theirs become those of NTSC's frame and field.
constexpr int kPalFrame = 576;
constexpr int kNtscFrame = 480;
constexpr int kPalField = kPalFrame / 2;
constexpr int kNtscField = kNtscFrame / 2;

// Pictures per second by setting; what is greater gives one.
constexpr int kRates[] = {30, 15, 10, 7, 6, 5, 3, 3, 2, 2};

constexpr int kQuantiserMax = 31;
constexpr int kPredictedMax = 255;
constexpr int kSources = 4;

bool inRange(int value, int first, int last) { return value >= first && value <= last; }

}  // namespace

bool EncoderSettings::setResolution(int index) {
  if (!inRange(index, 0, kSizes - 1) || kPictureSizes[index].width == 0) return false;
  resolution_ = index;
  return true;
}

bool EncoderSettings::setQuantiser(int value) {
  if (!inRange(value, 1, kQuantiserMax)) return false;
  quantiser_ = value;
  return true;
}

bool EncoderSettings::setPredicted(int count) {
  if (!inRange(count, 0, kPredictedMax)) return false;
  predicted_ = count;
  return true;
}

bool EncoderSettings::setSource(int input) {
  if (!inRange(input, 0, kSources - 1)) return false;
  source_ = input;
  return true;
}

bool EncoderSettings::setFrameRate(int setting) {
  const bool known = inRange(setting, 0, static_cast<int>(std::size(kRates)) - 1);
  periodMs_ = 1000 / (known ? kRates[setting] : 1);
  return true;
}

PictureSize EncoderSettings::size() const {
  PictureSize size = kPictureSizes[resolution_];
  if (standard_ != TvStandard::kNtsc) return size;
  if (size.height == kPalFrame) size.height = kNtscFrame;
  if (size.height == kPalField) size.height = kNtscField;
  return size;
}
