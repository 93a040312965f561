// A stream buffer's file as a process that means harm leaves it, and goes on changing it: patches
// of its words, which come from the input. One thread.
#pragma once

#include <cstdint>
#include <string>

#include "tests/fuzz/fuzz.h"

namespace segment_file {

// Below the platform's root, which is a folder of this process in memory, removed at its end.
void prepare();

// Makes the file of "video" anew: a sound segment but for the patches that the input begins with.
void make(Input* input);

// Until end(), what the code under test passes on its way decides when the input's next patch
// comes.
void begin(Input* input);
void end();

// Unmaps and closes what the owner has replaced, and keeps for threads that may use it.
void unmapLeftOvers();

}  // namespace segment_file
