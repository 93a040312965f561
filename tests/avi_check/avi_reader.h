// A strict reader of AVI files (RIFF, with the OpenDML extensions).
#pragma once

#include <array>
#include <map>
#include <string>
#include <vector>

#include "tests/avi_check/avi_report.h"
#include "tests/avi_check/file_bytes.h"
#include "tests/avi_check/picture_head.h"

// Walks through a file once and judges what it found. Whatever bytes there are, it reads nothing
// outside the file, and needs memory for its pictures only. Bound to one thread.
class AviReader {
 public:
  AviReader(const std::string& file, bool cut) : bytes_(file), mayBeCut_(cut) {}
  AviReport read();

 private:
  using Tag = std::array<char, 4>;
  struct Chunk {
    Tag tag{};
    std::uint32_t size = 0;
    std::uint64_t at = 0;
    std::uint64_t data() const { return at + 8; }
    std::uint64_t end() const { return data() + size; }
    std::uint64_t next() const { return end() + size % 2; }
    bool is(const char* name) const { return std::string(tag.begin(), tag.end()) == name; }
  };
  struct MainHeader {  // "avih"
    std::uint32_t microseconds = 0, flags = 0, frames = 0, streams = 0, largest = 0;
    std::uint32_t width = 0, height = 0;
  };
  struct StreamHead {  // "strh"
    std::string handler;
    std::uint32_t scale = 0, rate = 0, start = 0, length = 0, largest = 0, sampleSize = 0;
    int left = 0, top = 0, right = 0, bottom = 0;
  };
  struct Format {  // "strf"
    std::int32_t width = 0, height = 0;
    std::uint32_t planes = 0, bits = 0;
    std::string compression;
    std::vector<unsigned char> streamHeader;  // what stands behind it
  };
  struct IndexBlock {  // "ix00"
    std::uint32_t size = 0, inUse = 0;
    std::uint64_t base = 0;
    bool referred = false;
  };
  struct SuperEntry {  // of "indx"
    std::uint64_t at = 0;
    std::uint32_t size = 0, duration = 0;
  };

  // The walk: avi_walk.cpp.
  void problem(std::uint64_t at, const std::string& text);
  // Of something that only a cut file may show.
  void onlyCut(std::uint64_t at, const std::string& text);
  // Reads the chunk at `at` in a list that ends at `end`. Returns false at the end of the file, and
  // when it does not fit into the list.
  bool chunkIn(std::uint64_t at, std::uint64_t end, Chunk* chunk);
  // Returns the type word of a list; "" when the file ends before.
  std::string listType(const Chunk& list);
  void judgePadding(const Chunk& chunk);
  bool isWhole(const Chunk& chunk) const { return chunk.end() <= bytes_.size(); }
  void walkFile();
  void walkPart(const Chunk& riff);
  void walkHeaders(const Chunk& list);
  void walkStream(const Chunk& list);
  void walkMovi(const Chunk& list);
  void walkBehind(std::uint64_t at);
  void takePicture(const Chunk& chunk, bool behind);

  // Chunks that are read as a whole: avi_headers.cpp.
  std::uint32_t word(std::uint64_t at);
  std::uint32_t half(std::uint64_t at);
  std::string tagAt(std::uint64_t at);
  void readMainHeader(const Chunk& chunk);
  void readStreamHead(const Chunk& chunk);
  void readFormat(const Chunk& chunk);
  void readSuperIndex(const Chunk& chunk);
  void readIndexBlock(const Chunk& chunk);
  void judgeHeaders();
  void judgeSizes();
  void judgeCounts();
  void judgePictures();
  void judgePicture(std::size_t number);

  // avi_indexes.cpp
  void judgeIndex();
  void judgeBlock(const SuperEntry& entry, std::uint64_t* next);
  void judgeOldIndex();
  bool tellsPicture(std::uint64_t at, std::uint32_t size, bool key, std::uint64_t number,
                    std::uint64_t entryAt);

  FileBytes bytes_;
  const bool mayBeCut_;
  bool truncated_ = false;  // sizes reach past the end of the file
  AviReport report_;
  MainHeader main_;
  StreamHead stream_;
  Format format_;
  bool hasMain_ = false, hasStream_ = false, hasFormat_ = false, hasIndex_ = false;
  bool hasTotal_ = false;
  std::uint32_t total_ = 0;  // pictures in all parts, of "dmlh"
  std::vector<SuperEntry> superIndex_;
  std::map<std::uint64_t, IndexBlock> blocks_;
  Chunk oldIndex_;                // at 0: there is none
  std::size_t tornPictures_ = 0;  // the file ends inside
};
