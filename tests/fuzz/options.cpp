// The daemon's command line, with a configuration database that gives any numbers.
#include "capture/video_args.h"

#include <vector>

#include "tests/fakes/fake_platform.h"
#include "tests/fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static FakePlatform& fake = *new FakePlatform;
  fake.keepCalls(false);
  Input input(data, size);
  for (const char* key : {"frame_rate", "resolution", "video_source", "ip_ratio", "flip"})
    fake.config(key, input.text('\n'));
  std::vector<std::string> words;
  while (input.left() > 0) words.push_back(input.text('\0'));
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  const TVideoArgs args(static_cast<int>(words.size()), arguments.data());
  bool known = std::strcmp(args.source, "test.jpg") == 0 ||
               std::strcmp(args.source, kModelKTX310) == 0 ||
               std::strcmp(args.source, kModelBRM520) == 0;
  for (const std::string& word : words)
    known = known || (args.source >= word.data() && args.source <= word.data() + word.size());
  require(known, "the source is a model's or stands in the command line");
  require(args.videoEnabled || args.audioEnabled, "something is delivered");
  return 0;
}
