// What an AVI file has in it, and what is wrong with it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// One picture, which is one chunk.
struct AviPicture {
  std::uint64_t at = 0;  // of the chunk's head; its data stands 8 bytes further
  std::uint32_t size = 0;
  std::uint32_t part = 0;
  bool key = false;
  bool behind = false;  // behind the end that the sizes tell
};

// One RIFF chunk of the file: "AVI ", then any number of "AVIX".
struct AviPart {
  std::uint64_t at = 0;
  std::uint64_t end = 0;     // as its size tells
  std::uint64_t moviAt = 0;  // of the type word of its list "movi"; 0: it has none
  std::uint64_t moviEnd = 0;
  std::uint64_t pictures = 0;  // within these sizes
};

struct AviReport {
  std::uint64_t fileSize = 0;
  std::string tag;  // of the coding
  int width = 0;
  int height = 0;
  std::uint32_t rate = 0;  // pictures in `scale` seconds
  std::uint32_t scale = 0;
  std::uint32_t counted = 0;     // pictures of the stream, as its head tells
  std::uint64_t indexed = 0;     // pictures in the OpenDML index
  std::uint64_t oldIndexed = 0;  // pictures in "idx1"
  std::vector<AviPart> parts;
  std::vector<AviPicture> pictures;  // whole ones, in the order of the file
  std::vector<std::string> problems;
  bool cut = false;       // it shows that it was not closed, or has lost its end
  bool complete = false;  // its headers are there

  std::uint64_t keyPictures() const;
  std::uint64_t behind() const;
  std::int64_t durationMs() const;
  bool good() const { return problems.empty(); }
  // All of it but the pictures, as a JSON object.
  std::string json() const;
  // The problems, a line each.
  std::string text() const;
};

// Reads an AVI file with one stream of pictures, MPEG-4 or JPEG, and judges all that it tells of
// itself, and each picture's beginning.
// `cut`: the file may be one that was not closed (counts and indexes are behind, data stands behind
// what the sizes tell) or that has lost its end (sizes and indexes tell of what is not there).
AviReport checkAvi(const std::string& file, bool cut);
