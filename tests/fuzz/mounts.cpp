// The kernel's table of mounts, in which whoever mounts something chooses names.
#include "platform/linux/mounts.h"

#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/memory_files.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  memory_files::put("/memory/mountinfo", std::string(reinterpret_cast<const char*>(data), size));
  const int state = mountState("/memory/mountinfo", "/usb");
  require(state == 0 || state == 1, "something is mounted or not");
  memory_files::clear();
  return 0;
}
