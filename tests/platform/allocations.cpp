#include "tests/platform/allocations.h"

#include <atomic>
#include <cstddef>

namespace {
std::atomic<unsigned> count{0};
}  // namespace

unsigned allocationCount() { return count; }

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)

// The sanitizers have their own allocator, and call back. Their header does not come with GCC.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*allocated)(const volatile void*,
                                                                           std::size_t),
                                                         void (*freed)(const volatile void*));
namespace {
void allocated(const volatile void*, std::size_t) { count.fetch_add(1, std::memory_order_relaxed); }
void freed(const volatile void*) {}
const int installed = __sanitizer_install_malloc_and_free_hooks(allocated, freed);
}  // namespace

#elif defined(VS_WRAP_MALLOC)

// In a static program the linker leads every call here, the C library's as well.
extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t number, std::size_t size);
void* __real_realloc(void* old, std::size_t size);
void* __wrap_malloc(std::size_t size);
void* __wrap_calloc(std::size_t number, std::size_t size);
void* __wrap_realloc(void* old, std::size_t size);

void* __wrap_malloc(std::size_t size) {
  ++count;
  return __real_malloc(size);
}
void* __wrap_calloc(std::size_t number, std::size_t size) {
  ++count;
  return __real_calloc(number, size);
}
void* __wrap_realloc(void* old, std::size_t size) {
  ++count;
  return __real_realloc(old, size);
}
}

#else

// In a dynamic program the first definition serves everyone, the C library as well.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t number, std::size_t size);
void* __libc_realloc(void* old, std::size_t size);

void* malloc(std::size_t size) noexcept {
  ++count;
  return __libc_malloc(size);
}
void* calloc(std::size_t number, std::size_t size) noexcept {
  ++count;
  return __libc_calloc(number, size);
}
void* realloc(void* old, std::size_t size) noexcept {
  ++count;
  return __libc_realloc(old, size);
}
}

#endif
