#include "board/hardware/picture.h"

extern "C" {
#include <libswscale/swscale.h>
}
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int kBlackLuma = 16;
constexpr int kNoChroma = 128;

struct ScalerDeleter {
  void operator()(SwsContext* scaler) const { sws_freeContext(scaler); }
};

}  // namespace

Picture makePicture(int width, int height) {
  Picture picture(av_frame_alloc());
  if (picture) {
    picture->format = AV_PIX_FMT_YUV420P;
    picture->width = width;
    picture->height = height;
  }
  if (!picture || av_frame_get_buffer(picture.get(), 0) != 0) {
    std::fprintf(stderr, "hardware: no memory for a picture of %dx%d\n", width, height);
    std::abort();
  }
  for (int plane = 0; plane < 3; ++plane) {
    const int rows = plane == 0 ? height : (height + 1) / 2;
    std::memset(
        picture->data[plane], plane == 0 ? kBlackLuma : kNoChroma,
        static_cast<std::size_t>(picture->linesize[plane]) * static_cast<std::size_t>(rows));
  }
  return picture;
}

void copyPicture(const AVFrame& from, AVFrame* to) { av_frame_copy(to, &from); }

void scalePicture(const AVFrame& from, AVFrame* to) {
  thread_local std::unique_ptr<SwsContext, ScalerDeleter> scaler;
  scaler.reset(sws_getCachedContext(
      scaler.release(), from.width, from.height, static_cast<AVPixelFormat>(from.format), to->width,
      to->height, static_cast<AVPixelFormat>(to->format), SWS_BILINEAR, nullptr, nullptr, nullptr));
  if (!scaler) return;
  sws_scale(scaler.get(), from.data, from.linesize, 0, from.height, to->data, to->linesize);
}
