#include "tests/torture/calls/injector.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>
#include <unwind.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

constexpr std::size_t kDepth = 48;  // frames looked at
constexpr std::size_t kFramesOfTheProgram = 5;
constexpr std::size_t kFramesBehindLibrary = 2;
constexpr std::uint32_t kSeenInAftermath = 3;
constexpr std::uint64_t kNsPerMs = 1000000;

FaultTable* table = nullptr;
const void* ownBase = nullptr;

// Calls of the unwinder, or of a signal handler inside this library, are nobody's place.
__thread bool inside __attribute__((tls_model("initial-exec")));

std::uint64_t nowNs(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1000000000 +
         static_cast<std::uint64_t>(now.tv_nsec);
}

struct Stack {
  std::uintptr_t at[kDepth];
  std::size_t size;
};

_Unwind_Reason_Code addFrame(_Unwind_Context* context, void* argument) {
  auto* const stack = static_cast<Stack*>(argument);
  if (stack->size == kDepth) return _URC_END_OF_STACK;
  stack->at[stack->size++] = _Unwind_GetIP(context);
  return _URC_NO_REASON;
}

// The number of a module, entered where it is new; kMostModules when there is no room.
std::size_t moduleNumber(const char* path) {
  const char* const name = *path == '\0' ? "program" : path;
  for (std::size_t i = 0; i < kMostModules; ++i) {
    Module& module = table->modules[i];
    std::uint32_t free = 0;
    if (module.state.compare_exchange_strong(free, 1)) {
      std::strncpy(module.name, name, sizeof module.name - 1);
      module.state = 2;
      return i;
    }
    while (module.state != 2) {
    }
    if (std::strncmp(module.name, name, sizeof module.name - 1) == 0) return i;
  }
  return kMostModules;
}

struct Where {
  const link_map* map;
  Frame offset;
};

Where whereIs(std::uintptr_t address) {
  dl_find_object found{};
  if (_dl_find_object(reinterpret_cast<void*>(address), &found) != 0) return {nullptr, 0};
  return {found.dlfo_link_map, address - found.dlfo_link_map->l_addr};
}

bool isNamed(const link_map* map, const char* part) {
  return std::strstr(map->l_name, part) != nullptr;
}

// The return addresses that make the place: those in the program, or where a library calls its own
// and some of the program. Returns how many, 0 for a place that is none of the program's affair.
std::size_t findPlace(const char* call, Frame (&frames)[kFrames]) {
  Stack stack{};
  _Unwind_Backtrace(addFrame, &stack);
  std::size_t count = 0;
  std::size_t most = kFramesOfTheProgram;
  bool ofLibrary = false;
  for (std::size_t i = 0; i < stack.size && count < most; ++i) {
    const Where where = whereIs(stack.at[i]);
    if (where.map == nullptr || where.map->l_ld == ownBase) continue;
    const bool program = *where.map->l_name == '\0';
    if (count == 0) {
      if (isNamed(where.map, "san.so")) continue;         // an interceptor
      if (isNamed(where.map, "libvs_drivers")) return 0;  // the kernel's side of the board
      ofLibrary = !program;
      if (ofLibrary) most = 1 + kFramesBehindLibrary;
    } else if (!program) {
      continue;
    }
    const std::size_t module = moduleNumber(where.map->l_name);
    if (module == kMostModules) return 0;
    frames[count++] = static_cast<Frame>(module) << kModuleShift | where.offset;
  }
  return ofLibrary && count == 1 && std::strcmp(call, "send") == 0 ? 0 : count;
}

std::uint64_t hashOf(const char* call, const Frame* frames, std::size_t count) {
  constexpr std::uint64_t kPrime = 0x100000001b3;
  std::uint64_t hash = 0xcbf29ce484222325;
  for (; *call != '\0'; ++call) hash = (hash ^ static_cast<unsigned char>(*call)) * kPrime;
  for (std::size_t i = 0; i < count; ++i) {
    hash = (hash ^ frames[i]) * kPrime;
    hash ^= hash >> 29;
  }
  return hash == 0 ? 1 : hash;
}

