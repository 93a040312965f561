// Finds gaps in a stream and counts what is left out after them.
#pragma once

#include <cstdint>

// After a gap the pictures up to the next key frame can't be decoded: they are left out.
// Bound to one thread.
class TPassiveDrop {
 public:
  // Looks at the sequence number of the next frame. Unless it is the last one plus 1, dropping
  // begins. Returns true iff chunks are being dropped.
  bool test(long number);

  // Counts a chunk if it is to be dropped, and says so on standard error from time to time.
  // Returns true iff it is.
  bool dropzone();

  // A key frame has come: dropping ends.
  void resume() { dropping_ = 0; }

 private:
  std::int32_t last_ = 0;  // sequence number
  std::int32_t dropping_ = 0;
  std::int32_t dropped_ = 0;  // since the last message
};
