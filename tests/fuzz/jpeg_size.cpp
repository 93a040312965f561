// The size in a JPEG picture.
#include "platform/linux/jpeg_size.h"

#include <memory>

#include "tests/fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::unique_ptr<char[]> copy(new char[size]);
  if (size > 0) std::memcpy(copy.get(), data, size);
  PictureSize seen{-1, -1};
  const bool known = readJpegSize(copy.get(), static_cast<long>(size), &seen);
  require(known ? seen.width > 0 && seen.height > 0 && seen.width < 65536 && seen.height < 65536
                : seen.width == -1 && seen.height == -1,
          "a size is possible, or left alone");
  return 0;
}
