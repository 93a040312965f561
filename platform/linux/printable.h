// Texts from outside, made fit for a line of the log.
#pragma once

#include <algorithm>
#include <string>

inline bool isControl(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte < ' ' || byte == 0x7f;
}

inline bool hasControl(const std::string& text) {
  return std::any_of(text.begin(), text.end(), isControl);
}

// Returns the text with every control character replaced.
inline std::string printable(std::string text) {
  std::replace_if(text.begin(), text.end(), isControl, '?');
  return text;
}
