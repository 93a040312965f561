// ALSA capture devices as a source of sound.
#include <alsa/asoundlib.h>

#include "platform/linux/audio_input.h"

namespace {

constexpr int kWaitMs = 100;
constexpr unsigned kLatencyUs = 100000;  // five frames: enough for a busy camera

// The library writes its complaints to standard error; ours go to the log.
void silence(const char*, int, const char*, int, const char*, ...) {}

class AlsaInput : public AudioInput {
 public:
  explicit AlsaInput(snd_pcm_t* pcm) : pcm_(pcm) {}
  ~AlsaInput() override { snd_pcm_close(pcm_); }

  long read(std::int16_t* samples, long count, std::string* error) override {
    int result = snd_pcm_wait(pcm_, kWaitMs);
    if (result == 0) return 0;
    if (result > 0) {
      const snd_pcm_sframes_t taken =
          snd_pcm_readi(pcm_, samples, static_cast<snd_pcm_uframes_t>(count));
      if (taken >= 0) return taken;
      result = static_cast<int>(taken);
    }
    if (result == -EAGAIN) return 0;
    // After an overrun or a suspended device it goes on; sound is lost meanwhile.
    result = snd_pcm_recover(pcm_, result, 1);
    if (result == 0 && snd_pcm_state(pcm_) == SND_PCM_STATE_PREPARED) result = snd_pcm_start(pcm_);
    if (result >= 0) return 0;
    *error = snd_strerror(result);
    return -1;
  }

  bool live() const override { return true; }

 private:
  snd_pcm_t* const pcm_;  // owned
};

}  // namespace

std::unique_ptr<AudioInput> openAlsa(const char* device, std::string* error) {
  snd_lib_error_set_handler(silence);
  snd_pcm_t* pcm = nullptr;
  // Without waiting, also for a device that somebody else has.
  int result = snd_pcm_open(&pcm, device, SND_PCM_STREAM_CAPTURE, SND_PCM_NONBLOCK);
  if (result >= 0) {
    auto input = std::make_unique<AlsaInput>(pcm);
    constexpr int kResample = 1;
    result = snd_pcm_set_params(pcm, SND_PCM_FORMAT_S16, SND_PCM_ACCESS_RW_INTERLEAVED, 1,
                                static_cast<unsigned>(kAudioRate), kResample, kLatencyUs);
    if (result >= 0) result = snd_pcm_start(pcm);
    if (result >= 0) return input;
  }
  *error = snd_strerror(result);
  return nullptr;
}
