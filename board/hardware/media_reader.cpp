#include "board/hardware/media_reader.h"

#include <sys/stat.h>
extern "C" {
#include <libavdevice/avdevice.h>
#include <libavutil/opt.h>
}
#include <algorithm>
#include <cstdio>

namespace {

// What a broken file may ask for: twice as many pixels as the largest screens have.
constexpr std::int64_t kMaxPixels = std::int64_t{8192} * 8192;

constexpr std::int64_t kUsualPictureMs = 40;  // where a file doesn't tell
constexpr std::int64_t kMaxStepMs = 10000;    // longer is a broken time

bool isDevice(const std::string& path) {
  struct stat about {};
  return stat(path.c_str(), &about) == 0 && S_ISCHR(about.st_mode);
}

std::string textOf(const std::string& path, int error) {
  char text[AV_ERROR_MAX_STRING_SIZE] = "";
  av_strerror(error, text, sizeof text);
  return path + ": " + text;
}

}  // namespace

bool MediaReader::open(const std::string& path, std::string* error) {
  // A damaged file says so for each picture; what matters is said by those who use it.
  static const bool kQuiet = (av_log_set_level(AV_LOG_QUIET), true);
  static_cast<void>(kQuiet);
  path_ = path;
  lastMs_ = -1;
  codec_.reset();
  format_.reset();
  AVFormatContext* format = avformat_alloc_context();
  const AVInputFormat* kind = nullptr;
  if (format && isDevice(path)) {
    avdevice_register_all();
    kind = av_find_input_format("video4linux2");
    format->flags |= AVFMT_FLAG_NONBLOCK;
  }
  AVDictionary* options = nullptr;
  av_dict_set(&options, "protocol_whitelist", "file", 0);  // no list in a file leads elsewhere
  // "file:" keeps a colon in the path from being taken for a protocol.
  int result = avformat_open_input(&format, (kind ? path : "file:" + path).c_str(), kind, &options);
  av_dict_free(&options);
  if (result == 0) {
    format_.reset(format);
    if (!kind) result = avformat_find_stream_info(format, nullptr);
  }
  if (result < 0) {
    *error = textOf(path, result);
    return false;
  }
  return openDecoder(error);
}

bool MediaReader::openDecoder(std::string* error) {
  const AVCodec* decoder = nullptr;
  stream_ = av_find_best_stream(format_.get(), AVMEDIA_TYPE_VIDEO, -1, -1, &decoder, 0);
  if (stream_ < 0 || !decoder) {
    *error = path_ + ": no video in it that can be decoded";
    return false;
  }
  codec_.reset(avcodec_alloc_context3(decoder));
  const AVStream* stream = format_->streams[stream_];
  int result =
      codec_ ? avcodec_parameters_to_context(codec_.get(), stream->codecpar) : AVERROR(ENOMEM);
  if (result >= 0) {
    codec_->thread_count = 1;
    codec_->max_pixels = kMaxPixels;
    codec_->pkt_timebase = stream->time_base;
    result = avcodec_open2(codec_.get(), decoder, nullptr);
  }
  if (result < 0) *error = textOf(path_, result);
  return result >= 0;
}

// Gives the decoder the next packet of the video, or its end.
MediaReader::Result MediaReader::feed() {
  const int result = av_read_frame(format_.get(), packet_.get());
  if (result == AVERROR(EAGAIN)) return Result::kNothingYet;
  if (result < 0) {
    avcodec_send_packet(codec_.get(), nullptr);
    return Result::kEnd;
  }
  if (packet_->stream_index == stream_) avcodec_send_packet(codec_.get(), packet_.get());
  av_packet_unref(packet_.get());
  return Result::kPicture;
}

MediaReader::Result MediaReader::next(AVFrame* picture, std::int64_t* timeMs) {
  for (bool ended = false;;) {
    const int result = avcodec_receive_frame(codec_.get(), decoded_.get());
    if (result == 0) {
      const bool scaled = scaler_.scale(*decoded_, picture);
      *timeMs = timeOf(*decoded_);
      av_frame_unref(decoded_.get());
      if (scaled) return Result::kPicture;
    } else if (result == AVERROR_EOF || ended) {
      return Result::kEnd;
    } else {
      const Result fed = feed();
      if (fed == Result::kNothingYet) return fed;
      ended = fed == Result::kEnd;
    }
  }
}

std::int64_t MediaReader::timeOf(const AVFrame& frame) {
  std::int64_t stamp = firstMs_ + lastMs_ + kUsualPictureMs;
  if (frame.best_effort_timestamp != AV_NOPTS_VALUE)
    stamp =
        av_rescale_q(frame.best_effort_timestamp, format_->streams[stream_]->time_base, {1, 1000});
  if (lastMs_ < 0)
    lastMs_ = 0;
  else
    lastMs_ += std::clamp<std::int64_t>(stamp - firstMs_ - lastMs_, 1, kMaxStepMs);
  firstMs_ = stamp - lastMs_;
  return lastMs_;
}

bool MediaReader::rewind() {
  std::string error;
  return open(std::string(path_), &error);
}
