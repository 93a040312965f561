// MPEG-4 stream headers as a test wants them, bit by bit.
#pragma once

#include <string>

// The fields of a video object layer header, those of a plain stream at first.
struct LayerFields {
  bool identifier = true;    // version and priority are told
  int aspect = 1;            // 15: followed by the ratio
  bool control = false;      // control parameters are told
  bool bufferSizes = false;  // among them those of the decoder's buffer
  int shape = 0;             // 0: rectangular
  int resolution = 1000;     // ticks of the clock per second
  bool fixedRate = false;    // the time between two pictures is told
  int fixedBits = 10;        // in so many bits
  int width = 640;
  int height = 480;
  int zeroMarker = -1;                // the marker, from 0 on, that is wrong
  std::string before{"\0\0\1\0", 4};  // video object
  int layer = 0;                      // number, 0 to 15
};

// Returns the header, cut or filled up with zeros to its 20 bytes.
inline std::string streamHeader(const LayerFields& fields) {
  std::string bits;
  const auto put = [&](int count, int value) {
    for (int bit = count - 1; bit >= 0; --bit) bits += (value >> bit & 1) != 0 ? '1' : '0';
  };
  int markers = 0;
  const auto marker = [&] { put(1, markers++ == fields.zeroMarker ? 0 : 1); };
  put(1, 0);
  put(8, 1);
  put(1, fields.identifier ? 1 : 0);
  if (fields.identifier) put(7, 1 << 3 | 1);
  put(4, fields.aspect);
  if (fields.aspect == 15) put(16, 12 << 8 | 11);
  put(1, fields.control ? 1 : 0);
  if (fields.control) {
    put(3, 1 << 1 | 1);
    put(1, fields.bufferSizes ? 1 : 0);
    if (fields.bufferSizes) bits += std::string(79, '1');
  }
  put(2, fields.shape);
  marker();
  put(16, fields.resolution);
  marker();
  put(1, fields.fixedRate ? 1 : 0);
  if (fields.fixedRate) put(fields.fixedBits, 1);
  marker();
  put(13, fields.width);
  marker();
  put(13, fields.height);
  marker();
  // Not interlaced, no overlapped compensation, no sprite, 8 bit, H.263 quantiser, no estimation,
  // no resynchronisation, not partitioned, not scalable.
  bits += "0100001100";
  bits += '0';
  while (bits.size() % 8 != 0) bits += '1';

  std::string header =
      fields.before + std::string("\0\0\1", 3) + static_cast<char>(0x20 + fields.layer);
  for (std::size_t i = 0; i < bits.size(); i += 8)
    header += static_cast<char>(std::stoi(bits.substr(i, 8), nullptr, 2));
  header.resize(20, '\0');
  return header;
}
