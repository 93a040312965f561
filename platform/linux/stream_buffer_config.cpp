// Lets the stream buffer read its sizes from the camera's configuration, in programs that can.
#include "platform/ini_file.h"
#include "platform/linux/stream_buffer_owner.h"

namespace {
[[maybe_unused]] const bool connected = [] {
  sb::readIni = getIniInt;
  return true;
}();
}  // namespace
