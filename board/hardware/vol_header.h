// The head of an MPEG-4 stream.
#pragma once

#include <array>

#include "platform/mpg430.h"

// Steps of the clock in which the pictures tell their times.
constexpr int kVopTimeSteps = 1000;

// Returns the video object and video object layer header (ISO/IEC 14496-2, simple profile,
// rectangular, no control parameters) for pictures of that size, padded with zeros. The width
// stands in 13 bits from bit 108, the height from bit 122. Other settings of the coder (Mpeg4Coder)
// need another header.
std::array<char, kMpg430HeaderBytes> volHeader(int width, int height);
