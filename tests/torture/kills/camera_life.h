// One camera, which lives many times.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tests/torture/kills/event_lines.h"
#include "tests/torture/kills/faults.h"
#include "tests/torture/kills/frame_watch.h"
#include "tests/torture/kills/hiccups.h"
#include "tests/torture/kills/moments.h"
#include "tests/torture/kills/pictures.h"
#include "tests/torture/kills/recordings.h"
#include "tests/torture/kills/report.h"

struct Options {
  std::string model;     // "B520" or "K310"; empty: a file source
  bool orderly = false;  // asked to end, under faults; otherwise killed
  bool films = false;    // /smb can be written
  bool disk = false;     // /usb is small
  std::string fault;     // always this one
  pid_t server = 0;      // of the share
  double seconds = 10;
  unsigned seed = 1;
};

// Starts the daemon with its peers in the board in which this runs, ends it at a random moment, and
// judges what it leaves. Bound to one thread.
class CameraLife {
 public:
  CameraLife(const Options& options, const Pictures* pictures, Report* report);
  CameraLife(const CameraLife&) = delete;
  CameraLife& operator=(const CameraLife&) = delete;
  ~CameraLife();

  // One life, from the start to the end.
  void live();
  // At the end of all: nothing of it is left.
  void leave();

 private:
  struct Reader {
    pid_t pid;
    double until;  // when it is to be killed
  };

  void configure();
  void writeEvents() const;
  void startDaemon();
  void startPeers();
  void startSocmond();
  void startHardware();
  void killHardware();
  void startReader(Reader* reader);
  void lead(double ms);  // lets the life go on for so long, with all that happens in it
  void something();      // lets one thing happen
  void replaceReaders();
  void awaitFirstPicture();
  void sayWhatItDoes() const;
  void killIt();
  void endIt();
  void judgeEnd(double begun, int status);
  void judgeOutputs();
  double moment();
  double patience(double begun) const;

  const Options options_;
  const Pictures* const pictures_;  // null: a sensor's or encoder's stream
  Report* const report_;
  const std::string settings_;  // as they were: others are put behind them
  Moments moments_;
  Faults faults_;
  Hiccups hiccups_;
  FrameWatch watch_;
  Recordings recordings_;
  EventLines events_;
  pid_t daemon_ = -1, socmond_ = -1, hardware_ = -1;
  std::vector<Reader> readers_;
  double begun_ = 0;  // of this life
  std::int64_t begunWallUs_ = 0;
  Waits hardwareWaited_;  // until then
  bool struck_ = false;
  int geometry_ = 0;  // frames beyond the usual ones
};
