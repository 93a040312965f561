#include "tests/board/stream_check/decoder.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libswscale/swscale.h>
}
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

std::string complaint;

void note(void*, int level, const char* format, va_list arguments) {
  if (level > AV_LOG_ERROR || !complaint.empty()) return;
  char line[200];
  std::vsnprintf(line, sizeof line, format, arguments);
  complaint = line;
  while (!complaint.empty() && complaint.back() == '\n') complaint.pop_back();
}

std::string textOf(int error) {
  char text[AV_ERROR_MAX_STRING_SIZE] = "";
  av_strerror(error, text, sizeof text);
  return text;
}

}  // namespace

std::string takeComplaint() {
  std::string taken;
  taken.swap(complaint);
  return taken;
}

Decoder::Decoder(const std::string& header)
    : codec_(avcodec_alloc_context3(
          avcodec_find_decoder(header.empty() ? AV_CODEC_ID_MJPEG : AV_CODEC_ID_MPEG4))),
      frame_(av_frame_alloc()),
      packet_(av_packet_alloc()) {
  av_log_set_callback(note);
  if (!header.empty()) {
    codec_->extradata =
        static_cast<std::uint8_t*>(av_mallocz(header.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    codec_->extradata_size = static_cast<int>(header.size());
    std::memcpy(codec_->extradata, header.data(), header.size());
  }
  codec_->err_recognition = AV_EF_EXPLODE | AV_EF_BITSTREAM | AV_EF_BUFFER | AV_EF_CRCCHECK;
  codec_->error_concealment = 0;
  codec_->flags |= AV_CODEC_FLAG_LOW_DELAY;
  codec_->thread_count = 1;
  if (avcodec_open2(codec_, codec_->codec, nullptr) < 0) {
    std::fputs("stream_check: no decoder\n", stderr);
    std::exit(1);
  }
}

Decoder::~Decoder() {
  av_packet_free(&packet_);
  av_frame_free(&frame_);
  avcodec_free_context(&codec_);
}

const AVFrame* Decoder::decode(const std::string& data, std::string* error) {
  error->clear();
  takeComplaint();
  if (av_new_packet(packet_, static_cast<int>(data.size())) < 0) std::abort();
  std::memcpy(packet_->data, data.data(), data.size());
  int result = avcodec_send_packet(codec_, packet_);
  av_packet_unref(packet_);
  if (result >= 0) result = avcodec_receive_frame(codec_, frame_);
  const std::string complained = takeComplaint();
  if (result == AVERROR(EAGAIN) && complained.empty()) return nullptr;
  if (result < 0)
    *error = textOf(result) + (complained.empty() ? "" : ": " + complained);
  else if (!complained.empty())
    *error = complained;
  else if (frame_->decode_error_flags != 0)
    *error = "damaged picture";
  return error->empty() ? frame_ : nullptr;
}

bool Decoder::store(const AVFrame& picture, const std::string& file) {
  AVFrame* rgb = av_frame_alloc();
  rgb->format = AV_PIX_FMT_RGB24;
  rgb->width = picture.width;
  rgb->height = picture.height;
  if (av_frame_get_buffer(rgb, 0) < 0) std::abort();
  SwsContext* scaler = sws_getContext(
      picture.width, picture.height, static_cast<AVPixelFormat>(picture.format), rgb->width,
      rgb->height, AV_PIX_FMT_RGB24, SWS_BICUBIC | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT, nullptr,
      nullptr, nullptr);
  sws_scale(scaler, picture.data, picture.linesize, 0, picture.height, rgb->data, rgb->linesize);
  sws_freeContext(scaler);

  AVCodecContext* png = avcodec_alloc_context3(avcodec_find_encoder(AV_CODEC_ID_PNG));
  png->width = rgb->width;
  png->height = rgb->height;
  png->pix_fmt = AV_PIX_FMT_RGB24;
  png->time_base = {1, 1};
  AVPacket* packet = av_packet_alloc();
  bool stored = avcodec_open2(png, png->codec, nullptr) >= 0 && avcodec_send_frame(png, rgb) >= 0 &&
                avcodec_receive_packet(png, packet) >= 0;
  if (stored) {
    std::FILE* out = std::fopen(file.c_str(), "wb");
    stored = out != nullptr && std::fwrite(packet->data, 1, static_cast<std::size_t>(packet->size),
                                           out) == static_cast<std::size_t>(packet->size);
    if (out != nullptr && std::fclose(out) != 0) stored = false;
  }
  av_packet_free(&packet);
  avcodec_free_context(&png);
  av_frame_free(&rgb);
  return stored;
}
