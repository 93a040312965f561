// Owners of libav's objects.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
}
#include <memory>

struct CodecDeleter {
  void operator()(AVCodecContext* codec) const {
    av_freep(&codec->chroma_intra_matrix);  // the only table of the user's that libav forgets
    avcodec_free_context(&codec);
  }
};
using Codec = std::unique_ptr<AVCodecContext, CodecDeleter>;

struct PacketDeleter {
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
using Packet = std::unique_ptr<AVPacket, PacketDeleter>;
