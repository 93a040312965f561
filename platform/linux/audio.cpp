#include "platform/audio.h"

#include <strings.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "platform/bytes.h"
#include "platform/date_time.h"
#include "platform/linux/audio_input.h"
#include "platform/linux/mulaw.h"
#include "platform/linux/root.h"
#include "platform/log.h"
#include "platform/os.h"
#include "platform/stream_buffer.h"
#include "platform/timer.h"

namespace {

constexpr long kFrameMs = 20;
constexpr long kFrameSamples = kAudioRate * kFrameMs / 1000;
constexpr unsigned kRetryS = 3;
constexpr long kReserveMs = 10;
constexpr std::int32_t kTooLateMs = 1000;  // what was missed is not made up for

bool isWav(const char* source) {
  const char* const end = std::strrchr(source, '.');
  return *source == '/' || *source == '.' || (end != nullptr && strcasecmp(end, ".wav") == 0);
}

std::unique_ptr<AudioInput> openSource(const char* source, std::string* error) {
  if (!isWav(source)) return openAlsa(source, error);
  return openWav(*source == '/' ? rooted(source).c_str() : source, error);
}

// Lets the caller go on every 20 ms.
class Pace {
 public:
  void wait() {
    due_ += kFrameMs;
    const auto early = static_cast<std::int32_t>(due_ - monotonicMs());
    if (early > 0) os::usleep(1000ul * static_cast<unsigned long>(early));
    if (early < -kTooLateMs) due_ = monotonicMs();
  }

 private:
  std::uint32_t due_ = monotonicMs();
};

// Gathers samples and writes them into the buffer, a frame at a time.
class Frames {
 public:
  std::int16_t* place() { return samples_ + used_; }
  long room() const { return kFrameSamples - used_; }

  // Takes `count` samples that were written at place(). Returns true iff that made a frame.
  bool add(long count) {
    used_ += count;
    if (used_ < kFrameSamples) return false;
    used_ = 0;
    publish();
    return true;
  }

 private:
  void publish() {
    SB_HANDLE* const buffer = sbAudio();
    ++number_;
    if (sbGetFrameSize(buffer) < static_cast<long>(kFrameHeadBytes) + kFrameSamples) {
      if (!std::exchange(reported_, true)) logEx(3, "Can't attach audio streaming buffer");
      return;
    }
    reported_ = false;
    TAutoFrame frame(buffer, 0, nullptr, nullptr, kReserveMs);
    if (!frame) {
      logEx(1, "audio buffer busy");
      return;
    }
    TDateTime now;
    now.set();
    std::memset(frame.get(), 0, kFrameHeadBytes);
    storeLe32(frame->seconds, now.seconds());
    storeLe32(frame->microseconds, now.microseconds());
    storeLe32(frame->length, static_cast<std::uint32_t>(kFrameSamples));
    storeLe32(frame->number, number_);
    for (long i = 0; i < kFrameSamples; ++i)
      frame->payload[i] = static_cast<char>(toMulaw(samples_[i]));
  }

  std::int16_t samples_[kFrameSamples] = {};
  long used_ = 0;
  std::uint32_t number_ = 0;
  bool reported_ = false;  // that there is no buffer
};

}  // namespace

TAudioArgs::TAudioArgs(int argc, char** argv) {
  constexpr std::size_t kOptionLength = 2;
  for (int i = 1; i < argc; ++i)
    if (std::strncmp(argv[i], "-A", kOptionLength) == 0 && argv[i][kOptionLength] != '\0')
      source = argv[i] + kOptionLength;
}

void TAudioArgs::usage() const {
  std::puts("Audio options:");
  std::puts("\t-Asource\tUse ALSA device or WAV file 'source' (\"default\")\n");
}

TAudioSource::TAudioSource(TAudioArgs& args) : PThread("KVX-audio"), source_(args.source) {}

TAudioSource::~TAudioSource() = default;

void TAudioSource::execute() {
  Frames frames;
  bool reported = false;
  while (running()) {
    std::string error;
    if (const auto input = openSource(source_, &error)) {
      Pace pace;
      long count = 0;
      while (running() && (count = input->read(frames.place(), frames.room(), &error)) >= 0) {
        if (count > 0) reported = false;
        if (frames.add(count) && !input->live()) pace.wait();
      }
      if (count >= 0) return;
    }
    // Once until it works again: a camera without a microphone is no news every few seconds.
    if (!std::exchange(reported, true)) logEx(3, "no sound from %s: %s", source_, error.c_str());
    os::sleep(kRetryS);
  }
}
