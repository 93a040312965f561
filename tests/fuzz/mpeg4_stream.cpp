// The stream that camctl makes of the camera's frames.
#include "tools/camctl/mpeg4_stream.h"

#include "platform/media.h"
#include "tests/fuzz/fuzz.h"

namespace {

constexpr char kTypes[] = "IiPpJx";

// One of three headers, or any text.
std::string headerText(Input& input) {
  const unsigned which = input.byte();
  if (which >= 0xf0) return input.text('\n');
  std::string header("\0\0\1", 3);
  header.resize(20, static_cast<char>(which % 3));
  char text[48];
  bin2hex(header.data(), 20, text, sizeof text);
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  Mpeg4Stream stream;
  std::vector<Mpeg4Picture> pictures;
  std::uint32_t number = 0;
  std::size_t given = 0;
  bool begun = false;
  while (input.left() > 0) {
    const unsigned step = input.byte();
    number += step < 0xc0 ? 1 : step == 0xff ? input.take<std::uint32_t>() : step - 0xc0;
    const std::string text = headerText(input);
    std::vector<std::string> payloads(step % 4);
    std::vector<Chunk> chunks;
    for (std::string& payload : payloads) {
      const char type = kTypes[input.below(sizeof kTypes - 1)];
      payload = input.bytes(1 + input.below(8));
      given += payload.size();
      chunks.push_back({type, payload.data(), payload.size()});
    }
    pictures.clear();
    stream.take(number, text, chunks, &pictures);
    for (const Mpeg4Picture& picture : pictures) {
      require(begun || picture.key, "a stream begins with a key picture");
      require(begun || picture.header.size() == 20, "a stream begins with its header");
      require(picture.header.empty() || picture.key, "a header stands ahead of a key picture");
      require(picture.data.size() <= given, "nothing is made up");
      begun = true;
    }
  }
  return 0;
}
