// The status slots by name, and what their bit fields say.
#pragma once

#include <string>
#include <vector>

#include "core/status_slots.h"

struct SlotLabel {
  int slot;
  const char* name;  // as people type it
  const char* what;
  bool setting;  // "get" and "set" know it
};

// All slots that mean something, in ascending order.
const std::vector<SlotLabel>& slotLabels();

// Returns the setting called `name`, without regard to case, "_" being as good as "-"; null when
// there is none.
const SlotLabel* findSetting(const std::string& name);

// A bit field of a status word, ready to be shown.
struct Field {
  const char* name;
  std::string value;
  bool worthSaying;  // false: off, none or unset
};

// The fields of slot 24, and of slot 28.
std::vector<Field> statusFields(int word);
std::vector<Field> formatFields(int word);

// Returns "input on, output1 off, ..."; with `all` false only what is worth saying, or "all quiet".
std::string inWords(const std::vector<Field>& fields, bool all);
