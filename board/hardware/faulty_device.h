// A chip with the faults that are switched on.
#pragma once

#include "board/hardware/device.h"
#include "board/hardware/faults.h"

// Stands between the drivers and a chip, so that chips need not know of faults. Any thread.
class FaultyDevice : public Device {
 public:
  // `device`, `faults`: not owned, must outlive it.
  FaultyDevice(Node node, Device* device, Faults* faults)
      : node_(node), device_(device), faults_(faults) {}

  int ioctl(unsigned request, std::vector<char>* argument) override;
  int read(std::size_t limit, std::vector<char>* data) override;
  void closed() override { device_->closed(); }
  const PictureCount* count() const override { return device_->count(); }

 private:
  const Node node_;
  Device* const device_;
  Faults* const faults_;
};
