// Pictures from a file or from a camera of the PC.
#pragma once

extern "C" {
#include <libavformat/avformat.h>
}
#include <cstdint>
#include <memory>
#include <string>

#include "board/hardware/libav.h"
#include "board/hardware/picture.h"

// Opens whatever libav can read and decodes its first video. Bound to one thread at a time.
class MediaReader {
 public:
  // `path`: of a file, or of a Video4Linux 2 device, which is read without ever waiting for it.
  // Returns true on success; otherwise sets `*error` to a text that names `path`.
  bool open(const std::string& path, std::string* error);

  enum class Result { kPicture, kNothingYet, kEnd };
  // Decodes the next picture and scales it to the scene's size. What is damaged is left out.
  // `*timeMs`: when it is to be shown, from the file's beginning; always later than the one before
  // it, whatever the file says. kNothingYet comes from devices alone.
  Result next(AVFrame* picture, std::int64_t* timeMs);

  // Opens it anew, for the first picture. Returns true on success.
  bool rewind();

 private:
  struct FormatDeleter {
    void operator()(AVFormatContext* format) const { avformat_close_input(&format); }
  };

  bool openDecoder(std::string* error);
  Result feed();
  std::int64_t timeOf(const AVFrame& frame);

  std::string path_;
  std::unique_ptr<AVFormatContext, FormatDeleter> format_;
  Codec codec_;
  Packet packet_{av_packet_alloc()};
  Picture decoded_{av_frame_alloc()};
  Scaler scaler_;
  int stream_ = -1;
  std::int64_t firstMs_ = 0;  // what the file calls the time of its first picture
  std::int64_t lastMs_ = -1;  // of the picture before, from the beginning
};
