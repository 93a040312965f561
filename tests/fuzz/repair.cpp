// Repair of any file. The input is a film, or the differences from one that is made here, so that
// they come behind its head, which takes itself apart only when it is whole.
#include <fcntl.h>

#include "platform/bytes.h"
#include "platform/linux/avi_file.h"
#include "platform/linux/avi_repair.h"
#include "platform/linux/fd.h"
#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/memory_files.h"

namespace {

constexpr char kPath[] = "/memory/film.avi";

std::string makeFilm(bool jpeg, bool parts, bool closed) {
  AviLimits limits;
  limits.firstBlock = 3;
  limits.updateUs = 0;
  if (parts) limits.firstRiff = limits.laterRiff = 6000;
  static AviFile* const file = new AviFile;
  file->~AviFile();
  new (file) AviFile(limits);
  memory_files::put(kPath, "");
  const char header[kMpg430HeaderBytes] = {0, 0, 1, 0x20};
  file->open(Fd(os::open(kPath, O_RDWR)), 25000);
  for (unsigned i = 0; i < 12; ++i) {
    const std::string picture = std::string("\0\0\1\xb6", 4) + std::string(20 + 31 * i, 'p');
    file->write(jpeg         ? 'J'
                : i % 4 == 0 ? 'I'
                             : 'P',
                header, picture.data(), static_cast<long>(picture.size()));
  }
  if (closed) file->close(25000);
  file->~AviFile();
  new (file) AviFile;
  return memory_files::content(kPath);
}

const std::string& film(unsigned which) {
  static const std::string films[] = {makeFilm(false, false, true), makeFilm(false, false, false),
                                      makeFilm(false, true, true),  makeFilm(false, true, false),
                                      makeFilm(true, false, true),  makeFilm(true, true, false)};
  return films[which % 6];
}

std::string damaged(Input& input) {
  std::string bytes = film(input.byte());
  while (input.left() > 0) {
    const unsigned how = input.byte() % 8;
    const std::size_t at = input.word() % (bytes.size() + 1);
    const std::string piece = input.bytes(1 + input.below(how < 4 ? 4 : 32));
    if (how < 5)
      bytes.replace(at, std::min(piece.size(), bytes.size() - at), piece);
    else if (how == 5)
      bytes.insert(at, piece);
    else if (how == 6)
      bytes.erase(at, piece.size());
    else
      bytes.resize(at);
  }
  return bytes;
}

// As a player goes through it, chunk by chunk. The pictures are those that were there `before`.
void requireWhole(const std::string& bytes, const std::string& before, std::uint64_t pictures) {
  constexpr std::size_t kHead = 4096;
  std::size_t at = kHead;
  std::uint64_t seen = 0;
  while (at + 8 <= bytes.size()) {
    if (bytes.compare(at, 4, "RIFF") == 0) {
      at += 24;  // and the head of the list in it
      continue;
    }
    const std::size_t length = loadLe32(bytes.data() + at + 4);
    if (bytes.compare(at, 4, "00dc") == 0) {
      require(at + 8 + length <= before.size() &&
                  bytes.compare(at + 8, length, before, at + 8, length) == 0,
              "a picture was whole before");
      ++seen;
    }
    at += 8 + length + length % 2;
  }
  require(at == bytes.size(), "chunks make up the file");
  require(seen == pictures, "every picture is a chunk");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const unsigned how = input.byte();
  const std::string before = how % 8 == 0 ? input.rest() : damaged(input);
  memory_files::put(kPath, before);
  const bool full = how >= 0xf0;
  if (full) memory_files::limit(static_cast<std::int64_t>(before.size()));
  const AviRepair first = repairAvi(kPath);
  const std::string after = memory_files::content(kPath);
  require(first.result >= 0 || *first.reason != '\0', "a refusal tells why");
  if (first.result == 0 || (first.result < 0 && first.error == 0))
    require(before == after, "what is sound or refused is left alone");
  if (first.result >= 0 && !after.empty()) requireWhole(after, before, first.pictures);
  if (first.result == 1) {
    const AviRepair second = repairAvi(kPath);
    // Without room for the other index the file goes without, and is not as it ought to be.
    require(second.result == 0 || (full && second.result == 1), "what is repaired is sound");
    require(second.pictures == first.pictures, "every whole picture stays");
    require(memory_files::content(kPath) == after, "repaired twice is as repaired once");
  }
  memory_files::clear();
  return 0;
}
