// An MPEG-4 stream out of the frames of "video", whole pictures only and each with a header that is
// its own.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/camctl/frame_chunks.h"

// A picture of the stream.
struct Mpeg4Picture {
  bool key;
  std::string header;  // 20 bytes that go ahead of this picture; empty: the last one holds
  std::string data;    // from its start code on
};

// Follows the stream from its first key picture on. What can't be decoded is left out: pictures of
// which a part was missed, or is not there as the stream changed in the middle, and what follows
// them up to the next key picture. Bound to one thread.
//
// A frame's text is the stream's header at the end of the frame. When it differs from the text of
// the frame before, nobody can tell for which of the two a key picture in this frame was made: the
// change may have come ahead of the frame, within it, or after all of its chunks. So such a picture
// is held back until the stream goes on. If the next picture of a later frame is a predicted one,
// the picture held began what goes on under the new header. If it is a key picture, that one begins
// it, and what was held goes.
class Mpeg4Stream {
 public:
  // Takes the next frame. `number`: of the frame; a hole means that frames were missed. `text`: the
  // frame's first text. `chunks`: empty when the frame holds something else.
  // Appends the pictures that are complete now to `*pictures`; a picture is complete when the next
  // one begins.
  void take(std::uint32_t number, const std::string& text, const std::vector<Chunk>& chunks,
            std::vector<Mpeg4Picture>* pictures);

 private:
  // The frame that is being taken.
  struct Frame {
    std::uint32_t number;
    std::string text;
    bool settled;  // the text is that of the frame before
  };

  void takeChunk(const Frame& frame, const Chunk& chunk, std::vector<Mpeg4Picture>* pictures);
  void beginKey(const Frame& frame, std::vector<Mpeg4Picture>* pictures);
  void beginPredicted(const Frame& frame, std::vector<Mpeg4Picture>* pictures);
  void release(std::vector<Mpeg4Picture>* pictures);
  void finish(std::vector<Mpeg4Picture>* pictures);
  void begin(bool key);
  // Drops what is not complete, and goes on at the next key picture.
  void lose();

  enum class State {
    kLost,     // waits for a key picture
    kHolding,  // a key picture is held back, with what follows it
    kRunning,
  };
  State state_ = State::kLost;
  bool known_ = false;      // whether there is a frame before
  std::uint32_t last_ = 0;  // its number
  std::string textBefore_;
  std::string text_;             // of the header under which the present picture was made
  std::uint32_t heldFrame_ = 0;  // number of the frame in which the picture held back began
  std::vector<Mpeg4Picture> held_;
  Mpeg4Picture picture_{};    // the present one
  bool cut_ = false;          // another header was told since it began
  std::size_t gathered_ = 0;  // bytes of it and of those held
  std::string written_;       // text of the header that was given out last
};
