// The streams that a process knows, and the handle that each has at present.
#pragma once

#include <atomic>
#include <cstdint>

struct SB_HANDLE;

namespace sb {

enum Stream { kVideo, kVideo2, kAudio, kStreams };

// The present handle of each stream; null: a look is due.
extern std::atomic<SB_HANDLE*> current[kStreams];

// The handle that the stream had last, whatever is there now; null: none yet.
SB_HANDLE* lastHandle(int stream);

// Where the stream's segment is. Stable storage.
const char* streamPath(int stream);

enum class Attached {
  kYes,
  kMissing,  // nothing has the name
  kRefused,  // something has it that is no usable segment
  kFull      // the segment is good, but every lease is taken
};

// Makes the segment that has the stream's name the current one, attaching it when it is another
// than before. A name that is gone leaves the last segment current.
// On any failure `current` stays null; after it the file is opened again once a second at the most.
// Logs 2 "buffer %s: %s", once per file.
Attached attach(int stream);

// For the current handle, unless it was done in the last `everyMs`: makes sbVideo() and its sisters
// look anew when the name leads to another segment by now. Returns true iff it still is this one's.
bool lookForReplacement(SB_HANDLE* handle, std::uint32_t nowMs, std::uint32_t everyMs);

// Says that this process owns the segments, and not its forks. owns(): whether it does.
void becomeOwner();
bool owns();

// Forgets all handles, which stay valid: the next attach() begins anew. For tests, which change the
// file tree below a process.
void forgetStreams();

}  // namespace sb
