// A single word shared between threads whose races are harmless by design.
#pragma once

#include <atomic>
#include <type_traits>

// A plain word as far as its users see, a relaxed atomic as far as compiler and sanitizer see:
// loads and stores are never torn and never ordered. Where an order matters, use a fence or a
// mutex. T: at most 32 bits, because 64-bit atomics are not lock-free on 32-bit MIPS, or a pointer.
// Any thread.
template <typename T>
class Relaxed {
 public:
  constexpr Relaxed() noexcept : value_(T{}) {}
  constexpr Relaxed(T value) noexcept : value_(value) {}  // NOLINT(google-explicit-constructor)
  Relaxed(const Relaxed& other) noexcept : value_(other.load()) {}

  Relaxed& operator=(T value) noexcept {
    value_.store(value, std::memory_order_relaxed);
    return *this;
  }
  Relaxed& operator=(const Relaxed& other) noexcept { return *this = other.load(); }

  operator T() const noexcept { return load(); }  // NOLINT(google-explicit-constructor)
  T load() const noexcept { return value_.load(std::memory_order_relaxed); }

 private:
  static_assert(sizeof(T) <= sizeof(void*) && (sizeof(T) <= 4 || std::is_pointer<T>::value),
                "a shared word is at most 32 bits wide, or a pointer");
  static_assert(std::atomic<T>::is_always_lock_free, "a shared word must not need a lock");
  std::atomic<T> value_;
};
