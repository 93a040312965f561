// Judges a stream frame by frame.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/board/stream_check/decoder.h"
#include "tests/board/stream_check/frame_parser.h"

// Takes the frames of one stream in their order. Bound to one thread.
class StreamCheck {
 public:
  // `whole`: each frame is a whole picture with its header (stream "video2"), not chunks of a
  // stream.
  // `strays`: so many key pictures may not decode because the TV standard changed in their frame.
  StreamCheck(bool whole, long strays) : whole_(whole), straysAllowed_(strays) {}

  void take(const RawFrame& frame);
  // Judges what is still gathered.
  void finish();

  // Pictures that were decoded, or should have been.
  long pictures() const { return keys_ + predicted_ + jpegs_; }
  bool good() const { return errorCount_ == 0 && strays_ <= straysAllowed_ && pictures() > 0; }
  long errors() const { return errorCount_; }
  // The newest picture as PNG. Returns false when there is none.
  bool storeLast(const std::string& file) const;
  // Everything that was seen, as a JSON object.
  std::string json() const;

 private:
  struct Level {
    long least = 0, most = 0, count = 0;
  };

  void fail(const RawFrame& frame, const std::string& what);
  void takeWhole(const RawFrame& frame);
  void takeChunk(const RawFrame& frame, const Chunk& chunk);
  void forget();
  // Judges the gathered picture. `mayBeCut`: the stream changed behind it, which may have taken its
  // end away.
  void complete(bool mayBeCut);
  bool decode(const StreamHeader& header, bool mayBeCut);
  void noteTime(const PictureStart& start);
  // Returns true iff the picture decoded.
  bool judge(const AVFrame* picture, const std::string& error, const StreamHeader& header);
  void noteTexts(const RawFrame& frame);

  bool whole_;
  long straysAllowed_;
  std::uint32_t lastNumber_ = 0;

  // The picture that is being gathered, 0: none, for it began before we came, or a gap was in it.
  char type_ = 0;
  std::string gathered_;
  std::string header_;        // bytes of the frame in which it began
  bool headerIsNew_ = false;  // the frame before that had another
  RawFrame began_;

  std::unique_ptr<Decoder> decoder_;  // of the chain that began with the last key frame
  StreamHeader chain_;
  bool excused_ = true;  // predicted pictures without a key frame are to be expected
  std::unique_ptr<AVFrame, void (*)(AVFrame*)> last_{nullptr,
                                                     [](AVFrame* f) { av_frame_free(&f); }};

  long frames_ = 0, chunks_ = 0, gaps_ = 0, keys_ = 0, predicted_ = 0, jpegs_ = 0;
  long unchanged_ = 0, cut_ = 0, strays_ = 0, errorCount_ = 0;
  long headerChanges_ = 0, largest_ = 0, sizeMismatches_ = 0;
  std::string lastHeader_, formerHeader_;  // texts of the last two frames
  std::map<std::string, long> sizes_;
  std::vector<std::string> order_;  // sizes as they came, without repetition
  std::vector<std::string> errors_;
  Level levels_[2];
  long time_ = -1, shortest_ = -1, longest_ = -1;  // ms of the stream's own clock
  long base_ = 0;
};
