#include "tests/board/stream_check/check.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

namespace {

constexpr std::size_t kErrorsKept = 10;
constexpr std::size_t kHeaderBytes = 20;
constexpr char kKey = 'I';
constexpr char kPredicted = 'P';
constexpr char kJpeg = 'J';

std::string sizeText(int width, int height) {
  return std::to_string(width) + "x" + std::to_string(height);
}

std::string quoted(const std::string& text) {
  std::string out = "\"";
  for (const char c : text)
    if (c == '"' || c == '\\')
      (out += '\\') += c;
    else
      out += static_cast<unsigned char>(c) < 32 ? ' ' : c;
  return out + "\"";
}

}  // namespace

void StreamCheck::fail(const RawFrame& frame, const std::string& what) {
  ++errorCount_;
  if (errors_.size() < kErrorsKept)
    errors_.push_back("frame " + std::to_string(frame.number()) + ", " + frame.text(0) + ": " +
                      what);
}

void StreamCheck::take(const RawFrame& frame) {
  if (frames_++ > 0 && frame.number() != lastNumber_ + 1 &&
      !(whole_ && frame.number() > lastNumber_)) {
    ++gaps_;
    forget();
  }
  lastNumber_ = frame.number();
  if (whole_) return takeWhole(frame);
  noteTexts(frame);
  std::string error;
  const std::vector<Chunk> chunks = parseChunks(frame, &error);
  if (!error.empty()) {
    fail(frame, error);
    return forget();
  }
  for (const Chunk& chunk : chunks) takeChunk(frame, chunk);
}

void StreamCheck::noteTexts(const RawFrame& frame) {
  formerHeader_ = lastHeader_;
  if (frame.text(0) != lastHeader_) {
    if (frames_ > 1) ++headerChanges_;
    lastHeader_ = frame.text(0);
  }
  for (int window = 0; window < 2; ++window) {
    const std::string text = frame.text(1 + window);
    if (text.empty()) continue;
    const long level = std::strtol(text.c_str(), nullptr, 10);
    Level& seen = levels_[window];
    seen.least = seen.count == 0 ? level : std::min(seen.least, level);
    seen.most = seen.count == 0 ? level : std::max(seen.most, level);
    ++seen.count;
  }
}

void StreamCheck::takeChunk(const RawFrame& frame, const Chunk& chunk) {
  ++chunks_;
  largest_ = std::max(largest_, static_cast<long>(chunk.size));
  if (chunk.type == 'i' || chunk.type == 'p') {
    if (type_ == 0) return;
    if (chunk.type != (type_ == 'I' ? 'i' : 'p'))
      fail(frame, "a chunk that continues another kind of picture");
    gathered_.append(reinterpret_cast<const char*>(chunk.data), chunk.size);
    return;
  }
  const bool predicted = chunk.type == kPredicted;
  complete(!predicted);
  if (predicted && decoder_ == nullptr) {
    if (!excused_) fail(frame, "a predicted picture without a key frame");
    excused_ = true;
    return;
  }
  type_ = chunk.type;
  header_ = fromHex(frame.text(0));
  headerIsNew_ = formerHeader_ != lastHeader_;
  began_ = frame;
  gathered_.assign(reinterpret_cast<const char*>(chunk.data), chunk.size);
  if (type_ == kJpeg) complete(false);
}

void StreamCheck::forget() {
  type_ = 0;
  gathered_.clear();
  decoder_.reset();
  excused_ = true;
  time_ = -1;
}

void StreamCheck::complete(bool mayBeCut) {
  if (type_ == 0) return;
  StreamHeader header;
  if (!parseHeader(header_, &header))
    fail(began_, "no stream header");
  else if (type_ != kJpeg) {
    if (!decode(header, mayBeCut)) {
      decoder_.reset();  // until the next key frame, so that one fault counts once
      excused_ = true;
    }
  } else {
    ++jpegs_;
    decoder_.reset();
    excused_ = false;  // what follows is to begin with a key frame
    time_ = -1;
    std::string error;
    Decoder jpeg("");
    judge(jpeg.decode(gathered_, &error), error, header);
  }
  type_ = 0;
}

bool StreamCheck::decode(const StreamHeader& header, bool mayBeCut) {
  ++(type_ == kKey ? keys_ : predicted_);
  if (type_ == kKey) {
    decoder_ = std::make_unique<Decoder>(header_);
    chain_ = header;
    excused_ = false;
  }
  PictureStart start{};
  if (!parsePictureStart(reinterpret_cast<const unsigned char*>(gathered_.data()), gathered_.size(),
                         chain_.ticks, &start)) {
    fail(began_, "a header without a clock, or a picture without a time");
    return false;
  }
  noteTime(start);
  std::string error;
  const AVFrame* picture = decoder_->decode(gathered_, &error);
  if (picture == nullptr && mayBeCut) {
    ++cut_;
    return false;
  }
  // The camera takes the header at the end of a frame. Settings change between two frames; but when
  // the TV standard changes in the middle of one, pictures from before carry the header from
  // behind.
  if (picture == nullptr && type_ == kKey && headerIsNew_ && straysAllowed_ > 0) {
    ++strays_;
    return false;
  }
  if (picture == nullptr && error.empty() && !start.coded) {
    ++unchanged_;
    return true;
  }
  return judge(picture, error, chain_);
}

