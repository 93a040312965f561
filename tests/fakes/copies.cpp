// The C functions are redirected by the linker (--wrap), which works under the sanitizers as well.
#include "tests/fakes/copies.h"

#include <atomic>

#include "tests/fakes/fake_platform.h"

namespace {

std::atomic<long> g_copied{0};

void count(std::size_t size) {
  if (size >= kCopyCounts && !FakeScope::inside())
    g_copied.fetch_add(static_cast<long>(size), std::memory_order_relaxed);
}

}  // namespace

long copiedBytes() { return g_copied.load(std::memory_order_relaxed); }

extern "C" {

void* __real_memcpy(void* to, const void* from, std::size_t size);
void* __real_memmove(void* to, const void* from, std::size_t size);

void* __wrap_memcpy(void* to, const void* from, std::size_t size) {
  count(size);
  return __real_memcpy(to, from, size);
}

void* __wrap_memmove(void* to, const void* from, std::size_t size) {
  count(size);
  return __real_memmove(to, from, size);
}

// What hardened code calls where the compiler knows the room.
void* __wrap___memcpy_chk(void* to, const void* from, std::size_t size, std::size_t) {
  return __wrap_memcpy(to, from, size);
}

void* __wrap___memmove_chk(void* to, const void* from, std::size_t size, std::size_t) {
  return __wrap_memmove(to, from, size);
}

}  // extern "C"
