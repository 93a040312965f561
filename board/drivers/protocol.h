// What the drivers of the virtual board say to its hardware: the preload library in the daemon's
// process is the driver, the program "hardware" beside it is the camera's chips.
//
// One connection of a Unix stream socket stands for one opened device node; its descriptor is what
// open() returns. A Call and its bytes go there, a Reply and its bytes come back, in turns. Both
// sides are on one machine: words have its byte order.
#pragma once

#include <cstdint>

constexpr char kHardwareSocket[] = "/run/camera/hardware";  // of the board
constexpr char kControlSocket[] = "/run/camera/boardctl";   // lines of text, see boardctl

enum class CallKind : std::uint32_t {
  kOpen = 1,   // bytes: the path of the node, not terminated
  kRead = 2,   // word: most bytes to be had
  kIoctl = 3,  // word: request; bytes: the argument, may come back changed
  kOwner = 4,  // word: process to get SIGIO, 0: nobody. Not answered.
};

struct Call {
  std::uint32_t kind;
  std::uint32_t word;
  std::uint32_t size;  // bytes that follow
};

struct Reply {
  std::int32_t result;  // of the system call, or a negated errno
  std::uint32_t size;   // bytes that follow
};
static_assert(sizeof(Call) == 12 && sizeof(Reply) == 8, "both sides agree on it");
