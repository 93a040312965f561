#include "board/hardware/device_scene.h"

#include <chrono>
#include <cstdio>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kPause(5);  // between two looks for a picture
constexpr std::chrono::seconds kPatience(5);    // before a camera counts as silent

}  // namespace

std::unique_ptr<DeviceScene> DeviceScene::open(const std::string& path, std::string* error) {
  std::unique_ptr<DeviceScene> scene(new DeviceScene);
  scene->path_ = path;
  if (!scene->reader_.open(path, error)) return nullptr;
  scene->thread_ = std::thread([self = scene.get()] { self->watch(); });
  return scene;
}

DeviceScene::~DeviceScene() {
  ended_ = true;
  if (thread_.joinable()) thread_.join();
}

void DeviceScene::watch() {
  const Picture seen = makePicture(kSceneWidth, kSceneHeight);
  std::int64_t timeMs = 0;
  bool complained = false;
  for (auto lastSeen = Clock::now(); !ended_;) {
    const MediaReader::Result result = reader_.next(seen.get(), &timeMs);
    if (result == MediaReader::Result::kPicture) {
      lastSeen = Clock::now();
      const std::lock_guard<std::mutex> lock(mutex_);
      copyPicture(*seen, last_.get());
      continue;
    }
    const bool failed = result == MediaReader::Result::kEnd;
    if (!complained && (failed || Clock::now() - lastSeen > kPatience)) {
      complained = true;
      std::fprintf(stderr, "hardware: %s gives no more pictures, its last one stays\n",
                   path_.c_str());
    }
    if (failed) return;
    std::this_thread::sleep_for(kPause);
  }
}

void DeviceScene::draw(std::int64_t, const Rectangle*, AVFrame* picture) {
  const std::lock_guard<std::mutex> lock(mutex_);
  copyPicture(*last_, picture);
}
