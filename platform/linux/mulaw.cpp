#include "platform/linux/mulaw.h"

// A sample is a sign, one of eight segments, each twice as steep as the one before it, and one of
// 16 steps in it. With the bias added the segments begin at powers of two, from 128 on.
unsigned char toMulaw(std::int16_t sample) {
  constexpr int kBias = 132;
  constexpr int kLargest = 32767 - kBias;
  constexpr int kNegative = 0x80;
  int magnitude = sample < 0 ? -static_cast<int>(sample) : sample;
  if (magnitude > kLargest) magnitude = kLargest;
  magnitude += kBias;
  int segment = 7;
  while (segment > 0 && (magnitude & (kBias - 4) << segment) == 0) --segment;
  const int step = magnitude >> (segment + 3) & 0x0f;
  return static_cast<unsigned char>(~((sample < 0 ? kNegative : 0) | segment << 4 | step));
}
