// Waiting for a word of memory to change, across processes where the word is shared.
#pragma once

#include <atomic>
#include <cstdint>

// Waits until `word` is woken, 50 ms at the most, or `ms` if that is less; returns at once when it
// no longer holds `expected`. May also return for no reason: callers look again.
void futexWait(std::atomic<std::uint32_t>& word, std::uint32_t expected, long ms);

// The same without that most: waits `us` microseconds of the monotonic clock. Nobody who can be
// killed alone may have to wake `word`.
void futexPause(std::atomic<std::uint32_t>& word, std::uint32_t expected, std::int64_t us);

// Wakes all waiters of `word`, in whatever process.
void futexWake(std::atomic<std::uint32_t>& word);
