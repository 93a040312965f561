// Where sound comes from: 8 kHz, mono, linear.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

constexpr long kAudioRate = 8000;  // samples a second

// An open source of sound. Bound to one thread.
class AudioInput {
 public:
  AudioInput() = default;
  AudioInput(const AudioInput&) = delete;
  AudioInput& operator=(const AudioInput&) = delete;
  virtual ~AudioInput() = default;

  // Takes up to `count` samples. Returns how many, -1 when the source has failed for good; `*error`
  // says why. A live source waits for 100 ms at the most and may then return 0.
  virtual long read(std::int16_t* samples, long count, std::string* error) = 0;

  // Returns true iff the source itself takes as long as the sound lasts.
  virtual bool live() const = 0;
};

// Opens a WAV file: linear samples of 8, 16, 24 or 32 bit, at any rate, with any number of
// channels. It begins anew at its end. On failure returns null and says why in `*error`.
std::unique_ptr<AudioInput> openWav(const char* path, std::string* error);

// Opens an ALSA capture device by name. On failure as openWav().
std::unique_ptr<AudioInput> openAlsa(const char* device, std::string* error);
