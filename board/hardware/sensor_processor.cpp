#include "board/hardware/sensor_processor.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace {

constexpr int kBlack = 16;  // limited range
constexpr int kWhite = 235;
constexpr int kNoChroma = 128;
constexpr int kChromaLowest = 16;
constexpr int kChromaHighest = 240;
constexpr double kPi = 3.14159265358979;
constexpr double kGamma = 2.2;

// An automatic exposure takes this long; a longer one by half an f-stop is the square root of 2
// longer.
constexpr double kExposureMs = 10;
// By the codes of the maximum shutter time: none, 1/30 s, 1/60 s, 1/120 s ...
constexpr double kShutterMs[] = {1000,         1000.0 / 30,  1000.0 / 60,  1000.0 / 120,
                                 1000.0 / 250, 1000.0 / 500, 1000.0 / 1000};
static_assert(std::size(kShutterMs) == kShutterShortest + 1, "a time for each code");

// Colour differences per luma that take the light's own tint away.
struct Tint {
  double u;
  double v;
};
constexpr Tint kTints[] = {{0, 0}, {0.12, -0.10}, {0.05, 0.06}, {-0.05, 0.03}, {-0.10, 0.08}};
static_assert(std::size(kTints) == kBalanceShade + 1, "a tint for each code");

constexpr std::size_t kNoiseSize = 8192;  // a row begins anywhere in its first half
constexpr int kNoiseAmplitude = 12;
constexpr int kBandStrength = 12;  // in 1/256 of the luma
constexpr double kReadoutMs = 33;  // from the first row to the last

std::uint8_t clampLuma(double value) {
  return static_cast<std::uint8_t>(std::lround(std::clamp<double>(value, kBlack, kWhite)));
}

// Puts the bits of a number into disorder.
std::uint32_t scramble(std::uint32_t value) {
  value = (value ^ value >> 16) * 0x7FEB352Du;
  value = (value ^ value >> 15) * 0x846CA68Bu;
  return value ^ value >> 16;
}

std::uint8_t* rowOf(AVFrame* picture, int plane, int row) {
  return picture->data[plane] + static_cast<std::ptrdiff_t>(picture->linesize[plane]) * row;
}

void flip(AVFrame* picture) {
  for (int plane = 0; plane < 3; ++plane) {
    const int width = plane == 0 ? picture->width : picture->width / 2;
    const int height = plane == 0 ? picture->height : picture->height / 2;
    for (int row = 0; row < height / 2; ++row) {
      std::uint8_t* upper = rowOf(picture, plane, row);
      std::swap_ranges(upper, upper + width, rowOf(picture, plane, height - 1 - row));
    }
  }
}

void mirror(AVFrame* picture) {
  for (int plane = 0; plane < 3; ++plane) {
    const int width = plane == 0 ? picture->width : picture->width / 2;
    const int height = plane == 0 ? picture->height : picture->height / 2;
    for (int row = 0; row < height; ++row) {
      std::uint8_t* first = rowOf(picture, plane, row);
      std::reverse(first, first + width);
    }
  }
}

// The lamps go bright and dark with both half-waves of the mains, and each row is read at its own
// moment.
void addBands(std::int64_t number, int mainsHz, AVFrame* picture) {
  const double msPerWave = 1000.0 / (2 * mainsHz);
  for (int row = 0; row < picture->height; ++row) {
    const double ms = kReadoutMs * (static_cast<double>(number % 1000) +
                                    static_cast<double>(row) / picture->height);
    const int strength =
        static_cast<int>(std::lround(kBandStrength * std::sin(2 * kPi * ms / msPerWave)));
    std::uint8_t* luma = rowOf(picture, 0, row);
    for (int x = 0; x < picture->width; ++x) {
      const int value = luma[x] + (((luma[x] - kBlack) * strength) >> 8);
      luma[x] = static_cast<std::uint8_t>(std::clamp(value, 0, 255));
    }
  }
}

}  // namespace

SensorProcessor::SensorProcessor() : noise_(kNoiseSize) {
  for (std::size_t at = 0; at < kNoiseSize; ++at) {
    const std::uint32_t dice = scramble(static_cast<std::uint32_t>(at) + 1);
    const auto once = static_cast<int>(dice & 0xFFFF) % (kNoiseAmplitude + 1);
    const auto twice = static_cast<int>(dice >> 16) % (kNoiseAmplitude + 1);
    noise_[at] = static_cast<std::int8_t>(once - twice);
  }
}