// The place's entry, which is made where it is new. Null when there is no room.
Place* enter(const char* call, const Frame* frames, std::size_t count) {
  const std::uint64_t hash = hashOf(call, frames, count);
  for (std::size_t i = 0; i < kMostPlaces; ++i) {
    Place& place = table->places[(hash + i) & (kMostPlaces - 1)];
    std::uint64_t found = 0;
    if (place.hash.compare_exchange_strong(found, hash)) {
      std::strncpy(place.call, call, kNameSize - 1);
      std::memcpy(place.frames, frames, count * sizeof *frames);
      return &place;
    }
    if (found == hash) return &place;
  }
  ++table->full;
  return nullptr;
}

// Whether a fault is due: one a period; a place that is only ever seen in the aftermath of faults,
// as what cleans up after them, gets its own there, one a period as well.
bool isDue(Place* place) {
  const std::uint64_t now = nowNs(CLOCK_MONOTONIC);
  std::uint64_t last = table->lastNs;
  if (now - last >= table->periodMs * kNsPerMs)
    return table->lastNs.compare_exchange_strong(last, now);
  const std::uint32_t passed = ++place->passed;
  if (passed < kSeenInAftermath || passed != place->seen) return false;
  std::uint64_t doubled = table->doubledFor;
  return doubled != last && table->doubledFor.compare_exchange_strong(doubled, last);
}

void note(const Place* place, Fault fault) {
  Injected& entry = table->ring[table->injected++ % kRing];
  entry.place = static_cast<std::uint32_t>(place - table->places);
  entry.fault = static_cast<std::uint32_t>(fault);
  entry.process = static_cast<std::int32_t>(syscall(SYS_getpid));
  prctl(PR_GET_NAME, entry.thread);
  entry.atNs = nowNs(CLOCK_REALTIME);
}

Fault chooseFor(Place* place, Faults possible) {
  place->possible |= possible;
  ++place->seen;
  if (table->enabled == 0) return Fault::kCount;
  Faults untried = possible & ~place->tried;
  const std::uint64_t only = table->onlyHash;
  if (only != 0) untried = place->hash == only ? possible & Faults{1} << table->onlyFault : 0;
  if (untried == 0 || !isDue(place)) return Fault::kCount;
  // Any of them, so that short runs differ.
  for (std::uint64_t skip =
           table->lastNs / 1000 % static_cast<unsigned>(__builtin_popcount(untried));
       skip > 0; --skip)
    untried &= untried - 1;
  const auto fault = static_cast<Fault>(__builtin_ctz(untried));
  if ((place->tried.fetch_or(bit(fault)) & bit(fault)) != 0 && only == 0) return Fault::kCount;
  note(place, fault);
  return fault;
}

}  // namespace

void openTable() {
  const char* const path = std::getenv(kTableVariable);
  if (path == nullptr || table != nullptr) return;
  const int fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC));
  if (fd < 0) return;
  void* const base = reinterpret_cast<void*>(
      syscall(SYS_mmap, nullptr, sizeof(FaultTable), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0L));
  syscall(SYS_close, fd);
  if (base == MAP_FAILED) return;
  ownBase = whereIs(reinterpret_cast<std::uintptr_t>(&openTable)).map->l_ld;
  auto* const mapped = static_cast<FaultTable*>(base);
  if (mapped->magic == kTableMagic) table = mapped;
}

Fault choose(const char* call, Faults possible) {
  if (table == nullptr || inside || possible == 0) return Fault::kCount;
  inside = true;
  const int error = errno;
  Frame frames[kFrames]{};
  Fault fault = Fault::kCount;
  const std::size_t count = findPlace(call, frames);
  Place* const place = count > 0 ? enter(call, frames, count) : nullptr;
  if (place != nullptr) fault = chooseFor(place, possible);
  errno = error;
  inside = false;
  return fault;
}

int errorOf(Fault fault) {
  static constexpr int kErrors[] = {
      EIO,   ENOSPC,  EMFILE, EINTR,  ENOMEM,     EACCES,    EAGAIN, ECONNRESET,  ECONNREFUSED,
      EPIPE, ENOBUFS, EROFS,  ENOLCK, EADDRINUSE, ETIMEDOUT, ECHILD, ENETUNREACH, EOPNOTSUPP};
  return kErrors[static_cast<unsigned>(fault)];
}
