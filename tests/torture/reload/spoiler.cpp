#include "tests/torture/reload/spoiler.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <utility>

namespace {

namespace fs = std::filesystem;

constexpr int kMostBytes = 8;      // that are changed
constexpr int kSections = 200;     // more than anybody sets up
constexpr off_t kLarge = 2 << 20;  // larger than anybody writes
constexpr int kNoise = 4096;

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// In the place of what the file has now.
void write(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

void clear(const std::string& path) {
  std::error_code ignored;
  fs::remove_all(path, ignored);
}

void clearUnlessFile(const std::string& path) {
  std::error_code ignored;
  const fs::file_type type = fs::symlink_status(path, ignored).type();
  if (type != fs::file_type::regular && type != fs::file_type::not_found) clear(path);
}

std::string manySections() {
  std::string text;
  for (int i = 5; i <= kSections; ++i)
    text += "[" + std::to_string(i) + "]\nErased = 0\nSource = 6\nSchedule = always\n";
  return text;
}

}  // namespace

Spoiler::Spoiler(std::vector<std::string> files, std::string good, Moments* moments)
    : files_(std::move(files)), good_(std::move(good)), moments_(moments) {}

// Some bytes are others, and half of the time the end is missing, from any byte on.
std::string Spoiler::garbled(std::string content) {
  for (int i = moments_->whole(kMostBytes); i > 0 && !content.empty(); --i) {
    const int at = moments_->whole(static_cast<int>(content.size()) - 1);
    content[static_cast<std::size_t>(at)] = static_cast<char>(moments_->whole(255));
  }
  if (moments_->chance(50))
    content.resize(static_cast<std::size_t>(moments_->whole(static_cast<int>(content.size()))));
  return content;
}

void Spoiler::spoilOne() {
  const std::string& file =
      files_[static_cast<std::size_t>(moments_->whole(static_cast<int>(files_.size()) - 1))];
  const std::string name = fs::path(file).filename().string();
  const std::string good = contentOf(good_ + "/" + name);
  std::error_code ignored;
  const int kind = moments_->whole(13);
  if (kind < 6 || kind == 9 || kind == 13)
    clearUnlessFile(file);
  else
    clear(file);
  if (kind < 3) {
    write(file, garbled(good));
  } else if (kind < 6) {
    write(file + ".new", garbled(good));
    fs::rename(file + ".new", file, ignored);
  } else if (kind == 7) {
    fs::create_directory(file, ignored);
  } else if (kind == 8) {
    mkfifo(file.c_str(), 0666);
  } else if (kind == 9) {
    write(file, good);
    chmod(file.c_str(), 0);
  } else if (kind == 10) {
    write(file, good + manySections());
    fs::resize_file(file, kLarge, ignored);
  } else if (kind == 11) {
    fs::create_symlink(name, file, ignored);  // to itself
  } else if (kind == 12) {
    fs::create_symlink("/dev/zero", file, ignored);
  } else if (kind == 13) {
    std::string noise(static_cast<std::size_t>(moments_->whole(kNoise)), '\0');
    for (char& one : noise) one = static_cast<char>(moments_->whole(255));
    write(file, noise);
  }
  ++count_;
}
