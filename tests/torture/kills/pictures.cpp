#include "tests/torture/kills/pictures.h"

#include <algorithm>
#include <cstring>

#include "tests/torture/kills/processes.h"

namespace {

constexpr int kPictures = 4;
constexpr std::size_t kTextBytes = 40000;  // longest segment of text: 65533
constexpr std::size_t kStartBytes = 2;     // of each picture's start mark

// A picture with `texts` segments of text behind its start mark.
std::string withTexts(const std::string& picture, int texts) {
  std::string segment = "\xff\xfe";
  segment += static_cast<char>((kTextBytes + 2) >> 8);
  segment += static_cast<char>((kTextBytes + 2) & 0xff);
  segment.append(kTextBytes, static_cast<char>('a' + texts));
  std::string all = picture.substr(0, kStartBytes);
  for (int i = 0; i < texts; ++i) all += segment;
  return all + picture.substr(kStartBytes);
}

}  // namespace

std::string Pictures::name(int picture) {
  return "/home/picture" + std::to_string(picture) + ".jpg";
}

Pictures::Pictures() {
  const std::string picture = contentOf("/home/test.jpg");
  for (int i = 0; i < kPictures; ++i) {
    all_.push_back(withTexts(picture, i));
    writeContent(name(i), all_.back());
  }
}

Pictures Pictures::there() {
  std::vector<std::string> all;
  for (int i = 0; i < kPictures; ++i) all.push_back(contentOf(name(i)));
  return Pictures(all);
}

bool Pictures::whole(const void* data, std::size_t size) const {
  return std::any_of(all_.begin(), all_.end(), [data, size](const std::string& one) {
    return one.size() == size && std::memcmp(one.data(), data, size) == 0;
  });
}

bool Pictures::beginWhole(const std::string& data) const {
  return std::any_of(all_.begin(), all_.end(), [&data](const std::string& one) {
    return data.compare(0, one.size(), one) == 0;
  });
}

std::size_t Pictures::common(const std::string& data) const {
  std::size_t most = 0;
  for (const std::string& one : all_) {
    const std::size_t both = std::min(one.size(), data.size());
    const auto end =
        std::mismatch(one.begin(), one.begin() + static_cast<long>(both), data.begin());
    most = std::max(most, static_cast<std::size_t>(end.first - one.begin()));
  }
  return most;
}
