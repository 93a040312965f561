// WAV files as a source of sound.
#include <memory>

#include "platform/linux/audio_input.h"
#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/memory_files.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  memory_files::put("/memory/sound.wav", std::string(reinterpret_cast<const char*>(data), size));
  std::string error;
  if (const auto sound = openWav("/memory/sound.wav", &error)) {
    const std::unique_ptr<std::int16_t[]> samples(new std::int16_t[7]);
    for (int i = 0; i < 4; ++i) {
      const long count = sound->read(samples.get(), 7, &error);
      require(count == 7 || (count == -1 && !error.empty()), "a file gives all samples, or none");
      if (count < 0) break;
    }
  } else {
    require(!error.empty(), "what can't be used says why");
  }
  memory_files::clear();
  return 0;
}
