#include "tools/camctl/mpeg4_stream.h"

#include <utility>

#include "capture/chunk_trailer.h"
#include "platform/media.h"
#include "platform/mpg430.h"

namespace {

constexpr std::size_t kHeaderBytes = kMpg430HeaderBytes;
// Nobody makes a picture of so many bytes: a stream without an end of one is no stream.
constexpr std::size_t kMostGathered = 16 << 20;

// Returns the bytes of a header; none if the text is no MPEG-4 header (the JPEG mode has one of the
// same length).
std::string headerBytes(const std::string& text) {
  char bytes[kHeaderBytes];
  if (text.size() != 2 * kHeaderBytes) return "";
  if (hex2bin(text.c_str(), bytes, sizeof bytes) != static_cast<long>(sizeof bytes)) return "";
  const bool startCode = bytes[0] == 0 && bytes[1] == 0 && bytes[2] == 1;
  return startCode ? std::string(bytes, sizeof bytes) : "";
}

}  // namespace

void Mpeg4Stream::take(std::uint32_t number, const std::string& text,
                       const std::vector<Chunk>& chunks, std::vector<Mpeg4Picture>* pictures) {
  const bool follows = known_ && number == last_ + 1;
  const Frame frame{number, text, follows && text == textBefore_};
  if (!follows || chunks.empty()) lose();
  for (const Chunk& chunk : chunks) takeChunk(frame, chunk, pictures);
  if (text != text_) cut_ = true;
  known_ = true;
  last_ = number;
  textBefore_ = text;
}

void Mpeg4Stream::takeChunk(const Frame& frame, const Chunk& chunk,
                            std::vector<Mpeg4Picture>* pictures) {
  if (chunk.type == kTypeKey) beginKey(frame, pictures);
  if (chunk.type == kTypePredicted) beginPredicted(frame, pictures);
  if (state_ == State::kLost) return;
  const bool keyMore = chunk.type == kTypeKeyMore;
  const bool predictedMore = chunk.type == kTypePredictedMore;
  gathered_ += chunk.length;
  if ((keyMore && !picture_.key) || (predictedMore && picture_.key) || gathered_ > kMostGathered) {
    lose();
  } else {
    picture_.data.append(chunk.data, chunk.length);
  }
}

void Mpeg4Stream::beginKey(const Frame& frame, std::vector<Mpeg4Picture>* pictures) {
  // The rest of a picture may not be there when the header changed while it was delivered. What was
  // held back is not what goes on.
  if (state_ == State::kRunning && frame.text == text_ && !cut_) {
    finish(pictures);
  } else {
    lose();
  }
  if (headerBytes(frame.text).empty()) return lose();
  state_ = frame.settled ? State::kRunning : State::kHolding;
  heldFrame_ = frame.number;
  text_ = frame.text;
  begin(true);
}

void Mpeg4Stream::beginPredicted(const Frame& frame, std::vector<Mpeg4Picture>* pictures) {
  if (state_ == State::kLost) return;
  if (state_ == State::kHolding && frame.number != heldFrame_) {
    if (frame.text != text_) return lose();
    release(pictures);
  }
  if (state_ == State::kHolding) {
    held_.push_back(std::move(picture_));
  } else {
    finish(pictures);
  }
  begin(false);
}

void Mpeg4Stream::release(std::vector<Mpeg4Picture>* pictures) {
  state_ = State::kRunning;
  std::vector<Mpeg4Picture> held;
  held.swap(held_);
  held.push_back(std::move(picture_));
  for (Mpeg4Picture& picture : held) {
    picture_ = std::move(picture);
    finish(pictures);
  }
}

// Gives out the present picture.
void Mpeg4Stream::finish(std::vector<Mpeg4Picture>* pictures) {
  if (picture_.data.empty()) return;
  if (picture_.key && written_ != text_) {
    picture_.header = headerBytes(text_);
    written_ = text_;
  }
  pictures->push_back(std::move(picture_));
  picture_ = Mpeg4Picture{};
  gathered_ = 0;
}

void Mpeg4Stream::begin(bool key) {
  picture_ = Mpeg4Picture{key, "", ""};
  cut_ = false;
}

void Mpeg4Stream::lose() {
  state_ = State::kLost;
  held_.clear();
  picture_ = Mpeg4Picture{};
  gathered_ = 0;
}
