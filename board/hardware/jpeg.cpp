#include "board/hardware/jpeg.h"

extern "C" {
#include <libavutil/opt.h>
}
#include <algorithm>
#include <array>
#include <cstdint>

namespace {

constexpr int kTableSize = 64;

// The example tables of ISO/IEC 10918-1, which practically every coder starts from, in rows.
constexpr std::uint16_t kLuma[kTableSize] = {
    16, 11, 10, 16, 24,  40,  51,  61,  12, 12, 14, 19, 26,  58,  60,  55,   //
    14, 13, 16, 24, 40,  57,  69,  56,  14, 17, 22, 29, 51,  87,  80,  62,   //
    18, 22, 37, 56, 68,  109, 103, 77,  24, 35, 55, 64, 81,  104, 113, 92,   //
    49, 64, 78, 87, 103, 121, 120, 101, 72, 92, 95, 98, 112, 100, 103, 99};  //
constexpr std::uint16_t kChroma[kTableSize] = {
    17, 18, 24, 47, 99, 99, 99, 99, 18, 21, 26, 66, 99, 99, 99, 99,   //
    24, 26, 56, 99, 99, 99, 99, 99, 47, 66, 99, 99, 99, 99, 99, 99,   //
    99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99,   //
    99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99};  //

// libav multiplies its tables by the quantiser / 8, so 8 takes them as they are.
constexpr int kQuantiser = 8;

// Returns `table` for that quality, allocated for libav to free: half of it at 75 %, all of it at
// 50 %, twice at 25 %, as is the custom. Entries of one byte decode everywhere.
std::uint16_t* scaledTable(const std::uint16_t (&table)[kTableSize], int quality) {
  const int percent = quality < 50 ? 5000 / quality : 200 - 2 * quality;
  auto* scaled = static_cast<std::uint16_t*>(av_malloc(sizeof table));
  for (int i = 0; scaled && i < kTableSize; ++i)
    scaled[i] = static_cast<std::uint16_t>(std::clamp((table[i] * percent + 50) / 100, 1, 255));
  return scaled;
}

using Range = std::array<std::uint8_t, 256>;

// Returns the table that stretches `low`..`low` + `steps`, centred on `from`, to the full range.
Range stretch(int from, int steps, int to) {
  Range range{};
  for (int value = 0; value < 256; ++value) {
    const int scaled = (value - from) * 255 * 2 + (value < from ? -steps : steps);
    range[static_cast<std::size_t>(value)] =
        static_cast<std::uint8_t>(std::clamp(scaled / (2 * steps) + to, 0, 255));
  }
  return range;
}

void stretchPlane(const AVFrame& from, AVFrame* to, int plane, const Range& range) {
  const int width = plane == 0 ? from.width : from.width / 2;
  const int height = plane == 0 ? from.height : from.height / 2;
  for (int y = 0; y < height; ++y) {
    const std::uint8_t* in = from.data[plane] + y * from.linesize[plane];
    std::uint8_t* out = to->data[plane] + y * to->linesize[plane];
    for (int x = 0; x < width; ++x) out[x] = range[in[x]];
  }
}

}  // namespace

JpegCoder::JpegCoder() : packet_(av_packet_alloc()) {}
JpegCoder::~JpegCoder() = default;

bool JpegCoder::open(int width, int height, int quality) {
  const AVCodec* coder = avcodec_find_encoder(AV_CODEC_ID_MJPEG);
  codec_.reset(coder ? avcodec_alloc_context3(coder) : nullptr);
  if (!codec_) return false;
  codec_->width = width;
  codec_->height = height;
  codec_->pix_fmt = AV_PIX_FMT_YUVJ420P;
  codec_->time_base = {1, 1};
  codec_->sample_aspect_ratio = {1, 1};  // libav then writes the JFIF head
  codec_->thread_count = 1;
  codec_->flags |= AV_CODEC_FLAG_QSCALE | AV_CODEC_FLAG_BITEXACT;
  codec_->intra_matrix = scaledTable(kLuma, quality);
  codec_->chroma_intra_matrix = scaledTable(kChroma, quality);
  // Tables made for each picture would cost a second pass over it.
  av_opt_set(codec_->priv_data, "huffman", "default", 0);
  if (avcodec_open2(codec_.get(), coder, nullptr) != 0) {
    codec_.reset();
    return false;
  }
  full_ = makePicture(width, height);
  full_->format = AV_PIX_FMT_YUVJ420P;
  full_->color_range = AVCOL_RANGE_JPEG;
  full_->pts = 0;
  full_->quality = kQuantiser * FF_QP2LAMBDA;
  quality_ = quality;
  return true;
}

bool JpegCoder::encode(const AVFrame& picture, int quality, std::vector<char>* data) {
  static const Range kLumaRange = stretch(16, 219, 0);
  static const Range kChromaRange = stretch(128, 224, 128);
  data->clear();
  quality = std::clamp(quality, 1, 100);
  const bool ready = codec_ && codec_->width == picture.width && codec_->height == picture.height &&
                     quality_ == quality;
  if (!ready && !open(picture.width, picture.height, quality)) return false;
  if (av_frame_make_writable(full_.get()) != 0) return false;
  for (int plane = 0; plane < 3; ++plane)
    stretchPlane(picture, full_.get(), plane, plane == 0 ? kLumaRange : kChromaRange);
  ++full_->pts;
  if (avcodec_send_frame(codec_.get(), full_.get()) != 0 ||
      avcodec_receive_packet(codec_.get(), packet_.get()) != 0) {
    codec_.reset();
    return false;
  }
  data->assign(packet_->data, packet_->data + packet_->size);
  av_packet_unref(packet_.get());
  return true;
}
