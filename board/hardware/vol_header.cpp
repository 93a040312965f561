#include "board/hardware/vol_header.h"

#include <cstddef>

namespace {

// Writes numbers bit by bit, the most significant first.
class BitWriter {
 public:
  explicit BitWriter(std::array<char, kMpg430HeaderBytes>* bytes) : bytes_(*bytes) {}

  void put(int count, unsigned value) {
    while (count-- > 0) {
      const unsigned bit = (value >> count) & 1U;
      char& byte = bytes_[position_ / 8];
      byte = static_cast<char>(static_cast<unsigned char>(byte) | bit << (7 - position_ % 8));
      ++position_;
    }
  }
  // A zero and then ones up to the byte's end, so that a start code can follow.
  void stuff() {
    put(1, 0);
    while (position_ % 8 != 0) put(1, 1);
  }

 private:
  std::array<char, kMpg430HeaderBytes>& bytes_;
  std::size_t position_ = 0;
};

}  // namespace

std::array<char, kMpg430HeaderBytes> volHeader(int width, int height) {
  std::array<char, kMpg430HeaderBytes> header{};
  BitWriter bits(&header);
  bits.put(32, 0x100);  // video object 0
  bits.put(32, 0x120);  // video object layer 0
  bits.put(1, 0);       // not every picture can be decoded alone
  bits.put(8, 1);       // simple object type
  bits.put(1, 1);       // its version and priority follow
  bits.put(4, 1);
  bits.put(3, 1);
  bits.put(4, 1);  // square pixels
  bits.put(1, 0);  // no control parameters
  bits.put(2, 0);  // rectangular
  bits.put(1, 1);  // marker
  bits.put(16, kVopTimeSteps);
  bits.put(1, 1);  // marker
  bits.put(1, 0);  // no fixed rate
  bits.put(1, 1);  // marker
  bits.put(13, static_cast<unsigned>(width));
  bits.put(1, 1);  // marker
  bits.put(13, static_cast<unsigned>(height));
  bits.put(1, 1);  // marker
  bits.put(1, 0);  // not interlaced
  bits.put(1, 1);  // no overlapped motion compensation
  bits.put(1, 0);  // no sprite
  bits.put(1, 0);  // 8 bits
  bits.put(1, 0);  // quantiser without matrices
  bits.put(1, 1);  // no estimation of the decoder's work
  bits.put(1, 1);  // no resync markers
  bits.put(1, 0);  // not partitioned
  bits.put(1, 0);  // not scalable
  bits.stuff();
  return header;
}
