#include "hardware_fixture.h"

extern "C" {
#include <libavutil/log.h>
}
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>

namespace {

std::mutex complaintsMutex;
std::string complaints;

void note(void*, int level, const char* format, va_list arguments) {
  if (level > AV_LOG_WARNING) return;
  char line[256];
  std::vsnprintf(line, sizeof line, format, arguments);
  const std::lock_guard<std::mutex> lock(complaintsMutex);
  complaints += line;
}

}  // namespace

LibavComplaints::LibavComplaints() {
  complaints.clear();
  av_log_set_callback(note);
}

LibavComplaints::~LibavComplaints() { av_log_set_callback(av_log_default_callback); }

std::string LibavComplaints::text() {
  const std::lock_guard<std::mutex> lock(complaintsMutex);
  return complaints;
}

StreamJudge::StreamJudge() : packet_(av_packet_alloc()) {
  const AVCodec* decoder = avcodec_find_decoder(AV_CODEC_ID_MPEG4);
  codec_.reset(avcodec_alloc_context3(decoder));
  codec_->err_recognition = AV_EF_EXPLODE | AV_EF_CAREFUL | AV_EF_COMPLIANT | AV_EF_AGGRESSIVE |
                            AV_EF_BITSTREAM | AV_EF_BUFFER;
  codec_->error_concealment = 0;
  codec_->thread_count = 1;
  if (avcodec_open2(codec_.get(), decoder, nullptr) != 0) codec_.reset();
}

Picture StreamJudge::decode(const std::string& data) {
  Picture picture(av_frame_alloc());
  if (!codec_ || av_new_packet(packet_.get(), static_cast<int>(data.size())) != 0) return nullptr;
  std::memcpy(packet_->data, data.data(), data.size());
  const int sent = avcodec_send_packet(codec_.get(), packet_.get());
  av_packet_unref(packet_.get());
  if (sent != 0 || avcodec_receive_frame(codec_.get(), picture.get()) != 0) return nullptr;
  if (picture->decode_error_flags != 0 || (picture->flags & AV_FRAME_FLAG_CORRUPT) != 0)
    return nullptr;
  return picture;
}

unsigned takeBits(const std::string& data, std::size_t* position, int count) {
  unsigned value = 0;
  for (; count > 0; --count, ++*position) {
    const auto byte = static_cast<unsigned char>(data.at(*position / 8));
    value = value << 1 | (byte >> (7 - *position % 8) & 1U);
  }
  return value;
}

bool startsPicture(const std::vector<char>& chunk) {
  return chunk.size() > 4 && std::memcmp(chunk.data(), kPictureStart, 4) == 0;
}

Stage::Play wanderingShades(int step) {
  const std::shared_ptr<AVFrame> shades(makePicture(kSceneWidth, kSceneHeight));
  drawShades(shades.get());
  return [shades, step, shift = 0](AVFrame* picture) mutable {
    constexpr int kTurn = 128;
    shift = (shift + step) % kTurn;
    for (int plane = 0; plane < 3; ++plane) {
      const int side = plane == 0 ? 1 : 2;
      const auto moved = static_cast<std::size_t>(shift / side);
      const auto width = static_cast<std::size_t>(kSceneWidth / side);
      for (int y = 0; y < kSceneHeight / side; ++y) {
        const std::uint8_t* from = shades->data[plane] + y * shades->linesize[plane];
        std::uint8_t* to = picture->data[plane] + y * picture->linesize[plane];
        std::memcpy(to, from + moved, width - moved);
        std::memcpy(to + width - moved, from, moved);
      }
    }
  };
}

EncoderTest::EncoderTest() { stage_.show(wanderingShades(0)); }

int EncoderTest::order(unsigned request, std::int32_t value) {
  std::vector<char> argument(sizeof value);
  std::memcpy(argument.data(), &value, sizeof value);
  const int result = encoder_.ioctl(request, &argument);
  std::int32_t left = 0;
  std::memcpy(&left, argument.data(), sizeof left);
  EXPECT_EQ(left, value);
  return result;
}

int EncoderTest::setColour(const TMpg430Colour& colour) {
  std::vector<char> argument(sizeof colour);
  std::memcpy(argument.data(), &colour, sizeof colour);
  return encoder_.ioctl(kMpg430VideoSetcolor, &argument);
}

std::string EncoderTest::header() {
  std::vector<char> argument(kMpg430HeaderBytes);
  EXPECT_EQ(encoder_.ioctl(kMpg430GetImgheader, &argument), kMpg430HeaderBytes);
  return {argument.begin(), argument.end()};
}

std::vector<char> EncoderTest::chunk(std::size_t limit) {
  std::vector<char> data;
  const int result = encoder_.read(limit, &data);
  EXPECT_EQ(result, static_cast<int>(data.size()));
  EXPECT_LE(data.size(), std::min(limit, Encoder::kChunkMax));
  return data;
}

std::string EncoderTest::picture() {
  std::vector<char> data = chunk();
  EXPECT_TRUE(startsPicture(data));
  std::string whole(data.begin(), data.end());
  while (data.size() == Encoder::kChunkMax) {
    data = chunk();
    EXPECT_FALSE(startsPicture(data));
    whole.append(data.begin(), data.end());
  }
  return whole;
}

Picture EncoderTest::freshPicture() {
  order(kMpg430StreamStart, 1);
  return StreamJudge().decode(header() + picture());
}
