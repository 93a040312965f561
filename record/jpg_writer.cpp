// Hands JPEG pictures to recorders.
#include "record/jpg_writer.h"

namespace {
constexpr long kTimeoutMs = 500;
}

TJpgWriter::TJpgWriter() : TWriter(kTimeoutMs) {}

long TJpgWriter::write(const char* data, long length, const TDateTime& time, char type) {
  if (!getRef() || !timeout(time)) return 0;
  return TWriter::write(data, length, time, type);
}

TJpgWriter* jpgWriter() {
  static TJpgWriter writer;
  return &writer;
}
