// Mappings of segments, under which another process may cut the file.
#pragma once

#include <signal.h>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "platform/relaxed.h"

namespace sb {

// A mapped file of shared memory. Whoever may write to it may also cut it, and a page that has gone
// would end the process that touches it by SIGBUS: here it ends the mapping instead. All of it
// becomes private memory, zeros but for the head's word `retired`, which is what its users look at.
// A SIGBUS from anywhere else has the effect that it always had.
class Mapping {
 public:
  // Maps the first `size` bytes of `fd`, shared. Returns null with `errno` when that fails. To be
  // given back, or kept for the life of the process. Any thread.
  static Mapping* make(int fd, std::size_t size, int protection);
  // Unmaps it; nobody may use it any more. Any thread.
  static void giveBack(Mapping* mapping);

  unsigned char* base() const { return base_; }
  // True iff pages had gone when they were touched, and it was not mended since.
  bool broken() const { return broken_; }

  // Maps the file anew in the place of private memory, in one step, as others may use it meanwhile.
  // `protection`: of the first `split` bytes and of the rest. Returns true on success.
  bool mend(int fd, std::size_t split, int protection, int protectionOfRest);

 private:
  Mapping() = default;
  bool covers(const void* address) const;
  static void onBusError(int signal, siginfo_t* about, void* context);
  static void watchBusErrors();

  // Never freed, as the signal's handler may walk over it: one that was given back is used again.
  Relaxed<unsigned char*> base_ = nullptr;  // null: given back
  std::atomic<std::size_t> size_{0};
  Relaxed<bool> broken_;
  std::atomic<bool> taken_{true};
  Mapping* next_ = nullptr;
};

}  // namespace sb
