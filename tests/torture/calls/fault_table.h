// The table of a torture trial that lets calls fail: which places of a program call the system, and
// which errors each of them has had. It lies in a file that the program, all its later runs and the
// trial map shared, so that nothing is tried twice and a crash can be put down to what was
// injected.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

// What can happen to a call: an error, fewer bytes than asked for, or none at all.
enum class Fault : std::uint32_t {
  kIo,
  kNoSpace,
  kTooManyFiles,
  kInterrupted,
  kNoMemory,
  kNoAccess,
  kAgain,
  kReset,
  kRefused,
  kBrokenPipe,
  kNoBuffers,
  kReadOnly,
  kNoLocks,
  kAddressInUse,
  kTimedOut,
  kNoChild,
  kUnreachable,
  kNotSupported,
  kShort,
  kEnd,
  kCount,
};

// A set of faults, one bit each.
using Faults = std::uint32_t;
constexpr Faults bit(Fault fault) { return Faults{1} << static_cast<unsigned>(fault); }

constexpr std::size_t kMostPlaces = 16384;  // a power of two
constexpr std::size_t kMostModules = 64;
constexpr std::size_t kFrames = 8;  // return addresses that make a place, the innermost first
constexpr std::size_t kRing = 4096;
constexpr std::size_t kNameSize = 24;

// A return address: the module's number in the upper 16 bits, the offset in it below.
using Frame = std::uint64_t;
constexpr unsigned kModuleShift = 48;

// A place is free while its hash is 0.
struct Place {
  std::atomic<std::uint64_t> hash;
  char call[kNameSize];
  Frame frames[kFrames];
  std::atomic<Faults> possible;
  std::atomic<Faults> tried;
  std::atomic<std::uint32_t> seen;
  std::atomic<std::uint32_t> passed;  // of these so soon after a fault that none was due
};

struct Injected {
  std::atomic<std::uint64_t> atNs;  // wall clock
  std::uint32_t place;
  std::uint32_t fault;
  std::int32_t process;
  char thread[16];
};

struct Module {
  std::atomic<std::uint32_t> state;  // 0 free, 1 being written, 2 there
  char name[124];
};

struct FaultTable {
  std::uint32_t magic;
  std::atomic<std::uint32_t> enabled;
  std::atomic<std::uint32_t> periodMs;
  std::atomic<std::uint32_t> full;        // calls of places that found no room
  std::atomic<std::uint64_t> lastNs;      // of the last fault, monotonic
  std::atomic<std::uint64_t> doubledFor;  // the `lastNs` whose aftermath has had its own fault
  std::atomic<std::uint64_t> onlyHash;    // other than 0: this place alone
  std::atomic<std::uint32_t> onlyFault;   // and this fault of it, however often
  std::atomic<std::uint32_t> injected;    // ever; the next entry of the ring
  Module modules[kMostModules];
  Injected ring[kRing];
  Place places[kMostPlaces];
};

constexpr std::uint32_t kTableMagic = 0x544c4146;
constexpr const char* kTableVariable = "VS_FAULTS";
