// What a camera of the PC sees.
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "board/hardware/media_reader.h"
#include "board/hardware/scene.h"

// Reads a Video4Linux 2 device on a thread of its own, so that a camera that hangs holds nobody up.
// When it gives no more pictures the last one stays. Logs "hardware: ..." once, to standard error.
class DeviceScene : public Scene {
 public:
  // Returns null and sets `*error` when the device can't be opened.
  static std::unique_ptr<DeviceScene> open(const std::string& path, std::string* error);
  ~DeviceScene() override;

  void draw(std::int64_t timeMs, const Rectangle* moving, AVFrame* picture) override;

 private:
  DeviceScene() = default;
  void watch();

  MediaReader reader_;  // the thread's
  std::string path_;
  std::atomic<bool> ended_{false};
  std::mutex mutex_;
  Picture last_ = makePicture(kSceneWidth, kSceneHeight);
  std::thread thread_;
};
