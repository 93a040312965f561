// How often faults are gone through, in search of what they leave behind.
#pragma once

#include <algorithm>
#include <cstdlib>

#include "tests/slow_build.h"

// Returns `usual` rounds, fewer where programs are slow; as many as the environment says in
// VS_FAULT_ROUNDS, 1000 for instance, when it does.
inline int faultRounds(int usual) {
  const char* const wanted = std::getenv("VS_FAULT_ROUNDS");
  return wanted != nullptr ? std::max(1, std::atoi(wanted)) : usual / static_cast<int>(kSlow);
}
