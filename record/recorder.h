// The capture loop that all recorders share.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include "platform/date_time.h"
#include "platform/thread.h"
#include "record/recording_time.h"

class TCamera;
struct SB_FRAME;
struct SB_HANDLE;

// A thread that, once started, takes the pictures that are newer than the start from a stream
// buffer, one per second, names each after its time stamp, and hands it to its kind's onCapture(),
// until the recording time has run out or a step fails. A recorder may be started again at any
// instant, also while it records or is about to end: no start is lost.
//
// Threads: start() on any thread, also on several at once; the on...() and get...() operations on
// the recorder's own thread, but for getHandle(), which runs on the starting thread.
// The owner ends the body (TStopDeadline) before it deletes the recorder.
class TRecorder : public PThread {
 public:
  static constexpr int kNameBytes = 256;  // of a file name, terminator included

  // `camera`: not owned, must outlive the recorder; null only for kinds with their own getHandle().
  // `mountPoint`, `folder`, `prefix`: the parts of the names, see the setters.
  // Logs 1 "Video2 buflen is %ld, avibuf is not allocated" when there is no buffer "video2" to
  // convert pictures from; then they are stored unconverted.
  TRecorder(TCamera* camera, const char* mountPoint, const char* folder, const char* prefix);
  ~TRecorder() override;

  // Set the parts of the names, before the first start; null or "" makes a part empty. Mount point
  // and folder get the slash at their end that they need.
  void setMPoint(const char* text);
  void setFolder(const char* text);
  void setPrefix(const char* text);

  // Records from now on for `seconds`, saturated to 32 bit; 0 or less records one picture. While a
  // recording runs on the same buffer it goes on until the new end; one on another buffer ends.
  void start(long seconds);

  // As PThread::stop(). No start from before it is taken up any more.
  bool stop(bool wait) override;

  // The name that the current picture is to be stored under, "untitled" before the first.
  // Recorder's thread.
  const char* fileName() const { return fileName_; }

 protected:
  void execute() override;
  // Begins a recording: registers with both frame writers. False ends it, without onRelease().
  virtual bool onInitial();
  // Ends a recording: deregisters.
  virtual bool onRelease();
  // Stores or sends one picture. False ends the recording.
  virtual bool onCapture(const char* data, long length) = 0;
  // May refuse a frame: false ends the recording. The base returns true.
  virtual bool onPreview(const SB_FRAME& frame);
  // Converts an MPEG-4 key frame to an AVI file in the conversion buffer. Returns its length, or 0
  // or less when the frame is to be stored as it is: a JPEG picture, or when the conversion failed,
  // which logs 3 "TRecorder::onTranscode() i2avi() fail".
  virtual long onTranscode(char* data, long length);
  // Builds the file name from the parts and `time` (local). False ends the recording: the name does
  // not fit, which logs 2 "recording name longer than %d bytes: %s".
  virtual bool onSetname(const TDateTime& time, const char* extension);
  // Returns the extension for a frame: "jpg" or "avi".
  virtual const char* getExtention(const char* data);
  // Chooses the buffer by the camera's mode: "video" in modes 1 and 3, otherwise "video2".
  // Logs 3 "TRecorder::getHandle() IPE" when there is no camera.
  virtual SB_HANDLE* getHandle();

  // For kinds that take every frame (0) instead of one per second. Before the first start.
  void setPause(unsigned seconds) { pause_ = seconds; }

  // Writes a name into fileName(). Returns false when it does not fit, which
  // logs 2 "recording name longer than %d bytes: %s".
  bool setName(const char* format, ...) __attribute__((format(printf, 2, 3)));

  // The rest is for the body.
  const char* folder() const { return folder_; }
  const TDateTime& startTime() const { return startTime_; }  // of the start that is worked on
  const TDateTime& frameTime() const { return frameTime_; }  // of the frame that is being handled
  SB_HANDLE* handle() const { return handle_; }              // that it was taken from

  // Makes the last start the one that the body works on. Returns true iff it is a new one.
  bool takeRequest();
  // Ends the body by itself, so that no start is lost meanwhile.
  void endUnlessStartedAgain();

 private:
  // What the last start() asked for.
  struct TRequest {
    TInstant start;
    std::int32_t seconds = 0;
    SB_HANDLE* handle = nullptr;  // not owned, lives as long as the process
    std::uint32_t count = 0;      // of all starts so far: a new one shows by it
  };

  bool pass();
  bool isNew(const SB_FRAME& frame);
  bool store(SB_FRAME& frame);
  bool over();

  static constexpr int kPathBytes = 128;
  static constexpr int kPrefixBytes = 65;

  // Taken by starters and, for a copy, by the body; so the two words of the start time, the handle
  // and the duration always belong together. Nothing that can block is done under it.
  std::mutex mutex_;
  TRequest request_;      // guarded by mutex_
  bool stopped_ = false;  // since the last start; guarded by mutex_

  // The rest belongs to the body while it runs.
  std::int32_t number_ = 0;  // the place in the stream ...
  std::int32_t epoch_ = 0;   // ... and the segment it belongs to; 0 after a change of buffer
  SB_HANDLE* handle_ = nullptr;
  std::int32_t duration_ = 0;  // seconds
  std::uint32_t taken_ = 0;    // count of the request that the body works on
  TRecordingTime time_;
  TDateTime startTime_;
  TDateTime frameTime_;
  long frameLength_ = 0;  // of the frame's picture
  unsigned pause_;        // seconds after each frame
  TCamera* camera_;       // not owned
  long bufferLength_;
  std::unique_ptr<char[]> buffer_;  // converted pictures; null when there is no "video2"
  char mountPoint_[kPathBytes] = "";
  char folder_[kPathBytes] = "";
  char prefix_[kPrefixBytes] = "";
  char fileName_[kNameBytes] = "untitled";
};
