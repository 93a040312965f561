// What the tests of the virtual board's drivers share: they run with the driver library loaded, and
// play the hardware themselves.
#pragma once

#include <gtest/gtest.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "board/hardware/faults.h"
#include "board/hardware/faulty_device.h"
#include "board/hardware/node_server.h"
#include "board/hardware/trace.h"
#include "tests/platform/support.h"

// A chip that notes what reaches it and answers what it was told.
class NotingDevice : public Device {
 public:
  struct Call {
    unsigned request;
    std::vector<char> argument;
  };

  int ioctl(unsigned request, std::vector<char>* argument) override;
  int read(std::size_t limit, std::vector<char>* data) override;
  void closed() override;

  // What an ioctl answers from now on, and what it leaves in the argument.
  void answers(int result, std::vector<char> left = {});
  // What the following reads give, one each; afterwards they block until end().
  void delivers(const std::string& chunk);
  void end();

  Call last() const;
  std::size_t calls() const;
  std::size_t lastLimit() const;
  // How many reads are blocked now.
  int blocked() const;
  int timesClosed() const;

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Call> calls_;
  std::vector<std::string> chunks_;
  std::vector<char> left_;
  int result_ = 0;
  std::size_t limit_ = 0;
  int blocked_ = 0;
  int timesClosed_ = 0;
  bool ended_ = false;
};

// A board's folder, its hardware in this process, and the drivers that look for it there.
class Drivers : public testing::Test {
 protected:
  Drivers();
  ~Drivers() override;

  // The hardware ends, as it would by a signal.
  void stopHardware();
  std::string socketPath() const;
  // The lines of the trace so far.
  std::vector<std::string> traced() const;

  TempRoot board_;
  NotingDevice encoder_;
  NotingDevice sensor_;
  Faults faults_;
  FaultyDevice faultyEncoder_{Node::kEncoder, &encoder_, &faults_};
  FaultyDevice faultySensor_{Node::kSensor, &sensor_, &faults_};
  Trace trace_;
  std::unique_ptr<NodeServer> server_;
};
