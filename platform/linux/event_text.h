// The texts of the event log.
#pragma once

#include <cstddef>

struct EventText {
  int id;
  const char* text;
};

// All identifiers in ascending order, `kEventTextCount` of them.
extern const EventText kEventTexts[];
extern const std::size_t kEventTextCount;

// Returns the text of `id`, "unknown event" for one that has none. Any thread.
const char* eventText(int id);
