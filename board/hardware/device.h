// What every chip of the virtual board answers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "board/hardware/picture_count.h"

// One device, as its driver's requests reach it. Any thread: each opened node has its own.
class Device {
 public:
  Device() = default;
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;
  virtual ~Device() = default;

  // Answers a request (platform/mpg430.h, platform/vicam.h). `argument`: as long as
  // board/drivers/requests.h says; what it holds afterwards goes back to the caller. Returns the
  // result of the system call, or a negated errno (-EINVAL: no such request, no such value).
  virtual int ioctl(unsigned request, std::vector<char>* argument) = 0;

  // Blocks until there is something, at most as long as the chip's own clock says, and puts at most
  // `limit` bytes into `data`. Returns their number or a negated errno.
  virtual int read(std::size_t limit, std::vector<char>* data) = 0;

  // The last of its opened nodes was closed.
  virtual void closed() {}

  // What it has counted, null when it counts nothing. Lives as long as the device.
  virtual const PictureCount* count() const { return nullptr; }
};
