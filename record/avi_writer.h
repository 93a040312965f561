// Gathers MPEG-4 key frames for recorders.
#pragma once

#include <cstdint>
#include <memory>

#include "record/writer.h"

// Puts the chunks of each MPEG-4 key frame together behind the stream header and publishes the
// whole when the next picture starts. Predicted frames never reach "video2".
// Thread: the capture thread, but for the client list.
class TAviWriter : public TWriter {
 public:
  static constexpr long kHeaderBytes = 20;

  TAviWriter();
  ~TAviWriter() override;

  // Takes one chunk. `type`: 'I' starts a key frame, 'i' continues it, 'P' starts and 'p' continues
  // a predicted frame. A key frame of which a chunk came while no client was registered is not
  // published. Returns the gathered length, 0 while no client is registered.
  // Logs 1 "TAviWriter::write() IPE" when a continuation finds nothing to continue.
  long write(const char* data, long length, const TDateTime& time, char type) override;

  // Appends `length` bytes to the gathered frame.
  // What does not fit is counted but not copied, so that the frame is refused when it is complete,
  // and logs 3 "TAviWriter::add() video2 buffer overflow p:%ld, c:%ld".
  void add(const char* data, long length);

  // Takes the kHeaderBytes bytes of MPEG-4 stream header that every frame begins with; zeros at
  // first. `ofGathered`: a key frame that is being gathered has this header. Otherwise, when the
  // header differs from the one before, nobody can tell whose the key frame is, and it is dropped.
  void setHeader(const char* bytes, bool ofGathered);

  // The stream is not continuous here: a key frame that is being gathered may lack a part, and is
  // dropped. The next 'I' begins a new one.
  void cut() { whole_ = false; }

 private:
  void reserve(long usable);
  void flush();

  char header_[kHeaderBytes] = {};
  std::unique_ptr<char[]> frame_;  // header block and gathered data; null until "video2" is there
  long capacity_ = 0;              // of the gathered data in `frame_`
  std::int32_t gathered_ = 0;      // bytes behind the header block, copied or not; saturates
  bool whole_ = false;             // from the frame's first byte on, and all of them were copied
  TDateTime time_;                 // of the chunk that the gathered frame began with
};

// Returns the one AVI writer of the process. Any thread.
TAviWriter* aviWriter();
