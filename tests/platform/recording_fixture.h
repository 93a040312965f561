// What the tests of recordings share: films to record, a clock of their own, a journal of what is
// written, and a player.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/avi.h"
#include "platform/linux/avi_file.h"

// Pictures that repeat themselves for ever.
struct Film {
  std::string header;  // of the MPEG-4 stream, 20 bytes; empty: JPEG
  std::vector<std::string> pictures;
  std::vector<bool> keys;

  // What the file has of picture `number`: the stream header stands ahead of the first.
  std::string stored(std::size_t number) const {
    return (number == 0 ? header : "") + pictures[number % pictures.size()];
  }
  bool isKey(std::size_t number) const { return keys[number % keys.size()]; }
  char type(std::size_t number) const { return header.empty() ? 'J' : isKey(number) ? 'I' : 'P'; }
};

// A bouncing ball, ten pictures a second; a key picture every second.
const Film& mpeg4Film();
const Film& jpegFilm();
// One key picture, filled up with zeros to `bytes`.
Film largePictures(std::size_t bytes);

// The monotonic clock of the process stands still while the object lives, except when told to go
// on. One at a time.
class StandingClock {
 public:
  StandingClock();
  ~StandingClock();
  void advance(std::int64_t us);
};

// A write to the recording.
struct Write {
  enum Kind { kData, kLength } kind;
  std::uint64_t at;  // or the new length
  std::string data;
  std::size_t pictures;  // so many had been taken before
};

// Notes all that the process writes into regular files while the object lives. One at a time.
class WriteJournal {
 public:
  WriteJournal();
  ~WriteJournal();
  // Tells that one more picture has been taken.
  void pictureTaken();
  const std::vector<Write>& writes() const;
};

// While it lives, blocks of zeros become holes, so that a huge file costs neither time nor room.
class HolesForZeros {
 public:
  HolesForZeros();
  ~HolesForZeros();
};

// A recording that is being made.
class Recording {
 public:
  // `us`: time from picture to picture. `pieces`: into which each is cut.
  Recording(const Film& film, const std::string& file, std::int64_t us, int pieces = 1,
            const AviLimits& limits = AviLimits());
  ~Recording();
  Recording(const Recording&) = delete;
  Recording& operator=(const Recording&) = delete;

  bool isOpen() const { return open_; }
  // Adds a picture, and lets the clock go on. Returns whether it was taken.
  bool add(StandingClock* clock);
  bool add(StandingClock* clock, int count);
  // `rate`: pictures per second x 1000; 0: that of the clock.
  bool close(std::int32_t rate = 0);
  std::size_t count() const { return count_; }
  AVI_HANDLE& handle() { return handle_; }

 private:
  const Film& film_;
  std::int64_t us_;
  int pieces_;
  AVI_HANDLE handle_;
  bool open_ = false;
  std::size_t count_ = 0;
};

// What a player makes of a file.
struct Played {
  std::size_t pictures = 0;  // as they were recorded, in this order
  std::size_t decoded = 0;
  std::string wrong;       // what was not as recorded
  std::string complaints;  // of the player
  std::string tag;
  int width = 0, height = 0;
  double rate = 0, seconds = 0;  // as the file tells
};
enum class Play { kPackets, kDecode };
Played play(const std::string& file, const Film& film, Play how = Play::kPackets);
