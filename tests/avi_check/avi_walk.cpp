// The reader's way through the chunks of a file.
#include "platform/bytes.h"
#include "tests/avi_check/avi_reader.h"

namespace {
constexpr std::size_t kMostProblems = 40;
// A stream of a hundred pictures a second for two days. More is no recording but an attack.
constexpr std::size_t kMostPictures = 1 << 24;
constexpr std::size_t kMostBlocks = 1 << 20;
}  // namespace

void AviReader::problem(std::uint64_t at, const std::string& text) {
  if (report_.problems.size() < kMostProblems)
    report_.problems.push_back("at " + std::to_string(at) + ": " + text);
}

void AviReader::onlyCut(std::uint64_t at, const std::string& text) {
  report_.cut = true;
  if (!mayBeCut_) problem(at, text);
}

bool AviReader::chunkIn(std::uint64_t at, std::uint64_t end, Chunk* chunk) {
  if (at == end) return false;
  if (at + 8 > end) {
    problem(at, "no room for a chunk in its list");
    return false;
  }
  std::array<char, 8> head{};
  if (!bytes_.read(at, head.data(), head.size())) {
    onlyCut(at, "the file ends in the head of a chunk");
    truncated_ = true;
    return false;
  }
  for (std::size_t i = 0; i < 4; ++i) chunk->tag[i] = head[i];
  chunk->size = loadLe32(&head[4]);
  chunk->at = at;
  for (const char c : chunk->tag) {
    if (c >= ' ' && c <= '~') continue;
    problem(at, "no chunk");
    return false;
  }
  if (chunk->end() > end) {
    problem(at, "a chunk reaches out of its list");
    return false;
  }
  if (!isWhole(*chunk)) {
    onlyCut(at, "the file ends in a chunk");
    truncated_ = true;
  }
  return true;
}

std::string AviReader::listType(const Chunk& list) {
  if (list.size < 4) {
    problem(list.at, "a list without a type");
    return "";
  }
  return tagAt(list.data());
}

void AviReader::judgePadding(const Chunk& chunk) {
  char pad = 0;
  if (chunk.size % 2 == 0 || !isWhole(chunk)) return;
  if (!bytes_.read(chunk.end(), &pad, 1)) {
    onlyCut(chunk.at, "the file ends ahead of a chunk's padding");
  } else if (pad != 0) {
    problem(chunk.end(), "padding that is not zero");
  }
}

void AviReader::walkFile() {
  std::uint64_t at = 0;
  while (at < bytes_.size()) {
    std::array<char, 12> head{};
    if (!bytes_.read(at, head.data(), head.size())) {
      onlyCut(at, "the file ends in the head of a part");
      return;
    }
    Chunk riff;
    for (std::size_t i = 0; i < 4; ++i) riff.tag[i] = head[i];
    riff.size = loadLe32(&head[4]);
    riff.at = at;
    const std::string type(&head[8], 4);
    if (!riff.is("RIFF") || type != (at == 0 ? "AVI " : "AVIX")) {
      if (at == 0) {
        problem(at, "no AVI file");
      } else {
        onlyCut(at, "what stands behind the last part is no part");
        walkBehind(at);
      }
      return;
    }
    if (riff.size < 4) {
      problem(at, "a part that is shorter than its head");
      return;
    }
    if (riff.size % 2 != 0) problem(at, "a part of odd size");
    if (!isWhole(riff)) {
      onlyCut(at, "the file ends in a part");
      truncated_ = true;
    }
    walkPart(riff);
    at = riff.next();
  }
  if (report_.parts.empty()) onlyCut(0, "an empty file");
}

void AviReader::walkPart(const Chunk& riff) {
  report_.parts.push_back({riff.at, riff.end(), 0, 0, 0});
  const bool isFirst = report_.parts.size() == 1;
  Chunk chunk;
  for (std::uint64_t at = riff.data() + 4; chunkIn(at, riff.end(), &chunk); at = chunk.next()) {
    AviPart& part = report_.parts.back();
    judgePadding(chunk);
    const std::string list = chunk.is("LIST") ? listType(chunk) : "";
    if (list == "hdrl" && isFirst && at == riff.data() + 4) {
      walkHeaders(chunk);
    } else if (list == "movi" && part.moviAt == 0) {
      if (isFirst && !hasMain_) problem(at, "pictures ahead of the headers");
      part.moviAt = chunk.data();
      part.moviEnd = chunk.end();
      walkMovi(chunk);
    } else if (chunk.is("idx1") && isFirst && part.moviAt != 0 && oldIndex_.at == 0) {
      oldIndex_ = chunk;
    } else if (chunk.is("00dc") && part.moviAt != 0) {
      onlyCut(at, "a picture behind the list of pictures");
      walkBehind(at);
      return;
    } else if (!chunk.is("JUNK") && list != "INFO" && !truncated_) {
      problem(at, "a chunk that does not belong into a part");
    }
  }
  if (report_.parts.back().moviAt == 0) onlyCut(riff.at, "a part without pictures");
}

