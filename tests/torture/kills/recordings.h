// What a camera has recorded, judged after each of its lives.
#pragma once

#include <map>
#include <string>

#include "tests/torture/kills/frame_watch.h"
#include "tests/torture/kills/pictures.h"
#include "tests/torture/kills/report.h"

// How a life ended, for the files that were being written.
struct End {
  bool orderly;       // closed, not killed
  bool spoiled;       // there was no room, or the drivers gave no stream header
  double patienceMs;  // for what the machine kept waiting
  std::string how;    // for people
};

// The files below /usb and /smb. Each is judged when it is new, looked at once more after the next
// life, which must not have changed it, and removed. Bound to one thread.
class Recordings {
 public:
  // All must outlive this. `pictures`: what a file source records; null: a sensor camera.
  Recordings(const Pictures* pictures, const FrameWatch* watch, Report* report)
      : pictures_(pictures), watch_(watch), report_(report) {}

  void look(const End& end);

 private:
  void judgePictures(const std::map<std::string, std::string>& files, const End& end);
  void judgeFilm(const std::string& path, const End& end);
  void judgeCutFilm(const std::string& path, const End& end);
  bool isWhole(const std::string& content) const;
  bool isBeginning(const std::string& content) const;
  // Returns the new files of a folder, with their content; those of the last look are checked.
  std::map<std::string, std::string> newIn(const std::string& folder);
  void compare(const std::string& path, const std::string& content);

  const Pictures* const pictures_;
  const FrameWatch* const watch_;
  Report* const report_;
  std::map<std::string, std::string> judged_;  // of the last look, by path
};
