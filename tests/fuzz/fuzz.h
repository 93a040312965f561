// What the fuzz targets share: taking an input apart, and saying that a promise is broken.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <type_traits>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

// Ends the process, which the fuzzer takes for a finding, when a promise does not hold.
inline void require(bool held, const char* promise) {
  if (held) return;
  std::fprintf(stderr, "broken promise: %s\n", promise);
  std::abort();
}

// An input taken apart from its front. Beyond its end there are zeros and empty texts.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size)
      : data_(reinterpret_cast<const char*>(data)), left_(size) {}

  std::size_t left() const { return left_; }

  template <typename T>
  T take() {
    static_assert(std::is_integral_v<T>);
    T value = 0;
    const std::size_t length = std::min(sizeof value, left_);
    if (length > 0) std::memcpy(&value, data_, length);
    skip(length);
    return value;
  }
  // From 0 to `limit` - 1.
  unsigned below(unsigned limit) { return limit <= 256 ? byte() % limit : word() % limit; }
  unsigned byte() { return take<std::uint8_t>(); }
  unsigned word() { return take<std::uint16_t>(); }

  std::string bytes(std::size_t most) {
    std::string taken(data_, std::min(most, left_));
    skip(taken.size());
    return taken;
  }
  // What stands ahead of `end`, which is taken too; without one, the rest.
  std::string text(char end) {
    const void* const found = left_ > 0 ? std::memchr(data_, end, left_) : nullptr;
    if (found == nullptr) return rest();
    std::string taken(data_, static_cast<const char*>(found));
    skip(taken.size() + 1);
    return taken;
  }
  std::string rest() { return bytes(left_); }

 private:
  void skip(std::size_t length) {
    data_ += length;
    left_ -= length;
  }

  const char* data_;
  std::size_t left_;
};
