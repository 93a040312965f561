// A look into a stream buffer, for tools. It takes nothing and changes nothing.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct SB_HANDLE;

namespace sb {

// A process that has a lease.
struct LeaseState {
  int lease = 0;
  int pid = 0;        // as the process itself wrote it
  bool alive = true;  // false: it died with frames in its hands, which the writer takes back
};

struct FrameState {
  std::uint32_t number = 0;  // 0: empty or being written
  std::uint32_t ageMs = 0;   // since it was published; 0 for number 0
  std::uint32_t length = 0;  // of the payload, 0 for number 0
  std::vector<LeaseState> holders;
};

struct SlotState {
  std::int32_t value = 0;
  bool marked = false;       // written since it was tested
  std::uint32_t writes = 0;  // modulo 2^24
};

struct Snapshot {
  std::string path;
  std::uint32_t version = 0;
  std::uint32_t epoch = 0;
  std::uint32_t frameSize = 0;     // record included
  std::uint32_t totalBytes = 0;    // of the segment
  std::uint32_t latest = 0;        // number of the newest frame
  std::uint32_t busyCount = 0;     // reservations that found no frame
  int writerPid = 0;               // 0: no process writes at present
  int frameBeingWritten = -1;      // index; -1: none
  bool retired = false;            // replaced by another segment
  std::vector<LeaseState> leases;  // that are taken, in order
  std::vector<FrameState> frames;
  std::vector<SlotState> slots;
};

// Returns what `buffer` looks like; each word is right, but not all are of one instant. `buffer`
// must not be null. Any thread.
Snapshot inspect(SB_HANDLE* buffer);

}  // namespace sb
