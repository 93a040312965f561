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

// Pixel formats that have the full range in their name are outdated: the same with the range told
// beside it. Returns the format to use.
AVPixelFormat withoutRange(int format, bool* full) {
  constexpr AVPixelFormat kNames[][2] = {{AV_PIX_FMT_YUVJ420P, AV_PIX_FMT_YUV420P},
                                         {AV_PIX_FMT_YUVJ422P, AV_PIX_FMT_YUV422P},
                                         {AV_PIX_FMT_YUVJ444P, AV_PIX_FMT_YUV444P},
                                         {AV_PIX_FMT_YUVJ440P, AV_PIX_FMT_YUV440P},
                                         {AV_PIX_FMT_YUVJ411P, AV_PIX_FMT_YUV411P}};
  for (const auto& name : kNames) {
    if (format != name[0]) continue;
    *full = true;
    return name[1];
  }
  return static_cast<AVPixelFormat>(format);
}

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
  thread_local Scaler scaler;
  if (from.width == to->width && from.height == to->height)
    copyPicture(from, to);
  else
    scaler.scale(from, to);
}

void Scaler::Deleter::operator()(SwsContext* context) const { sws_freeContext(context); }

bool Scaler::scale(const AVFrame& from, AVFrame* to) {
  bool full = from.color_range == AVCOL_RANGE_JPEG;
  const AVPixelFormat format = withoutRange(from.format, &full);
  const Kind kind = {from.width, from.height, format, full ? 1 : 0, to->width, to->height};
  if (kind != kind_) {
    kind_ = kind;
    context_.reset(sws_getContext(from.width, from.height, format, to->width, to->height,
                                  static_cast<AVPixelFormat>(to->format), SWS_BILINEAR, nullptr,
                                  nullptr, nullptr));
    const int* coefficients = sws_getCoefficients(SWS_CS_DEFAULT);
    constexpr int kAsIs = 1 << 16;  // contrast and saturation
    if (context_)
      sws_setColorspaceDetails(context_.get(), coefficients, full ? 1 : 0, coefficients, 0, 0,
                               kAsIs, kAsIs);
  }
  return context_ && sws_scale(context_.get(), from.data, from.linesize, 0, from.height, to->data,
                               to->linesize) > 0;
}
