// Waiting for a word of shared memory to change, across processes.
#pragma once

#include <cstdint>

#include "platform/linux/stream_buffer_layout.h"

namespace sb {

// Waits until `word` is woken, 50 ms at the most, or `ms` if that is less; returns at once when it
// no longer holds `expected`. May also return for no reason: callers look again.
void futexWait(Word& word, std::uint32_t expected, long ms);

// Wakes all waiters of `word`, in whatever process.
void futexWake(Word& word);

}  // namespace sb
