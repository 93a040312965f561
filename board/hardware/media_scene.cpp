#include "board/hardware/media_scene.h"

#include <dirent.h>
#include <strings.h>
#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

// Nobody looked for so long: the film goes on where it was, instead of being decoded up to now.
constexpr std::int64_t kMaxLagMs = 1000;
// Pictures that are decoded at once, lest a file with nonsensical times hold up the board.
constexpr int kMaxPerLook = 8;

constexpr std::int64_t kFolderPictureMs = 1000;

bool isJpegName(const char* name) {
  const char* dot = std::strrchr(name, '.');
  return dot && name[0] != '.' && (strcasecmp(dot, ".jpg") == 0 || strcasecmp(dot, ".jpeg") == 0);
}

}  // namespace

std::unique_ptr<VideoScene> VideoScene::open(const std::string& path, std::string* error) {
  std::unique_ptr<VideoScene> scene(new VideoScene);
  scene->path_ = path;
  if (!scene->reader_.open(path, error)) return nullptr;
  if (scene->reader_.next(scene->next_.get(), &scene->nextMs_) != MediaReader::Result::kPicture) {
    *error = path + ": no picture in it that can be decoded";
    return nullptr;
  }
  scene->pictures_ = 1;
  return scene;
}

// Takes the next picture. Returns false when there is none and will be none.
bool VideoScene::advance() {
  std::int64_t timeMs = 0;
  if (reader_.next(next_.get(), &timeMs) == MediaReader::Result::kPicture) {
    stepMs_ = timeMs - nextMs_;
    nextMs_ = timeMs;
    ++pictures_;
    return true;
  }
  const bool single = pictures_ == 1;  // a photograph
  if (!single && reader_.rewind() &&
      reader_.next(next_.get(), &timeMs) == MediaReader::Result::kPicture) {
    beginMs_ += nextMs_ + std::max<std::int64_t>(stepMs_, 1);
    nextMs_ = timeMs;
    pictures_ = 1;
    return true;
  }
  if (!single)
    std::fprintf(stderr, "hardware: %s can't be read any longer, its last picture stays\n",
                 path_.c_str());
  return false;
}

void VideoScene::draw(std::int64_t timeMs, const Rectangle*, AVFrame* picture) {
  if (timeMs - beginMs_ - nextMs_ > kMaxLagMs) beginMs_ = timeMs - nextMs_;
  for (int i = 0; i < kMaxPerLook && !still_ && beginMs_ + nextMs_ <= timeMs; ++i) {
    copyPicture(*next_, now_.get());
    still_ = !advance();
  }
  copyPicture(*now_, picture);
}

std::unique_ptr<FolderScene> FolderScene::open(const std::string& path, std::string* error) {
  std::unique_ptr<FolderScene> scene(new FolderScene);
  DIR* const folder = opendir(path.c_str());
  while (const dirent* entry = folder ? readdir(folder) : nullptr)
    if (isJpegName(entry->d_name)) scene->paths_.push_back(path + "/" + entry->d_name);
  if (folder) closedir(folder);
  std::sort(scene->paths_.begin(), scene->paths_.end());
  *error = path + ": no JPEG pictures";
  for (std::size_t i = 0; i < scene->paths_.size(); ++i) {
    if (!scene->show(i, error)) continue;
    scene->shown_ = i;
    return scene;
  }
  return nullptr;
}

bool FolderScene::show(std::size_t index, std::string* error) {
  MediaReader reader;
  std::int64_t timeMs = 0;
  if (!reader.open(paths_[index], error)) return false;
  if (reader.next(read_.get(), &timeMs) != MediaReader::Result::kPicture) {
    *error = paths_[index] + ": no picture in it that can be decoded";
    return false;
  }
  now_.swap(read_);
  return true;
}

void FolderScene::draw(std::int64_t timeMs, const Rectangle*, AVFrame* picture) {
  const std::size_t index = static_cast<std::size_t>(timeMs / kFolderPictureMs) % paths_.size();
  if (index != shown_) {
    std::string error;
    if (!show(index, &error) && !complained_) {
      complained_ = true;
      std::fprintf(stderr, "hardware: %s, left out\n", error.c_str());
    }
    shown_ = index;
  }
  copyPicture(*now_, picture);
}
