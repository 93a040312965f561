// Pictures for recordings in tests, and how they come into a file.
#pragma once

#include <random>
#include <string>
#include <vector>

#include "capture/chunk_trailer.h"
#include "tests/platform/stream_header.h"

struct FilmPicture {
  char type = kTypeKey;
  std::vector<std::string> pieces;

  std::string whole() const {
    std::string all;
    for (const std::string& piece : pieces) all += piece;
    return all;
  }
};

// MPEG-4 pictures of any length from 5 bytes to 200 KiB, most of them short, some in pieces.
inline std::vector<FilmPicture> makeFilm(unsigned seed, int count, std::size_t longest = 200000) {
  std::mt19937 random(seed);
  std::vector<FilmPicture> film;
  for (int i = 0; i < count; ++i) {
    FilmPicture picture;
    const bool key = i % 7 == 0;
    picture.type = key ? kTypeKey : kTypePredicted;
    const std::size_t most = random() % 4 == 0 ? longest : longest / 50 + 8;
    std::string data(5 + random() % most, static_cast<char>('a' + i % 26));
    data.replace(0, 4, "\0\0\1\xb6", 4);
    data[4] = key ? '\x10' : '\x50';
    while (random() % 3 == 0 && data.size() > 10) {
      const std::size_t cut = 5 + random() % (data.size() - 5);
      picture.pieces.insert(picture.pieces.begin(), data.substr(cut));
      data.resize(cut);
    }
    picture.pieces.insert(picture.pieces.begin(), data);
    film.push_back(picture);
  }
  return film;
}

// Writes a picture. `write`: called with type and piece, returns false on failure.
template <typename Write>
bool putPicture(const FilmPicture& picture, Write write) {
  char type = picture.type;
  for (const std::string& piece : picture.pieces) {
    if (!write(type, piece)) return false;
    type = picture.type == kTypeKey ? kTypeKeyMore : kTypePredictedMore;
  }
  return true;
}

// What the file has of the picture.
inline std::string stored(const FilmPicture& picture, bool first, const std::string& header) {
  return (first ? header : "") + picture.whole();
}
