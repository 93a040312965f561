// What stands in a recording, for the tests of those who write it: a plain reader that believes
// nothing.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct AviContent {
  std::vector<std::string> pictures;  // that the sizes of the file cover
  std::vector<bool> keys;             // as the index tells, of those in it
  std::size_t indexed = 0;
  std::size_t old = 0;  // in the index behind the first RIFF
  std::size_t riffs = 0;
  std::size_t blocks = 0;
  std::uint32_t counted = 0;  // pictures that the head tells of
  std::uint32_t rate = 0;
  int width = 0, height = 0;
  std::string tag;
  std::string header;       // of the stream
  std::string wrong;        // the first thing that is not sound
  std::size_t covered = 0;  // bytes that belong to RIFFs

  // Sound, and with everything that a closed file has.
  bool closed(std::size_t size) const {
    return wrong.empty() && covered == size && indexed == pictures.size() &&
           counted == pictures.size() && old > 0;
  }
};

// `cut`: the file may have lost its end.
AviContent readAvi(const std::string& file, bool cut = false);
