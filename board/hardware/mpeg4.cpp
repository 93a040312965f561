#include "board/hardware/mpeg4.h"

extern "C" {
#include <libavutil/opt.h>
}
#include <algorithm>
#include <cstddef>
#include <iterator>

#include "board/hardware/vol_header.h"

namespace {

// A time that is a second later costs a bit, and from an hour on libav refuses it.
constexpr std::int64_t kMaxGapMs = 10000;

// The encoder says which pictures are key pictures: libav shall not, at its own interval (600 at
// most, one more than twice the longest that can be set) or where the scene changes.
constexpr int kNoInterval = 600;
constexpr int kNoSceneChange = 1000000000;

constexpr char kVopStart[] = {0, 0, 1, static_cast<char>(0xB6)};
constexpr std::size_t kVopTime = sizeof kVopStart;  // the byte: type in two bits, then the time

// Lets the picture in `data` begin one second later: a one before its time, and all behind that
// moves by a bit. It ends with a zero and ones up to the end of its last byte.
void addSecond(std::vector<char>* data) {
  constexpr unsigned kTypeBits = 0xC0;
  constexpr unsigned kSecond = 0x20;
  unsigned carry = 0;
  for (std::size_t i = kVopTime; i < data->size(); ++i) {
    const auto byte = static_cast<unsigned char>((*data)[i]);
    const unsigned moved = i == kVopTime ? (byte & kTypeBits) | kSecond | (byte & ~kTypeBits) >> 1
                                         : carry << 7 | unsigned{byte} >> 1;
    carry = byte & 1U;
    (*data)[i] = static_cast<char>(moved);
  }
  if (carry == 0) data->push_back(0x7F);  // that zero was all, and fell out
}

// Takes away the head of the group of pictures that libav puts before key pictures. It told the
// full seconds of the picture's time, so these, counted from the picture before, go into the
// picture itself. Returns false when there is no picture.
bool dropGroupHead(std::int64_t seconds, std::vector<char>* data) {
  const auto vop = std::search(data->begin(), data->end(), kVopStart, std::end(kVopStart));
  if (data->end() - vop <= static_cast<std::ptrdiff_t>(kVopTime)) return false;
  if (vop == data->begin()) return true;
  data->erase(data->begin(), vop);
  while (seconds-- > 0) addSecond(data);
  return true;
}

}  // namespace

Mpeg4Coder::Mpeg4Coder() : packet_(av_packet_alloc()) {}
Mpeg4Coder::~Mpeg4Coder() = default;

bool Mpeg4Coder::open(int width, int height) {
  const AVCodec* coder = avcodec_find_encoder(AV_CODEC_ID_MPEG4);
  codec_.reset(coder ? avcodec_alloc_context3(coder) : nullptr);
  if (!codec_) return false;
  codec_->width = width;
  codec_->height = height;
  codec_->pix_fmt = AV_PIX_FMT_YUV420P;
  codec_->time_base = {1, kVopTimeSteps};
  codec_->thread_count = 1;
  codec_->max_b_frames = 0;
  codec_->gop_size = kNoInterval;
  codec_->qmin = 1;
  codec_->qmax = 31;
  // The pictures alone: no headers (they are volHeader's), no names.
  codec_->flags |= AV_CODEC_FLAG_QSCALE | AV_CODEC_FLAG_GLOBAL_HEADER | AV_CODEC_FLAG_BITEXACT;
  av_opt_set_int(codec_->priv_data, "sc_threshold", kNoSceneChange, 0);
  if (avcodec_open2(codec_.get(), coder, nullptr) != 0) {
    codec_.reset();
    return false;
  }
  input_ = makePicture(width, height);
  input_->pts = 0;
  return true;
}

bool Mpeg4Coder::encode(const AVFrame& picture, std::int64_t timeMs, Settings settings,
                        std::vector<char>* data) {
  data->clear();
  std::int64_t seconds = 0;
  if (!codec_ || codec_->width != picture.width || codec_->height != picture.height) {
    if (!open(picture.width, picture.height)) return false;
    settings.key = true;
  } else {
    seconds = -(input_->pts / kVopTimeSteps);
    input_->pts += std::clamp<std::int64_t>(timeMs - lastMs_, 1, kMaxGapMs);
    seconds += input_->pts / kVopTimeSteps;
  }
  lastMs_ = timeMs;
  bool done = av_frame_make_writable(input_.get()) == 0;
  if (done) {
    copyPicture(picture, input_.get());
    input_->quality = settings.quantiser * FF_QP2LAMBDA;
    input_->pict_type = settings.key ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
    done = avcodec_send_frame(codec_.get(), input_.get()) == 0 &&
           avcodec_receive_packet(codec_.get(), packet_.get()) == 0;
  }
  if (done) {
    data->assign(packet_->data, packet_->data + packet_->size);
    av_packet_unref(packet_.get());
    done = dropGroupHead(seconds, data);
  }
  if (!done) {
    data->clear();
    codec_.reset();  // so that the next picture begins anew
  }
  return done;
}