void AviReader::walkHeaders(const Chunk& list) {
  Chunk chunk;
  for (std::uint64_t at = list.data() + 4; chunkIn(at, list.end(), &chunk); at = chunk.next()) {
    judgePadding(chunk);
    const std::string type = chunk.is("LIST") ? listType(chunk) : "";
    if (!isWhole(chunk) && !chunk.is("LIST")) return;
    if (chunk.is("avih") && at == list.data() + 4) {
      readMainHeader(chunk);
    } else if (type == "strl" && hasMain_ && !hasStream_) {
      walkStream(chunk);
    } else if (type == "odml") {
      Chunk inner;
      if (!chunkIn(chunk.data() + 4, chunk.end(), &inner) || !isWhole(inner)) return;
      if (!inner.is("dmlh") || inner.size < 4) problem(inner.at, "no OpenDML header");
      hasTotal_ = true;
      total_ = word(inner.data());
    } else if (!chunk.is("JUNK")) {
      problem(at, "a chunk that does not belong into the headers");
    }
  }
}

void AviReader::walkStream(const Chunk& list) {
  Chunk chunk;
  for (std::uint64_t at = list.data() + 4; chunkIn(at, list.end(), &chunk); at = chunk.next()) {
    judgePadding(chunk);
    if (!isWhole(chunk)) return;
    if (chunk.is("strh") && at == list.data() + 4) {
      readStreamHead(chunk);
    } else if (chunk.is("strf") && hasStream_ && !hasFormat_) {
      readFormat(chunk);
    } else if (chunk.is("indx") && hasFormat_ && !hasIndex_) {
      readSuperIndex(chunk);
    } else if (!chunk.is("JUNK") && !chunk.is("vprp") && !chunk.is("strn")) {
      problem(at, "a chunk that does not belong into a stream's headers");
    }
  }
}

void AviReader::walkMovi(const Chunk& list) {
  Chunk chunk;
  for (std::uint64_t at = list.data() + 4; chunkIn(at, list.end(), &chunk); at = chunk.next()) {
    if (chunk.next() > list.end()) problem(at, "padding out of its list");
    judgePadding(chunk);
    if (chunk.is("00dc")) {
      takePicture(chunk, false);
    } else if (chunk.is("ix00")) {
      readIndexBlock(chunk);
    } else if (!chunk.is("JUNK")) {
      problem(at, "a chunk that does not belong among the pictures");
    }
    if (report_.pictures.size() >= kMostPictures || blocks_.size() >= kMostBlocks) {
      problem(at, "too many chunks");
      return;
    }
  }
}

// Chunks that no size covers yet. The last one may be there in part.
void AviReader::walkBehind(std::uint64_t at) {
  while (bytes_.size() - at >= 8) {
    std::array<char, 8> head{};
    if (!bytes_.read(at, head.data(), head.size())) return;
    Chunk chunk;
    for (std::size_t i = 0; i < 4; ++i) chunk.tag[i] = head[i];
    chunk.size = loadLe32(&head[4]);
    chunk.at = at;
    if (chunk.is("RIFF") || chunk.is("LIST")) {
      if (at + 12 > bytes_.size()) return;
      const std::string type = tagAt(chunk.data());
      if (type != (chunk.is("RIFF") ? "AVIX" : "movi"))
        problem(at, "a strange list behind the end");
      at += 12;
      continue;
    }
    if (!chunk.is("00dc") && !chunk.is("ix00") && !chunk.is("JUNK") && !chunk.is("idx1")) {
      problem(at, "what is behind the end is no chunk");
      return;
    }
    if (chunk.is("00dc") && chunk.size == 0) return;  // its size is not known before its end
    if (chunk.is("00dc")) takePicture(chunk, true);
    if (chunk.is("ix00") && isWhole(chunk)) readIndexBlock(chunk);
    if (chunk.next() > bytes_.size() || report_.pictures.size() >= kMostPictures) return;
    at = chunk.next();
  }
}

void AviReader::takePicture(const Chunk& chunk, bool behind) {
  if (chunk.size == 0) problem(chunk.at, "an empty picture");
  if (!isWhole(chunk)) {
    ++tornPictures_;
    return;
  }
  AviPicture picture;
  picture.at = chunk.at;
  picture.size = chunk.size;
  picture.part = static_cast<std::uint32_t>(report_.parts.size() - 1);
  picture.behind = behind;
  report_.pictures.push_back(picture);
  if (!behind) ++report_.parts.back().pictures;
}
