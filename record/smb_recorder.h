// Records the main stream into files on the Samba share.
#pragma once

#include <cstdint>

#include "platform/avi.h"
#include "record/passive_drop.h"
#include "record/recorder.h"
#include "record/steady_time.h"

struct TChunk;

// Takes every frame of the stream "video" and writes it into files below /smb/camera, named by day
// and time of day. A file begins with a key frame and ends at the first key frame beyond the size
// or length that [Samba] in /etc/sys.conf allows, and wherever the stream header or the settings
// change. After a gap in the stream, what can't be decoded is left out. When the share is full the
// oldest recordings make room.
//
// Threads: as TRecorder. getState(), mount() and umount() on any thread; the last two wait for
// their script.
class TSmbRecorder : public TRecorder {
 public:
  // Reads the settings. `prefix`: of the file names, usually empty; files that have one make room
  // only together with their day.
  // Logs 2 "%s: [Samba] %s is out of range: %d" for a size or length that is none, and takes the
  // default; logs 3 "aviCreate() fail" when there is no memory for AVI files: none can be opened
  // then.
  explicit TSmbRecorder(const char* prefix);
  // Closes a file that is still open. Logs 3 "aviRelease() fail".
  ~TSmbRecorder() override;

  // Returns 1 when the share is mounted, 0 or -1 when not.
  // On failure returns -1 and logs 2 "get_smb_mount_state() fail".
  static int getState();

  // Mounts the share unless it is mounted. Returns true iff it is mounted now.
  // Logs 3 "TSmbRecorder::mount() IPE" for a state that does not exist.
  static bool mount();

  // Unmounts the share if it is mounted. Returns true iff it is not mounted now.
  // Logs 3 "TSmbRecorder::umount() IPE" for a state that does not exist.
  static bool umount();

 protected:
  bool onInitial() override;
  // Closes the file. Returns false when that fails (event 525); it is closed nevertheless.
  bool onRelease() override;
  // Closes the file when the header or the settings have changed, with the rest of its last picture
  // when the frame begins with that. Returns false when closing fails.
  bool onPreview(const SB_FRAME& frame) override;
  // Writes the chunks of a frame. A frame whose trailers are missing or wrong is passed over:
  // logs 2 "frame without valid chunk trailers", once until a good one comes.
  // Returns false, which ends the recording, when a file can't be opened (event 523) or written
  // (event 524). On a full share where no room can be made (event 526, and
  // logs 2 "no room on the share: error %d") it rests until the recorder is stopped.
  bool onCapture(const char* data, long length) override;
  // Frames are stored as they come.
  long onTranscode(char* data, long length) override;
  // All files of one second get the same name; opening makes them differ.
  bool onSetname(const TDateTime& time, const char* extension) override;
  const char* getExtention(const char* data) override;
  SB_HANDLE* getHandle() override;

 private:
  void finishPicture(const SB_FRAME& frame);
  long largestPayload() const;  // bytes, trailers included
  bool store(const TChunk& chunk);
  bool onDevide(char type);
  bool onDiskfull(bool writing);
  bool reopen(char type);
  bool prepareAndOpen();
  bool open();
  bool write(const char* data, long length);
  bool close();
  std::int32_t measuredRate() const;
  bool rmOldest();
  bool rmOldestFiles(const char* folder);
  bool getOldest(const char* folder, char* name, bool mayBeNone);
  bool fits(char type) const;

  static constexpr int kHeaderText = 40;  // hexadecimal digits

  // Settings.
  bool raw_;       // bare streams instead of AVI files
  bool byLength_;  // files end by length instead of size
  bool recycle_;   // the oldest recordings make room
  std::int64_t maxSeconds_;
  std::int64_t maxBytes_;

  AVI_HANDLE file_;
  char name_[kAviNameBytes] = "";  // of the file: that which it really got
  bool jpeg_ = false;              // what the file holds; otherwise MPEG-4
  std::int64_t opened_ = 0;        // seconds of time_
  std::int32_t frames_ = 0;        // in the file

  char header_[kHeaderText + 1] = "";  // the last one seen, as text
  int setting_ = 0;                    // the last one seen
  TSteadyTime time_;                   // of the frame
  std::int64_t nameSecond_ = -1;       // of the last name
  TPassiveDrop drop_;
  bool unsound_ = false;  // the last frame was, and it was reported
  int error_ = 0;         // `errno` of what failed last, taken where it failed
};
