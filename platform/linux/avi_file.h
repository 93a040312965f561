// The writer of AVI recordings; see docs/recordings.md for the layout and for what holds when.
#pragma once

#include <cstdint>

#include "platform/linux/avi_head.h"
#include "platform/linux/fd.h"

// Where a file goes on in another way. Tests have smaller ones.
struct AviLimits {
  // Bytes of a RIFF, reached only by pictures that come in pieces. Below 2 GiB, since some players
  // take sizes for signed words.
  std::uint32_t firstRiff = std::uint32_t{1} << 30;
  std::uint32_t laterRiff = std::uint32_t{3} << 29;
  std::uint32_t firstBlock = 128;  // pictures in the first block of the index
  // Less than a second, so that an update is never later than that at ten pictures a second.
  std::int64_t updateUs = 900000;
};

// Writes one file after the other. Pictures that are short are gathered, long ones go to the file
// from where they are; nothing is allocated. All: true on success; otherwise false with `errno`,
// and the file is as before the picture. Bound to one thread at a time.
class AviFile {
 public:
  explicit AviFile(const AviLimits& limits = AviLimits()) : limits_(limits) {}

  // Begins a file. `file`: open for reading and writing, empty. `rate`: pictures per second x 1000
  // to tell until it has been measured.
  void open(Fd file, std::int32_t rate);
  bool isOpen() const { return file_.valid(); }

  // Writes a chunk; see aviWrite(). `header`: of the stream, kMpg430HeaderBytes.
  bool write(char type, const char* header, const char* data, long length);

  // Completes the file and closes it; without a picture it becomes empty. `rate`: pictures per
  // second x 1000, below 1 counts as 1. Without room for the old index the file goes without. On
  // failure it still is sound and holds those pictures that had room.
  bool close(std::int32_t rate);

  // Bytes of the file with what is gathered.
  std::int64_t size() const { return end_ + used_; }
  std::uint32_t pictures() const { return frames_; }
  // The open file; negative when there is none.
  int descriptor() const { return file_.get(); }

 private:
  bool begin(char type, const char* header, const char* data, std::uint32_t length);
  bool goOn(const char* data, std::uint32_t length);
  bool finish();
  void drop();

  void start(char type, const char* header, const char* data, std::uint32_t length);
  bool makeRoom(std::uint32_t length);
  bool nextRiff();
  bool nextBlock();
  std::uint32_t blockBytes() const;
  bool reserve(std::uint32_t bytes);

  bool flush();
  bool append(const char* data, std::uint32_t length);
  bool appendDirectly(const char* data, std::uint32_t length);
  void keepWhole(std::int64_t written);
  void forgetUnwritten();
  void restart();

  bool publish();
  bool writeHead();
  bool writeOldIndex();
  void takeBackOldIndex(std::int64_t end);
  std::int64_t endOf(int pending) const;
  void measure(std::int64_t nowUs);

  static constexpr std::uint32_t kBuffer = 65536;
  // Copying what is shorter costs less than the calls for it alone and for its size.
  static constexpr std::uint32_t kDirect = 8192;
  static constexpr int kPending = 1024;
  // Far above any picture: a RIFF with one more of them still has a size below 2 GiB.
  static constexpr std::uint32_t kLongestPicture = std::uint32_t{1} << 28;

  AviLimits limits_;
  Fd file_;
  bool started_ = false;  // there is a head, at least in the buffer
  AviHead head_;          // as in the file after the next update

  std::int64_t end_ = 0;    // of what is in the file; the buffer goes on there
  std::uint32_t used_ = 0;  // bytes in the buffer
  bool padded_ = false;     // there is a zero behind end_ already

  // The picture that is being written.
  bool inPicture_ = false;
  char goesOn_ = '\0';  // the type that may go on with it
  bool key_ = false;
  bool sizeTold_ = false;
  bool padIncluded_ = false;
  std::int64_t picture_ = 0;        // its chunk's place
  std::uint32_t pictureBytes_ = 0;  // so far

  std::uint32_t frames_ = 0;  // whole pictures
  std::int64_t payload_ = 0;  // their bytes
  std::int64_t riff_ = 0;     // place of the present RIFF
  std::uint32_t riffFrames_ = 0;

  // The present block of the index.
  bool indexed_ = false;  // there is one
  std::int64_t base_ = 0;
  std::uint32_t blockRoom_ = 0;
  std::uint32_t blockUsed_ = 0;  // entries in the file
  int pending_ = 0;              // entries for pictures since

  std::int64_t firstUs_ = 0;   // when the first picture came
  std::int64_t updateUs_ = 0;  // when the file was last brought up to date

  char entries_[kPending * kAviBlockEntry];  // as they will be in the file
  char buffer_[kBuffer];
};
