// One picture in memory.
#pragma once

extern "C" {
#include <libavutil/frame.h>
}
#include <array>
#include <memory>

struct FrameDeleter {
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
// Owns a libav frame. Inside the hardware all pictures are AV_PIX_FMT_YUV420P, limited range.
using Picture = std::unique_ptr<AVFrame, FrameDeleter>;

// What the sensor sees, in pixels: the coordinates of motion windows and overlays.
constexpr int kSceneWidth = 640;
constexpr int kSceneHeight = 480;

// Makes a black picture; even sizes. Never null: ends the program when memory is out.
Picture makePicture(int width, int height);
// Copies the pixels of a picture of the same size.
void copyPicture(const AVFrame& from, AVFrame* to);
// Scales `from` into all of `to`. Any thread, each with its own pictures. Best with the same sizes
// again and again.
void scalePicture(const AVFrame& from, AVFrame* to);

struct SwsContext;

// Scales pictures of any kind. Bound to one thread at a time.
class Scaler {
 public:
  // Scales `from` into all of `to`, which is one of our own. Returns false, changing nothing, when
  // pictures of that kind can't be converted.
  bool scale(const AVFrame& from, AVFrame* to);

 private:
  struct Deleter {
    void operator()(SwsContext* context) const;
  };
  using Kind = std::array<int, 6>;  // size, format and range of `from`, size of `to`

  Kind kind_{};
  std::unique_ptr<SwsContext, Deleter> context_;
};
