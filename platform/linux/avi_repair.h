// Repair of recordings that were not closed, or have lost their end.
#pragma once

#include <cstdint>

// What was done to a file.
struct AviRepair {
  int result = -1;             // 1 repaired, 0 nothing was to be done, -1 refused or failed
  std::uint64_t pictures = 0;  // that are there; of 0: none in a file of no bytes
  std::uint64_t cut = 0;       // bytes of an incomplete end that were taken off
  const char* reason = "";     // of -1: a text for people that lives for ever
  int error = 0;  // of -1: `errno` where a call has failed, EAGAIN: is being written; otherwise 0
};

// Brings the head and the indexes of the recording at `path` to the state of a closed one, in
// place. Every whole picture stays; nothing is taken off but an end without one. Damage ahead of
// whole pictures becomes a chunk that players skip. The rate stays as it was measured. A sound file
// isn't written to, nor is one that is refused: another kind of file, one that is being written, or
// one in which no picture is found.
// Whatever the file holds, memory is bounded and nothing outside of it is touched. Killed in
// between, it can be called again. `path` is taken as it stands. Any thread.
AviRepair repairAvi(const char* path);
