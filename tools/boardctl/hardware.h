// The program "hardware" of a board, as boardctl talks to it.
#pragma once

#include <string>

enum class Answer { kOk, kFailed, kUsage, kNobody };

// Sends one line to the hardware of the board in `folder`. `*text`: what it has to show, or why it
// failed. Returns kNobody when no hardware runs there.
Answer askHardware(const std::string& folder, const std::string& line, std::string* text);