// The stream's own clock must go on from picture to picture. It begins anew with a new encoder.
void StreamCheck::noteTime(const PictureStart& start) {
  base_ += 1000L * start.seconds;
  const long now = base_ + 1000L * start.ticks / chain_.ticks;
  if (time_ >= 0 && !start.key) {
    const long step = now - time_;
    if (step < 1) fail(began_, "the picture's time goes back by " + std::to_string(-step) + " ms");
    shortest_ = shortest_ < 0 ? step : std::min(shortest_, step);
    longest_ = std::max(longest_, step);
  }
  time_ = now;
}

bool StreamCheck::judge(const AVFrame* picture, const std::string& error,
                        const StreamHeader& header) {
  if (picture == nullptr) {
    fail(began_,
         std::to_string(gathered_.size()) + " bytes: " + (error.empty() ? "no picture" : error));
    return false;
  }
  const std::string size = sizeText(picture->width, picture->height);
  ++sizes_[size];
  if (order_.empty() || order_.back() != size) order_.push_back(size);
  if (picture->width != header.width || picture->height != header.height) {
    ++sizeMismatches_;
    // A JPEG picture tells its size itself; the header may stand for a size that the sensor has
    // not.
    if (header.ticks > 0)
      fail(began_, size + " under the header of " + sizeText(header.width, header.height));
  }
  last_.reset(av_frame_clone(picture));
  return true;
}

void StreamCheck::takeWhole(const RawFrame& frame) {
  const auto length = static_cast<std::size_t>(std::max(frame.length(), 0));
  const std::string data(reinterpret_cast<const char*>(frame.payload()), length);
  began_ = frame;
  gathered_ = data;
  std::string error;
  if (data.compare(0, 2, "\xff\xd8") == 0) {
    ++jpegs_;
    Decoder jpeg("");
    judge(jpeg.decode(data, &error), error, {});
    return;
  }
  ++keys_;
  StreamHeader header;
  if (!parseHeader(data.substr(0, kHeaderBytes), &header) || header.ticks < 1)
    return fail(frame, "no stream header");
  header_ = data.substr(0, kHeaderBytes);
  gathered_ = data.substr(kHeaderBytes);
  PictureStart start{};
  const auto* begin = reinterpret_cast<const unsigned char*>(gathered_.data());
  if (!parsePictureStart(begin, gathered_.size(), header.ticks, &start) || !start.key)
    return fail(frame, "no key frame behind the header");
  Decoder alone(header_);
  judge(alone.decode(gathered_, &error), error, header);
}

// The last picture may go on in a frame that nobody waits for.
void StreamCheck::finish() { type_ = 0; }

bool StreamCheck::storeLast(const std::string& file) const {
  return last_ != nullptr && Decoder::store(*last_, file);
}

std::string StreamCheck::json() const {
  std::ostringstream out;
  out << "{\"frames\":" << frames_ << ",\"chunks\":" << chunks_ << ",\"largestChunk\":" << largest_
      << ",\"gaps\":" << gaps_ << ",\"key\":" << keys_ << ",\"predicted\":" << predicted_
      << ",\"jpeg\":" << jpegs_ << ",\"unchanged\":" << unchanged_ << ",\"cut\":" << cut_
      << ",\"strays\":" << strays_ << ",\"errors\":" << errorCount_ << ",\"complaints\":[";
  for (std::size_t i = 0; i < errors_.size(); ++i) out << (i > 0 ? "," : "") << quoted(errors_[i]);
  out << "],\"sizes\":{";
  const char* comma = "";
  for (const auto& [size, count] : sizes_) {
    out << comma << quoted(size) << ":" << count;
    comma = ",";
  }
  out << "},\"order\":[";
  for (std::size_t i = 0; i < order_.size(); ++i) out << (i > 0 ? "," : "") << quoted(order_[i]);
  out << "],\"otherSizeThanHeader\":" << sizeMismatches_ << ",\"headerChanges\":" << headerChanges_
      << ",\"header\":" << quoted(lastHeader_) << ",\"shortestMs\":" << shortest_
      << ",\"longestMs\":" << longest_ << ",\"levels\":[";
  for (int window = 0; window < 2; ++window) {
    const Level& level = levels_[window];
    out << (window > 0 ? "," : "") << "{\"frames\":" << level.count << ",\"least\":" << level.least
        << ",\"most\":" << level.most << "}";
  }
  out << "]}";
  return out.str();
}
