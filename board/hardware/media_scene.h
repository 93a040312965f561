// Scenes from files.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "board/hardware/media_reader.h"
#include "board/hardware/scene.h"

// A video file, again and again, at its own pace. When it can't be read any longer the last picture
// stays. Logs "hardware: ..." once, to standard error.
class VideoScene : public Scene {
 public:
  // Returns null and sets `*error` when there is no picture to be had.
  static std::unique_ptr<VideoScene> open(const std::string& path, std::string* error);

  void draw(std::int64_t timeMs, const Rectangle* moving, AVFrame* picture) override;

 private:
  VideoScene() = default;
  bool advance();

  MediaReader reader_;
  std::string path_;
  Picture now_ = makePicture(kSceneWidth, kSceneHeight);
  Picture next_ = makePicture(kSceneWidth, kSceneHeight);
  std::int64_t nextMs_ = 0;   // of `next_`, from the file's beginning
  std::int64_t stepMs_ = 0;   // from the picture before to `next_`
  std::int64_t beginMs_ = 0;  // when the file began
  int pictures_ = 0;          // since then
  bool still_ = false;        // nothing will change any more
};

// The JPEG pictures of a folder in the order of their names, one a second, again and again. One
// that can't be read is left out. Logs "hardware: ..." once, to standard error.
class FolderScene : public Scene {
 public:
  // Returns null and sets `*error` when no picture of the folder can be read.
  static std::unique_ptr<FolderScene> open(const std::string& path, std::string* error);

  void draw(std::int64_t timeMs, const Rectangle* moving, AVFrame* picture) override;

 private:
  FolderScene() = default;
  bool show(std::size_t index, std::string* error);

  std::vector<std::string> paths_;
  std::size_t shown_ = 0;
  bool complained_ = false;
  Picture now_ = makePicture(kSceneWidth, kSceneHeight);
  Picture read_ = makePicture(kSceneWidth, kSceneHeight);
};
