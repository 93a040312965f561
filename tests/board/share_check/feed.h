// Feeds a recorder through the camera's own stream buffer, one frame at a time, at a time of the
// test's choice.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "record/smb_recorder.h"

// The recorder, with a view of each frame before and after it was handled.
class WatchedRecorder : public TSmbRecorder {
 public:
  using View = std::function<void()>;

  WatchedRecorder() : TSmbRecorder("") {}

  View before, after;                     // called on the recorder's thread
  std::atomic<std::uint32_t> handled{0};  // number of the last frame that was

 protected:
  bool onPreview(const SB_FRAME& frame) override;
  bool onCapture(const char* data, long length) override;

 private:
  std::uint32_t number_ = 0;
};

// The stream. Each frame has one picture, which has its number in it. Bound to one thread.
class Feed {
 public:
  explicit Feed(std::uint32_t keyEvery) : keyEvery_(keyEvery) {}

  // Publishes a picture of `bytes`, now; all clocks go on by `us` first.
  void publish(std::size_t bytes, std::int64_t us = 40000);
  // Waits until the recorder has handled it, `ms` at the most. Returns true iff it has.
  bool waitFor(const WatchedRecorder& recorder, int ms = 10000) const;

  std::uint32_t number() const { return number_; }
  bool isKey(std::uint32_t number) const { return number % keyEvery_ == 1 || keyEvery_ == 1; }

  // Returns the number in a picture, with or without the stream header ahead of it.
  static std::uint32_t numberIn(const std::string& picture);

 private:
  std::uint32_t keyEvery_;
  std::uint32_t number_ = 0;
};
