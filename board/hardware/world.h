// The physical side of the virtual board, which boardctl changes and the chips see.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "board/hardware/pace.h"
#include "board/hardware/scene.h"

enum class TvStandard { kPal, kNtsc };

// Any thread.
class World {
 public:
  static constexpr int kPictureMs = 33;  // the sensor's own rate

  // `pace`: null for the real time; not owned, must outlive it.
  explicit World(std::unique_ptr<Scene> scene, Pace* pace = nullptr);

  // Something moves inside this part of the scene from now on, or nowhere.
  void setMoving(std::optional<Rectangle> where);
  std::optional<Rectangle> moving() const;

  // The standard of the video inputs. A change calls back, without a lock, on this thread; the same
  // standard again is no change.
  void setStandard(TvStandard standard);
  TvStandard standard() const;
  void onStandardChange(std::function<void()> callback);  // before any other thread runs

  // Milliseconds since the start.
  std::int64_t nowMs() const;

  // Copies what is to be seen now into `picture`, of the scene's size. Two calls within kPictureMs
  // may see the same picture. Returns the number of the picture, which grows by one each
  // kPictureMs.
  std::int64_t look(AVFrame* picture);

 private:
  Pace* const pace_;
  mutable std::mutex mutex_;
  std::unique_ptr<Scene> scene_;
  std::optional<Rectangle> moving_;
  TvStandard standard_ = TvStandard::kPal;
  std::function<void()> standardChanged_;
  std::int64_t startMs_;
  Picture last_;
  std::int64_t lastNumber_ = -1;
};
