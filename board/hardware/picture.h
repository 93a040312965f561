// One picture in memory.
#pragma once

extern "C" {
#include <libavutil/frame.h>
}
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
// Scales `from` into all of `to`. Any thread, each with its own pictures.
void scalePicture(const AVFrame& from, AVFrame* to);
