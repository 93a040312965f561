// What the virtual hardware of a board says of its pictures.
#pragma once

#include <string>

struct HardwareCount {
  long given = 0;
  long missed = 0;
};

// Asks, as boardctl does. `node`: "/dev/mpg430" or "/dev/video0". Returns false while nobody
// answers, or nobody has opened the node.
bool countHardware(const std::string& board, const std::string& node, HardwareCount* count);
