#include "tests/board/share_check/feed.h"

#include <time.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "board/hardware/vol_header.h"
#include "capture/chunk_trailer.h"
#include "platform/media.h"
#include "platform/stream_buffer.h"

namespace {

constexpr unsigned long kLoopPauseUs =
    10000;  // leaves the processor to a capture, which isn't here
constexpr char kPictureStart[] = {0, 0, 1, '\xb6'};
constexpr std::size_t kNumberAt = 5;  // in a picture
constexpr std::size_t kDigits = 8;

std::atomic<std::int64_t> aheadUs{0};  // of the real clocks

std::string headerText() {
  const auto head = volHeader(640, 480);
  char text[2 * sizeof head + 1];
  bin2hex(head.data(), sizeof head, text, sizeof text);
  return text;
}

}  // namespace

// --- What the linker redirects to here.
extern "C" {
int __real_clock_gettime(clockid_t clock, timespec* time);
int __real__ZN2os6usleepEm(unsigned long microseconds);

int __wrap_clock_gettime(clockid_t clock, timespec* time) {
  const int result = __real_clock_gettime(clock, time);
  if (clock != CLOCK_REALTIME && clock != CLOCK_MONOTONIC) return result;
  const std::int64_t us = time->tv_nsec / 1000 + aheadUs;
  time->tv_sec += us / 1000000;
  time->tv_nsec = us % 1000000 * 1000 + time->tv_nsec % 1000;
  return result;
}

int __wrap__ZN2os6usleepEm(unsigned long microseconds) {
  return microseconds != kLoopPauseUs ? __real__ZN2os6usleepEm(microseconds) : 0;
}
}

bool WatchedRecorder::onPreview(const SB_FRAME& frame) {
  if (before) before();
  number_ = loadLe32(frame.number);
  return TSmbRecorder::onPreview(frame);
}

bool WatchedRecorder::onCapture(const char* data, long length) {
  const bool good = TSmbRecorder::onCapture(data, length);
  if (after) after();
  handled = number_;
  return good;
}

void Feed::publish(std::size_t bytes, std::int64_t us) {
  static const std::string header = headerText();
  aheadUs += us;
  ++number_;
  SB_HANDLE* const video = sbVideo();
  TAutoFrame frame(video, 0, nullptr, nullptr, 1000);
  if (!frame) return;
  const bool key = isKey(number_);
  std::memset(frame->payload, 'x', bytes);
  std::memcpy(frame->payload, kPictureStart, sizeof kPictureStart);
  frame->payload[sizeof kPictureStart] = key ? '\x10' : '\x50';
  const std::string digits = std::to_string(number_ + 10000000);
  std::memcpy(frame->payload + kNumberAt, digits.data(), kDigits);
  char* const trailer =
      frame->payload + sbGetFrameSize(video) - static_cast<long>(kFrameHeadBytes) - kTrailerBytes;
  storeTrailer(trailer, key ? kTypeKey : kTypePredicted, kTrailerLast,
               static_cast<std::uint32_t>(bytes));
  TDateTime time;
  time.set();
  storeLe32(frame->seconds, time.seconds());
  storeLe32(frame->microseconds, time.microseconds());
  storeLe32(frame->length, static_cast<std::uint32_t>(bytes));
  storeLe32(frame->number, number_);
  std::memset(frame->userdata, 0, sizeof frame->userdata);
  std::memcpy(frame->userdata[0], header.data(), header.size());
}

bool Feed::waitFor(const WatchedRecorder& recorder, int ms) const {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (recorder.handled != number_) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
  return true;
}

std::uint32_t Feed::numberIn(const std::string& picture) {
  const std::size_t start = picture.find(std::string(kPictureStart, sizeof kPictureStart));
  if (start == std::string::npos || picture.size() < start + kNumberAt + kDigits) return 0;
  return static_cast<std::uint32_t>(std::stoul(picture.substr(start + kNumberAt, kDigits))) -
         10000000;
}