SensorProcessor::Tone SensorProcessor::makeTone(const SensorSettings& settings) {
  const int step =
      settings.exposure == kExposureAutomatic ? 0 : settings.exposure - kExposureMiddle;
  const double exposureMs =
      std::min(kExposureMs * std::pow(2.0, step / 2.0), kShutterMs[settings.maxShutter]);
  const double gain = std::pow(exposureMs / kExposureMs, 1 / kGamma);
  const double contrast = static_cast<double>(settings.colours.contrast) / kColourNeutral;
  const double brightness = (settings.colours.brightness - kColourNeutral) / 256.0 / 256.0;
  const double saturation = static_cast<double>(settings.colours.colour) / kColourNeutral;
  const double angle = (settings.colours.hue - kColourNeutral) / 32768.0 * kPi / 2;
  const Tint& tint = kTints[settings.balance];

  Tone tone;
  tone.neutral = exposureMs == kExposureMs && settings.backlight == 0 && contrast == 1 &&
                 brightness == 0 && saturation == 1 && angle == 0 && tint.u == 0 && tint.v == 0;
  for (int luma = 0; luma < 256; ++luma) {
    double value = std::clamp<double>(luma - kBlack, 0, kWhite - kBlack) / (kWhite - kBlack);
    value = std::min(value * gain, 1.0);
    value += 0.5 * settings.backlight * value * std::pow(1 - value, 4);  // grows with the value
    value = (value - 0.5) * contrast + 0.5 + brightness;
    tone.luma[static_cast<std::size_t>(luma)] = clampLuma(kBlack + value * (kWhite - kBlack));
  }
  tone.chromaStraight = static_cast<int>(std::lround(256 * gain * saturation * std::cos(angle)));
  tone.chromaCross = static_cast<int>(std::lround(256 * gain * saturation * std::sin(angle)));
  tone.tintU = static_cast<int>(std::lround(256 * tint.u));
  tone.tintV = static_cast<int>(std::lround(256 * tint.v));
  return tone;
}

void SensorProcessor::applyTone(const Tone& tone, AVFrame* picture) {
  for (int row = 0; row < picture->height; ++row) {
    std::uint8_t* luma = rowOf(picture, 0, row);
    for (int x = 0; x < picture->width; ++x) luma[x] = tone.luma[luma[x]];
  }
  for (int row = 0; row < picture->height / 2; ++row) {
    const std::uint8_t* luma = rowOf(picture, 0, row * 2);
    std::uint8_t* u = rowOf(picture, 1, row);
    std::uint8_t* v = rowOf(picture, 2, row);
    for (int x = 0; x < picture->width / 2; ++x) {
      const int du = u[x] - kNoChroma;
      const int dv = v[x] - kNoChroma;
      const int light = luma[2 * x] - kBlack;
      const int newU = (du * tone.chromaStraight - dv * tone.chromaCross + light * tone.tintU) >> 8;
      const int newV = (dv * tone.chromaStraight + du * tone.chromaCross + light * tone.tintV) >> 8;
      u[x] = static_cast<std::uint8_t>(std::clamp(newU + kNoChroma, kChromaLowest, kChromaHighest));
      v[x] = static_cast<std::uint8_t>(std::clamp(newV + kNoChroma, kChromaLowest, kChromaHighest));
    }
  }
}

// Each pixel becomes the mean of the square around it; at the edges the outermost pixels go on.
void SensorProcessor::smooth(int radius, AVFrame* picture) {
  const int width = picture->width;
  const int height = picture->height;
  const auto columns = static_cast<std::size_t>(width);
  sharp_.resize(columns * static_cast<std::size_t>(height));
  for (int row = 0; row < height; ++row)
    std::memcpy(&sharp_[columns * static_cast<std::size_t>(row)], rowOf(picture, 0, row), columns);
  sums_.resize(columns + 2 * static_cast<std::size_t>(radius));
  std::uint16_t* sums = sums_.data() + radius;
  const int count = (2 * radius + 1) * (2 * radius + 1);
  const int reciprocal = (1 << 16) / count + 1;
  for (int row = 0; row < height; ++row) {
    std::fill(sums, sums + width, std::uint16_t{0});
    for (int near = row - radius; near <= row + radius; ++near) {
      const std::uint8_t* from =
          &sharp_[columns * static_cast<std::size_t>(std::clamp(near, 0, height - 1))];
      for (int x = 0; x < width; ++x) sums[x] = static_cast<std::uint16_t>(sums[x] + from[x]);
    }
    for (int x = 1; x <= radius; ++x) {
      sums[-x] = sums[0];
      sums[width - 1 + x] = sums[width - 1];
    }
    std::uint8_t* to = rowOf(picture, 0, row);
    for (int x = 0; x < width; ++x) {
      int sum = 0;
      for (int near = -radius; near <= radius; ++near) sum += sums[x + near];
      to[x] = static_cast<std::uint8_t>((sum * reciprocal) >> 16);
    }
  }
}

void SensorProcessor::addNoise(std::int64_t number, AVFrame* picture) const {
  for (int row = 0; row < picture->height; ++row) {
    const auto seed = static_cast<std::uint32_t>(number * picture->height + row);
    const std::int8_t* noise = &noise_[scramble(seed) % (kNoiseSize / 2)];
    std::uint8_t* luma = rowOf(picture, 0, row);
    for (int x = 0; x < picture->width; ++x)
      luma[x] = static_cast<std::uint8_t>(std::clamp(luma[x] + noise[x], kBlack, kWhite));
  }
}

void SensorProcessor::process(const SensorSettings& settings, std::int64_t number, int mainsHz,
                              AVFrame* picture) {
  if (settings.flip != 0) flip(picture);
  if (settings.mirror != 0) mirror(picture);
  if (settings.flicker != (mainsHz == 60 ? kFlicker60Hz : kFlicker50Hz))
    addBands(number, mainsHz, picture);
  const Tone tone = makeTone(settings);
  if (!tone.neutral) applyTone(tone, picture);
  if (settings.noiseFilter == 0) addNoise(number, picture);
  if (settings.noiseFilter > kNoiseFilterClean)
    smooth(settings.noiseFilter - kNoiseFilterClean, picture);
}
