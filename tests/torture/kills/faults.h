// What is wrong with a camera's surroundings in one of its lives.
#pragma once

#include <sys/types.h>

#include <string>

#include "tests/torture/kills/moments.h"
#include "tests/torture/kills/silent_server.h"

constexpr char kFiller[] = "/usb/filler";  // what fills the disk

// Bound to one thread.
class Faults {
 public:
  // `model`: of the hardware, empty: a file source. `shareServer`: the process that serves /smb, 0:
  // none. `disk`: /usb is small enough to be filled.
  Faults(std::string model, pid_t shareServer, bool disk, Moments* moments);

  // Chooses what is wrong in the next life, unless `only` says it; most of it is so from the start,
  // the rest begins with strike().
  void choose(const std::string& only);
  void strike();
  void heal();

  // Lines for /etc/camera.conf, and for a section of /etc/events.conf.
  std::string settings() const;
  std::string actions() const;

  const std::string& name() const { return name_; }
  bool diskIsFull() const { return name_ == "disk full"; }
  bool spoilRecordings() const { return diskIsFull() || name_ == "drivers fail"; }
  // The capture thread may be kept in a read, or in reading again and again, for good: then the
  // watchdog ends the daemon.
  bool mayHoldTheDaemon() const { return name_.compare(0, 7, "drivers") == 0 || hardwareDies(); }
  bool shareHangs() const { return name_ == "share hangs"; }
  bool hardwareDies() const { return name_ == "hardware dead"; }

 private:
  void turn(const std::string& command) const;

  const std::string model_;
  const pid_t shareServer_;
  const bool disk_;
  Moments* const moments_;
  SilentServer ftp_, mail_;
  std::string name_ = "nothing";
};
