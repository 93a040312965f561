#include "board/hardware/world.h"

#include <utility>

World::World(std::unique_ptr<Scene> scene, Pace* pace)
    : pace_(pace != nullptr ? pace : Pace::real()),
      scene_(std::move(scene)),
      startMs_(pace_->nowMs()),
      last_(makePicture(kSceneWidth, kSceneHeight)) {}

void World::setMoving(std::optional<Rectangle> where) {
  const std::lock_guard<std::mutex> lock(mutex_);
  moving_ = where;
}

std::optional<Rectangle> World::moving() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return moving_;
}

void World::setStandard(TvStandard standard) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (standard_ == standard) return;
    standard_ = standard;
  }
  if (standardChanged_) standardChanged_();
}

TvStandard World::standard() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return standard_;
}

void World::onStandardChange(std::function<void()> callback) {
  standardChanged_ = std::move(callback);
}

std::int64_t World::nowMs() const { return pace_->nowMs() - startMs_; }

std::int64_t World::look(AVFrame* picture) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const std::int64_t number = nowMs() / kPictureMs;
  if (number != lastNumber_) {
    scene_->draw(number * kPictureMs, moving_ ? &*moving_ : nullptr, last_.get());
    lastNumber_ = number;
  }
  av_frame_copy(picture, last_.get());
  return number;
}
