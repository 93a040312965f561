// Headers of MPEG-4 streams, and the films of one picture that are made with them.
#include "platform/linux/vol_header.h"

#include <memory>

#include "platform/bytes.h"
#include "platform/media.h"
#include "tests/fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const long spare = static_cast<long>(input.below(400));
  const std::string picture = input.rest();
  const auto length = static_cast<long>(picture.size());
  // Copies of just that length, so that the sanitizer sees a byte too far.
  const std::unique_ptr<char[]> copy(new char[picture.size()]);
  picture.copy(copy.get(), picture.size());
  PictureSize seen{-1, -1};
  const bool known = readPictureSize(copy.get(), length, &seen);
  require(
      !known || (seen.width >= 1 && seen.width <= 2048 && seen.height >= 1 && seen.height <= 2048),
      "a picture's sides are possible");
  const long capacity = length + spare;
  const std::unique_ptr<char[]> film(new char[static_cast<std::size_t>(capacity)]);
  const long made = i2avi(copy.get(), length, film.get(), capacity);
  require(made <= capacity && made != 0, "a film fits its place");
  require(made < 0 || known, "a film has a size");
  if (made > 0)
    require(loadLe32(film.get() + 4) == static_cast<std::uint32_t>(made) - 8,
            "a film tells its length");

  // The texts that carry headers.
  char digits[48];
  bin2hex(copy.get(), length, digits, sizeof digits);
  char back[20];
  const long bytes = hex2bin(digits, back, sizeof back);
  require(bytes == std::min(length, 20L) &&
              std::memcmp(back, copy.get(), static_cast<std::size_t>(bytes)) == 0,
          "digits tell the bytes");
  hex2bin(picture.c_str(), back, sizeof back);
  return 0;
}
