#include "tests/torture/kills/frame_watch.h"

#include <cstring>

#include "platform/stream_buffer.h"
#include "tests/torture/kills/processes.h"

namespace {

constexpr long kWaitMs = 20;
constexpr double kKeptMs = 15000;
constexpr std::size_t kEnough = 64;  // bytes by which a picture is known again

}  // namespace

FrameWatch::FrameWatch(const Pictures* pictures) : pictures_(pictures) {
  thread_ = std::thread([this] { read(); });
}

FrameWatch::~FrameWatch() {
  if (thread_.joinable()) stop();
}

void FrameWatch::stop() {
  over_ = true;
  thread_.join();
  if (pictures_ != nullptr) return;
  errors_ += check_.errors();
  if (check_.errors() > 0) complaint_ += check_.json();
}

void FrameWatch::read() {
  RawFrame copy;
  while (!over_) {
    SB_HANDLE* const video = sbVideo();
    if (video == nullptr) {
      sleepMs(1);
      continue;
    }
    {
      const TAutoFrame frame(video, 0, &number_, &epoch_, kWaitMs);
      if (!frame) continue;
      const auto* const bytes = reinterpret_cast<const unsigned char*>(frame.get());
      copy.bytes.assign(bytes, bytes + sbGetFrameSize(video));  // trailers stand at its very end
    }
    take(copy);
  }
}

void FrameWatch::take(const RawFrame& frame) {
  ++frames_;
  judge(frame);
  const std::lock_guard<std::mutex> guard(mutex_);
  const double now = nowMs();
  while (!seen_.empty() && now - seen_.front().atMs > kKeptMs) seen_.pop_front();
  std::string bytes;
  if (pictures_ == nullptr) {
    bytes.assign(reinterpret_cast<const char*>(frame.payload()),
                 static_cast<std::size_t>(frame.length()));
  }
  seen_.push_back({static_cast<std::int64_t>(frame.timeUs()), now, bytes});
}

void FrameWatch::judge(const RawFrame& frame) {
  if (frame.length() < 1 || static_cast<std::size_t>(frame.length()) > frame.room())
    return fail(frame, "a length of " + std::to_string(frame.length()));
  const auto step = static_cast<std::int32_t>(frame.number() - lastNumber_);
  if (epoch_ == lastEpoch_ && step < 1)
    fail(frame, "a number that is not after " + std::to_string(lastNumber_));
  lastNumber_ = frame.number();
  lastEpoch_ = epoch_;
  if (pictures_ == nullptr) {
    const bool lacksHeader = frame.text(0).find_first_not_of('0') == std::string::npos;
    if (!lacksHeader || !mayLackHeaders_) check_.take(frame);
    return;
  }
  if (!pictures_->whole(frame.payload(), static_cast<std::size_t>(frame.length())))
    fail(frame, std::to_string(frame.length()) + " bytes that are no picture");
}

void FrameWatch::fail(const RawFrame& frame, const std::string& what) {
  if (errors_++ == 0) complaint_ = "frame " + std::to_string(frame.number()) + ": " + what;
}

double FrameWatch::firstAfter(std::int64_t wallUs) const {
  const std::lock_guard<std::mutex> guard(mutex_);
  double first = 0;
  for (auto one = seen_.rbegin(); one != seen_.rend() && one->wallUs > wallUs; ++one)
    first = one->atMs;
  return first;
}

long FrameWatch::behind(const std::string& bytes) const {
  const std::string some = bytes.substr(0, kEnough);
  const std::lock_guard<std::mutex> guard(mutex_);
  for (auto one = seen_.rbegin(); one != seen_.rend(); ++one)
    if (one->bytes.find(some) != std::string::npos)
      return static_cast<long>((seen_.back().wallUs - one->wallUs) / 1000);
  return -1;
}

bool FrameWatch::isPicture(const std::string& content) {
  constexpr std::size_t kHead = 160;
  RawFrame frame;
  frame.bytes.assign(kHead, 0);
  for (std::size_t i = 0; i < 4; ++i)
    frame.bytes[8 + i] = static_cast<unsigned char>(content.size() >> (8 * i));
  frame.bytes.insert(frame.bytes.end(), content.begin(), content.end());
  StreamCheck check(true, 0);
  check.take(frame);
  return check.good();
}
