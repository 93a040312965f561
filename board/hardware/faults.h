// What goes wrong with the board's hardware because somebody wants to see what the daemon does
// then.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "board/drivers/requests.h"

// How the bytes of a read come wrong.
enum class ChunkFault {
  kShort,     // at most so many bytes at a time
  kLate,      // so many ms after they were due
  kTorn,      // half of what there was; the rest is lost
  kEmpty,     // a read gives nothing, and takes nothing from the chip
  kHeadless,  // without the start code
};

// The faults that are switched on. Any thread.
class Faults {
 public:
  static constexpr int kForGood = -1;

  // Requests, or reads, end with `error` (a positive errno), `times` times.
  // `request`: its name in requests.h, or "*" for every request.
  void failRequest(const std::string& request, int error, int times);
  void failRead(Node node, int error, int times);
  // `times` reads come wrong. A kind that is told again begins anew.
  void spoilReads(Node node, ChunkFault kind, int value, int times);
  // MPG430_GET_IMGHEADER tells this length.
  void lieAboutHeader(int length);
  // All calls on the node block from now on, until goOn(), heal() or end().
  void hang(Node node);
  void goOn();
  // No fault any more.
  void heal();
  // No fault any more, and none from now on: the program ends.
  void end();

  // One line for each fault that is on.
  std::string describe() const;

  // The questions of a device at work; each answer counts as one time.
  // Returns a positive errno, 0: no fault.
  int requestError(const char* request);
  int readError(Node node);
  // Returns the value of the fault if it is on.
  std::optional<int> readFault(Node node, ChunkFault kind);
  std::optional<int> headerLength() const;
  // Blocks while the node hangs.
  void waitWhileHung(Node node);
  // Waits so long, or until end().
  void pause(std::chrono::milliseconds time);

 private:
  struct Fault {
    int value;
    int times;
  };
  using ByName = std::map<std::string, Fault>;

  void add(const std::string& name, int value, int times);
  std::optional<int> take(const std::string& name);

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  ByName
      faults_;  // "fail *", "fail SET_MIRROR", "fail read-sensor", "short encoder", "hang sensor"
  bool ended_ = false;
};
