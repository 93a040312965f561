// The drivers of the virtual board, in a library that also counts what the capture thread of its
// process copies and allocates: its own calls of the C library's functions, which come here first.
// scripts/bench loads it in the place of libvs_drivers.so and reads the counts from the file
// /tmp/copies of the board.
#include <fcntl.h>
#include <strings.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "board/drivers/libc.h"

namespace {

constexpr char kFile[] = "/tmp/copies";
constexpr char kCaptureThread[] = "KVX-video";

// As it lies in the file. The capture thread alone writes it.
struct Counts {
  volatile std::int64_t copies;
  volatile std::int64_t bytes;  // copied
  volatile std::int64_t allocations;
};

Counts* counts = nullptr;

bool counting() {
  char name[16] = "";
  return counts != nullptr && prctl(PR_GET_NAME, name) == 0 && strcmp(name, kCaptureThread) == 0;
}

void countCopy(std::size_t size) {
  if (!counting()) return;
  counts->copies = counts->copies + 1;
  counts->bytes = counts->bytes + static_cast<std::int64_t>(size);
}

void countAllocation() {
  if (counting()) counts->allocations = counts->allocations + 1;
}

__attribute__((constructor)) void begin() {
  const int fd = open(kFile, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  void* memory = MAP_FAILED;
  if (fd >= 0 && ftruncate(fd, sizeof(Counts)) == 0)
    memory = mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (memory != MAP_FAILED) counts = static_cast<Counts*>(memory);
}

}  // namespace

extern "C" {

// The C library's own, under its second names.
void* realMalloc(std::size_t size) __asm__("__libc_malloc");
void* realCalloc(std::size_t number, std::size_t size) __asm__("__libc_calloc");
void* realRealloc(void* memory, std::size_t size) __asm__("__libc_realloc");

void* countedMalloc(std::size_t size) ANSWERS("malloc");
void* countedCalloc(std::size_t number, std::size_t size) ANSWERS("calloc");
void* countedRealloc(void* memory, std::size_t size) ANSWERS("realloc");
void* countedCopy(void* to, const void* from, std::size_t size) ANSWERS("memcpy");
void* countedMove(void* to, const void* from, std::size_t size) ANSWERS("memmove");
// What the daemon's build makes of those whose destination it knows.
void* countedCheckedCopy(void* to, const void* from, std::size_t size, std::size_t room)
    ANSWERS("__memcpy_chk");
void* countedCheckedMove(void* to, const void* from, std::size_t size, std::size_t room)
    ANSWERS("__memmove_chk");

void* countedMalloc(std::size_t size) {
  countAllocation();
  return realMalloc(size);
}

void* countedCalloc(std::size_t number, std::size_t size) {
  countAllocation();
  return realCalloc(number, size);
}

void* countedRealloc(void* memory, std::size_t size) {
  countAllocation();
  return realRealloc(memory, size);
}

void* countedCopy(void* to, const void* from, std::size_t size) {
  countCopy(size);
  mempcpy(to, from, size);
  return to;
}

void* countedMove(void* to, const void* from, std::size_t size) {
  countCopy(size);
  bcopy(from, to, size);
  return to;
}

void* countedCheckedCopy(void* to, const void* from, std::size_t size, std::size_t room) {
  if (size > room) abort();
  return countedCopy(to, from, size);
}

void* countedCheckedMove(void* to, const void* from, std::size_t size, std::size_t room) {
  if (size > room) abort();
  return countedMove(to, from, size);
}

}  // extern "C"
