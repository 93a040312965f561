// The telephone's logarithmic samples (ITU-T G.711, mu-law).
#pragma once

#include <cstdint>

// Returns the 8-bit sample that stands for a linear one.
unsigned char toMulaw(std::int16_t sample);
