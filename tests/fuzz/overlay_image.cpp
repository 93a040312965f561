// Overlay images as they lie in flash.
#include "platform/overlay.h"

#include <memory>

#include "platform/bytes.h"
#include "platform/linux/root.h"
#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/memory_files.h"

extern "C" int LLVMFuzzerInitialize(int* /*count*/, char*** /*arguments*/) {
  setPlatformRoot("/memory");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const long capacity = static_cast<long>(input.word()) % (kOverlayImageMax + 1);
  memory_files::put("/memory/dev/mtd5", input.rest());
  const std::unique_ptr<char[]> buffer(new char[static_cast<std::size_t>(capacity)]);
  long length = capacity;
  if (read_overlay_image(buffer.get(), &length, "/dev/mtd5") == 0) {
    require(length >= 8 && length <= capacity, "an image fits its place");
    const auto* const head = reinterpret_cast<const TOverlayImage*>(buffer.get());
    require(length == 8 + 2L * loadLe16(head->width) * loadLe16(head->height), "an image is whole");
  } else {
    require(length == 0, "no image has no length");
  }
  memory_files::clear();
  return 0;
}
