// WAV files as a source of sound.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "platform/bytes.h"
#include "platform/linux/audio_input.h"
#include "platform/os.h"

namespace {

constexpr std::uint32_t kLinear = 1;
constexpr std::uint32_t kExtensible = 0xfffe;
constexpr std::size_t kFormatBytes = 16;    // of the chunk "fmt ", without what extends it
constexpr std::size_t kExtendedBytes = 26;  // with the true format
constexpr std::size_t kChunkHead = 8;
constexpr std::uint32_t kFastest = 768000;  // samples a second of any file
constexpr std::uint32_t kMostChannels = 64;

std::uint32_t loadLe16(const unsigned char* bytes) {
  return std::uint32_t{bytes[0]} | std::uint32_t{bytes[1]} << 8;
}

struct Format {
  bool known = false;
  std::uint32_t channels = 1;
  std::uint32_t rate = kAudioRate;
  std::uint32_t bytes = 1;  // of one sample of one channel

  // Takes the chunk "fmt ". Returns false iff it tells of something else than linear samples.
  bool set(const unsigned char* chunk, std::size_t size) {
    if (size < kFormatBytes) return false;
    std::uint32_t tag = loadLe16(chunk);
    if (tag == kExtensible && size >= kExtendedBytes) tag = loadLe16(chunk + kExtendedBytes - 2);
    const std::uint32_t newChannels = loadLe16(chunk + 2);
    const std::uint32_t newRate = loadLe32(chunk + 4);
    const std::uint32_t bits = loadLe16(chunk + 14);
    if (tag != kLinear || bits % 8 != 0 || bits < 8 || bits > 32 || newChannels < 1 ||
        newChannels > kMostChannels || newRate < 1 || newRate > kFastest)
      return false;
    channels = newChannels;
    rate = newRate;
    bytes = bits / 8;
    known = true;
    return true;
  }
};

class WavInput : public AudioInput {
 public:
  explicit WavInput(int fd) : fd_(fd) {}
  ~WavInput() override { os::close(fd_); }

  // Finds format and samples. Returns null when it has, otherwise what is wrong.
  const char* open() {
    unsigned char head[12];
    if (!take(head, sizeof head) || std::memcmp(head, "RIFF", 4) != 0 ||
        std::memcmp(head + 8, "WAVE", 4) != 0)
      return "not a WAV file";
    std::int64_t place = sizeof head;
    unsigned char chunk[kChunkHead];
    while (seek(place) && take(chunk, sizeof chunk)) {
      const std::uint32_t size = loadLe32(chunk + 4);
      place += kChunkHead;
      if (std::memcmp(chunk, "fmt ", 4) == 0) {
        unsigned char format[kExtendedBytes];
        const std::size_t length = std::min<std::size_t>(size, sizeof format);
        if (!take(format, length) || !format_.set(format, length)) return "no linear samples";
      } else if (std::memcmp(chunk, "data", 4) == 0 && format_.known) {
        begin_ = place;
        // What a recorder that was cut off left as 0 means "to the end".
        length_ = size == 0 ? UINT32_MAX : size;
        rewind();
        return nullptr;
      }
      place += std::int64_t{size} + size % 2;
    }
    return "no samples";
  }

  // Each sample lasts from one instant to the next; what is taken is the mean of what the file has
  // during that time. That is simple, exact for constant sound, and keeps most of what is too high
  // for 8 kHz from coming back as noise.
  long read(std::int16_t* samples, long count, std::string* error) override {
    for (long i = 0; i < count; ++i) {
      std::int64_t sum = 0;
      std::uint32_t wanted = format_.rate;  // in parts of 1 / (rate * 8000) s
      do {
        if (left_ == 0) {
          if (!next()) {
            *error = "no samples";
            return -1;
          }
          left_ = static_cast<std::uint32_t>(kAudioRate);
        }
        const std::uint32_t part = std::min(wanted, left_);
        sum += std::int64_t{part} * value_;
        wanted -= part;
        left_ -= part;
      } while (wanted > 0);
      samples[i] = static_cast<std::int16_t>(sum / format_.rate);
    }
    return count;
  }

  bool live() const override { return false; }

 private:
  bool seek(std::int64_t place) {
    used_ = filled_ = 0;
    return place <= INT32_MAX && os::lseek(fd_, static_cast<long>(place), SEEK_SET) >= 0;
  }

  void rewind() {
    seek(begin_);
    rest_ = length_;
  }

  // Returns false iff the file ends before `size` bytes.
  bool take(unsigned char* bytes, std::size_t size) {
    while (size > 0) {
      if (used_ == filled_) {
        const long length = os::read(fd_, block_.data(), block_.size());
        if (length <= 0) return false;
        used_ = 0;
        filled_ = static_cast<std::size_t>(length);
      }
      const std::size_t part = std::min(size, filled_ - used_);
      std::memcpy(bytes, block_.data() + used_, part);
      used_ += part;
      bytes += part;
      size -= part;
    }
    return true;
  }

  // Goes to the file's next sample, from its end to its beginning. Returns false iff it has none.
  bool next() {
    if (takeMean()) return true;
    rewind();
    return takeMean();
  }

  // Takes one sample of each channel and keeps their mean.
  bool takeMean() {
    unsigned char bytes[4 * kMostChannels];
    const std::size_t size = std::size_t{format_.bytes} * format_.channels;
    if (rest_ < size || !take(bytes, size)) return false;
    rest_ -= static_cast<std::uint32_t>(size);
    int sum = linear(bytes);
    for (std::uint32_t channel = 1; channel < format_.channels; ++channel)
      sum += linear(bytes + std::size_t{channel} * format_.bytes);
    value_ = sum / static_cast<int>(format_.channels);
    return true;
  }

  // The sample's upper 16 bits. Those of 8 bit are unsigned.
  int linear(const unsigned char* bytes) const {
    if (format_.bytes == 1) return (bytes[0] - 128) * 256;
    return static_cast<std::int16_t>(loadLe16(bytes + format_.bytes - 2));
  }

  const int fd_;  // owned
  Format format_;
  std::int64_t begin_ = 0;  // of the samples
  std::uint32_t length_ = 0;
  std::uint32_t rest_ = 0;  // of the samples, in bytes
  int value_ = 0;           // of the file's present sample
  std::uint32_t left_ = 0;  // how long that still lasts
  std::array<unsigned char, 4096> block_{};
  std::size_t used_ = 0;
  std::size_t filled_ = 0;
};

}  // namespace

std::unique_ptr<AudioInput> openWav(const char* path, std::string* error) {
  const int fd = os::open(path, O_RDONLY | O_NONBLOCK);
  if (fd < 0) {
    *error = std::strerror(errno);
    return nullptr;
  }
  auto input = std::make_unique<WavInput>(fd);
  if (const char* const problem = input->open()) {
    *error = problem;
    return nullptr;
  }
  return input;
}
