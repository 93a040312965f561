// operator new is replaced for the whole program; the C functions are redirected by the linker
// (--wrap), which works under the sanitizers as well.
#include "tests/fakes/allocations.h"

#include <atomic>
#include <cstdlib>
#include <new>

#include "tests/fakes/fake_platform.h"

namespace {

std::atomic<long> g_allocations{0};

void count() {
  if (!FakeScope::inside()) g_allocations.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

long allocations() { return g_allocations.load(std::memory_order_relaxed); }

extern "C" {

void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* memory, std::size_t size);

void* __wrap_malloc(std::size_t size) {
  count();
  return __real_malloc(size);
}

void* __wrap_calloc(std::size_t number, std::size_t size) {
  count();
  return __real_calloc(number, size);
}

void* __wrap_realloc(void* memory, std::size_t size) {
  count();
  return __real_realloc(memory, size);
}

}  // extern "C"

void* operator new(std::size_t size) {
  count();
  if (void* memory = __real_malloc(size != 0 ? size : 1)) return memory;
  std::abort();
}

void* operator new[](std::size_t size) { return operator new(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
