// Coder of MPEG-4 pictures.
#pragma once

#include <cstdint>
#include <vector>

#include "board/hardware/libav.h"
#include "board/hardware/picture.h"

// Makes the pictures of a stream that decodes with volHeader(). Bound to one thread at a time.
class Mpeg4Coder {
 public:
  Mpeg4Coder();
  Mpeg4Coder(const Mpeg4Coder&) = delete;
  Mpeg4Coder& operator=(const Mpeg4Coder&) = delete;
  ~Mpeg4Coder();

  struct Settings {
    int quantiser;  // 1 (best) to 31
    bool key;       // a key picture; otherwise one that is predicted from the picture before
  };

  // Codes `picture` (AV_PIX_FMT_YUV420P, even size), which was taken at `timeMs`. The first picture
  // and the first of another size are always key pictures. Returns true and sets `*data`, which
  // begins with the picture's start code; on failure `*data` is empty.
  bool encode(const AVFrame& picture, std::int64_t timeMs, Settings settings,
              std::vector<char>* data);

 private:
  bool open(int width, int height);

  Codec codec_;
  Packet packet_;
  Picture input_;  // what the coder may keep for itself
  std::int64_t lastMs_ = 0;
};
