// Recordings of any pictures in any order, on storage that may get full; closed, or left as they
// are.
#include <fcntl.h>

#include <memory>

#include "platform/linux/avi_file.h"
#include "platform/linux/avi_repair.h"
#include "platform/linux/fd.h"
#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/memory_files.h"

namespace {

constexpr char kPath[] = "/memory/film.avi";

// Limits small enough to be reached.
AviLimits takeLimits(Input& input, bool* full) {
  AviLimits limits;
  const unsigned how = input.byte();
  if ((how & 1) != 0) limits.firstRiff = 6000 + input.word();
  if ((how & 2) != 0) limits.laterRiff = 6000 + input.word();
  if ((how & 4) != 0) limits.firstBlock = 1 + input.below(16);
  if ((how & 8) != 0) limits.updateUs = 0;
  *full = (how & 16) != 0;
  if (*full) memory_files::limit(input.take<std::uint32_t>() % 300000);
  return limits;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  // Large and not initialised, as the daemon has it: one for all runs.
  static AviFile* const file = new AviFile;
  bool full = false;  // then a file may go without its other index, which repair tries to add
  const AviLimits limits = takeLimits(input, &full);
  file->~AviFile();
  new (file) AviFile(limits);
  memory_files::put(kPath, "");
  char header[kMpg430HeaderBytes] = {};
  if ((input.byte() & 1) != 0) input.bytes(sizeof header).copy(header, sizeof header);
  file->open(Fd(os::open(kPath, O_RDWR)), input.take<std::int32_t>());
  bool failed = false;
  static const std::string payload(70000, '\xb6');
  while (input.left() > 0) {
    const unsigned how = input.byte();
    const char type = "IPJipIPp"[how % 8];
    const std::string bytes = input.bytes(how >> 6);
    // Lengths around those where the writer changes its way, and any.
    static const unsigned kLengths[] = {1, 2, 100, 4095, 8191, 8192, 8193, 65535};
    const unsigned length = how % 64 < 48 ? kLengths[how / 8 % 8] : input.word();
    std::string picture = bytes;
    picture += payload.substr(0, length);
    const std::int64_t before = file->size();
    if (!file->write(type, header, picture.data(), static_cast<long>(picture.size()))) {
      require(errno != 0, "a failure tells why");
      failed = failed || errno == ENOSPC;
    } else {
      require(file->size() > before, "what was written counts");
    }
  }
  const std::uint32_t pictures = file->pictures();
  const bool closed = (size > 0 && data[size - 1] % 2 == 0);
  if (closed) {
    failed = !file->close(25000) || failed;
    const std::string made = memory_files::content(kPath);
    require(static_cast<std::int64_t>(made.size()) == file->size(), "the size is that of the file");
    if (!made.empty()) {
      const AviRepair state = repairAvi(kPath);
      require(failed || full ? state.result >= 0 : state.result == 0, "a closed file is sound");
      if (!failed) require(state.pictures >= pictures, "every picture is there");
      require(failed || full || memory_files::content(kPath) == made, "a sound file is left alone");
    }
  } else {
    file->~AviFile();  // killed
    new (file) AviFile;
    memory_files::limit(1 << 24);
    const AviRepair state = repairAvi(kPath);
    require(state.result < 0 || repairAvi(kPath).result == 0, "what is repaired is sound");
  }
  memory_files::clear();
  return 0;
}
