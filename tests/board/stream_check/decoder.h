// Pictures of a stream, decoded by libavcodec, which tolerates nothing here.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
}
#include <memory>
#include <string>

// One stream from its header on. Bound to one thread.
class Decoder {
 public:
  // `header`: the bytes before an MPEG-4 stream's pictures; empty for JPEG pictures.
  explicit Decoder(const std::string& header);
  Decoder(const Decoder&) = delete;
  Decoder& operator=(const Decoder&) = delete;
  ~Decoder();

  // Decodes one picture. Returns it, owned by the decoder until the next call; null on failure,
  // with
  // `*error` set, and for a picture that says that nothing has changed, with `*error` empty.
  const AVFrame* decode(const std::string& data, std::string* error);

  // Stores a picture as PNG. Returns false on failure.
  static bool store(const AVFrame& picture, const std::string& file);

 private:
  AVCodecContext* codec_;
  AVFrame* frame_;
  AVPacket* packet_;
};

// What libav has complained about since the last call, empty: nothing. A picture that decodes with
// a complaint is no good picture.
std::string takeComplaint();
