#include "platform/linux/avi_head.h"

namespace {

constexpr std::uint32_t kTableHead = kChunkHead + 24;  // "indx" without its entries
constexpr std::uint32_t kTableEntry = 16;
constexpr std::uint32_t kTable = kTableHead + kAviBlocks * kTableEntry;
constexpr std::uint32_t kExtension = kListHead + kChunkHead + 4;  // "odml" with "dmlh"

constexpr std::uint32_t kFileHeaderAt = 2 * kListHead;
constexpr std::uint32_t kStreamAt = kFileHeaderAt + kChunkHead + kAviFileHeader;
constexpr std::uint32_t kStreamHeadAt = kStreamAt + kListHead;
constexpr std::uint32_t kFormatAt = kStreamHeadAt + kChunkHead + kAviStreamHead;

static_assert(kStreamAt + kListHead + 2 * kChunkHead + kAviStreamHead + kAviBitmapInfo +
                      kMpg430HeaderBytes + kTable + kExtension + kChunkHead <=
                  kAviMovi,
              "the head fits its page");

std::uint32_t tableAt(const AviStream& stream) {
  return kFormatAt + kChunkHead + stream.formatBytes();
}

}  // namespace

std::uint32_t AviHead::entryAt(std::uint32_t number) const {
  return tableAt(stream) + kTableHead + number * kTableEntry;
}

void AviHead::encode(char (&page)[kAviHeadBytes]) const {
  const std::uint32_t streamBytes = stream.listBytes() + kTable;
  const std::uint32_t end = kStreamAt + streamBytes + kExtension;
  AviOutput out(page);
  out.list("RIFF", riffBytes, "AVI ").list("LIST", end - kListHead, "hdrl");
  writeFileHeader(out, stream, totals);
  out.list("LIST", streamBytes, "strl");
  writeStreamHeader(out, stream, totals);
  out.chunk("indx", kTable - kChunkHead).halves(4, 0).word(blocks).tag(kAviPicture).zeros(3);
  for (const AviBlock& one : block) out.wide(one.at).word(one.bytes).word(one.frames);
  out.list("LIST", kExtension, "odml").chunk("dmlh", 4).word(totals.frames);
  const std::uint32_t rest = kAviMovi - end - kChunkHead;
  out.chunk("JUNK", rest).zeros(static_cast<int>(rest / 4)).list("LIST", moviBytes, "movi");
}

// Takes the numbers from where they stand and tells by encoding them again whether all the rest is
// as it is made here.
bool AviHead::decode(const char (&page)[kAviHeadBytes]) {
  const auto word = [&page](std::uint32_t at) { return loadLe32(page + at); };
  *this = {};
  stream.tag = std::memcmp(page + kStreamHeadAt + 12, kAviJpeg, 4) == 0 ? kAviJpeg : kAviMpeg4;
  stream.size.width = loadLe16(page + kStreamHeadAt + kChunkHead + 52);
  stream.size.height = loadLe16(page + kStreamHeadAt + kChunkHead + 54);
  stream.hasHeader = word(kFormatAt + 4) != kAviBitmapInfo;
  if (stream.hasHeader)
    std::memcpy(stream.header, page + kFormatAt + kChunkHead + kAviBitmapInfo,
                sizeof stream.header);
  totals.bytesPerSecond = word(kFileHeaderAt + kChunkHead + 4);
  totals.flags = word(kFileHeaderAt + kChunkHead + 12);
  totals.firstFrames = word(kFileHeaderAt + kChunkHead + 16);
  totals.longest = word(kFileHeaderAt + kChunkHead + 28);
  totals.scale = word(kStreamHeadAt + kChunkHead + 20);
  totals.rate = word(kStreamHeadAt + kChunkHead + 24);
  totals.frames = word(kStreamHeadAt + kChunkHead + 32);
  riffBytes = word(4) + kChunkHead;
  moviBytes = word(kAviMovi + 4) + kChunkHead;
  blocks = word(tableAt(stream) + kChunkHead + 4);
  for (std::uint32_t i = 0; i < kAviBlocks; ++i) {
    const std::uint32_t at = entryAt(i);
    block[i].at = word(at) | std::uint64_t{word(at + 4)} << 32;
    block[i].bytes = word(at + 8);
    block[i].frames = word(at + 12);
  }
  char again[kAviHeadBytes];
  encode(again);
  // What stands twice may differ where a power cut has left a part of an update.
  const std::uint32_t total = tableAt(stream) + kTable + kListHead + kChunkHead;
  for (const std::uint32_t at :
       {kFileHeaderAt + kChunkHead, kStreamHeadAt + kChunkHead + 36, total})
    std::memcpy(again + at, page + at, 4);
  return blocks <= kAviBlocks && std::memcmp(page, again, sizeof again) == 0;
}

void writeBlockHead(AviOutput& out, std::uint32_t bytes, std::uint64_t at, std::uint32_t entries) {
  // Entries of two words; an index of pictures.
  out.chunk(kAviIndex, bytes - kChunkHead).halves(2, 0x100).word(entries).tag(kAviPicture);
  out.wide(at).word(0);
}

void writeNextHead(AviOutput& out, std::uint32_t bytes) {
  out.list("RIFF", bytes, "AVIX").list("LIST", bytes - kListHead, "movi");
}
