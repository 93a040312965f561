// Counts what a process allocates. To be preloaded; the file /tmp/memory of the board has the
// counts. All of the C library's doors are here, since what comes in by one may go out by another.
#include <fcntl.h>
#include <malloc.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "board/drivers/libc.h"

namespace {

constexpr char kFile[] = "/tmp/memory";
constexpr char kProgram[] = "video_svr";
constexpr char kCaptureThread[] = "KVX-video";

// As it lies in the file.
struct Counts {
  std::atomic<std::int64_t> bytes;        // in use now
  std::atomic<std::int64_t> blocks;       // in use now
  std::atomic<std::int64_t> allocations;  // ever
  std::atomic<std::int64_t> ofCapture;    // ever, by the capture thread
};

Counts early;  // until the file is there
Counts* counts = &early;

void* gained(void* memory) {
  if (memory == nullptr) return memory;
  counts->bytes += static_cast<std::int64_t>(malloc_usable_size(memory));
  ++counts->blocks;
  ++counts->allocations;
  char name[16] = "";
  if (prctl(PR_GET_NAME, name) == 0 && strcmp(name, kCaptureThread) == 0) ++counts->ofCapture;
  return memory;
}

void lost(std::size_t size) {
  counts->bytes -= static_cast<std::int64_t>(size);
  --counts->blocks;
}

__attribute__((constructor)) void begin() {
  if (strcmp(program_invocation_short_name, kProgram) != 0) return;  // a command of the daemon's
  const int fd = open(kFile, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  void* memory = MAP_FAILED;
  if (fd >= 0 && ftruncate(fd, sizeof(Counts)) == 0)
    memory = mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (memory == MAP_FAILED) return;
  auto* const made = static_cast<Counts*>(memory);
  made->bytes = early.bytes.load();
  made->blocks = early.blocks.load();
  counts = made;
}

}  // namespace

extern "C" {

// The C library's own, under its second names.
void* realMalloc(std::size_t size) __asm__("__libc_malloc");
void* realCalloc(std::size_t number, std::size_t size) __asm__("__libc_calloc");
void* realRealloc(void* memory, std::size_t size) __asm__("__libc_realloc");
void* realMemalign(std::size_t alignment, std::size_t size) __asm__("__libc_memalign");
void realFree(void* memory) __asm__("__libc_free");

void* meteredMalloc(std::size_t size) ANSWERS("malloc");
void* meteredCalloc(std::size_t number, std::size_t size) ANSWERS("calloc");
void* meteredRealloc(void* memory, std::size_t size) ANSWERS("realloc");
void* meteredMemalign(std::size_t alignment, std::size_t size) ANSWERS("memalign");
void* meteredAligned(std::size_t alignment, std::size_t size) ANSWERS("aligned_alloc");
int meteredPosix(void** memory, std::size_t alignment, std::size_t size) ANSWERS("posix_memalign");
void meteredFree(void* memory) ANSWERS("free");

void* meteredMalloc(std::size_t size) { return gained(realMalloc(size)); }

void* meteredCalloc(std::size_t number, std::size_t size) {
  return gained(realCalloc(number, size));
}

void* meteredRealloc(void* memory, std::size_t size) {
  const std::size_t before = memory == nullptr ? 0 : malloc_usable_size(memory);
  void* const result = realRealloc(memory, size);
  if (memory != nullptr && (result != nullptr || size == 0)) lost(before);
  return gained(result);
}

void* meteredMemalign(std::size_t alignment, std::size_t size) {
  return gained(realMemalign(alignment, size));
}

void* meteredAligned(std::size_t alignment, std::size_t size) {
  return gained(realMemalign(alignment, size));
}

int meteredPosix(void** memory, std::size_t alignment, std::size_t size) {
  void* const result = gained(realMemalign(alignment, size));
  if (result == nullptr) return ENOMEM;
  *memory = result;
  return 0;
}

void meteredFree(void* memory) {
  const int before = errno;
  if (memory != nullptr) lost(malloc_usable_size(memory));
  realFree(memory);
  errno = before;
}
}
