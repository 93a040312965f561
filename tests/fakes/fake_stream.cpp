#include "tests/fakes/fake_stream.h"

#include <algorithm>
#include <cstring>

#include "platform/bytes.h"
#include "platform/timer.h"
#include "tests/fakes/fake_platform.h"

namespace {

FakeFrame copyOf(const SB_FRAME& frame, long size) {
  FakeFrame copy;
  copy.time = TDateTime(loadLe32(frame.seconds), loadLe32(frame.microseconds));
  copy.length = static_cast<int>(loadLe32(frame.length));
  copy.number = static_cast<int>(loadLe32(frame.number));
  for (int i = 0; i < 3; ++i)
    copy.text[i].assign(frame.userdata[i], strnlen(frame.userdata[i], sizeof frame.userdata[i]));
  const long room = size - static_cast<long>(kFrameHeadBytes);
  if (copy.length > 0)
    copy.payload.assign(frame.payload, static_cast<std::size_t>(std::min<long>(copy.length, room)));
  return copy;
}

}  // namespace

// As on the real platform a handle is never used twice, so that what the daemon keeps by handle is
// never taken for another buffer's.
FakeStream::FakeStream(const char* name) : name_(name) {
  static std::mutex mutex;
  static auto* const all = new std::deque<SB_HANDLE>;
  std::lock_guard<std::mutex> guard(mutex);
  all->push_back({this});
  handle_ = &all->back();
}

// Zero pages that cost nothing until they are used.
void FakeStream::makeCells() {
  if (!cells_.empty()) return;
  cells_.resize(static_cast<std::size_t>(depth_));
  const auto size = static_cast<std::size_t>(frameSize_.load()) + kFrameHeadBytes;
  for (Cell& cell : cells_) cell.memory.reset(static_cast<char*>(std::calloc(1, size)));
}

void FakeStream::newSegment() {
  std::lock_guard<std::mutex> guard(lock_);
  for (Cell& cell : cells_) cell.number = 0;
  ++epoch_;
  latest_ = 0;
}

SB_FRAME* FakeStream::frame(int index) {
  std::lock_guard<std::mutex> guard(lock_);
  return reinterpret_cast<SB_FRAME*>(cells_[static_cast<std::size_t>(index)].memory.get());
}

int FakeStream::reserve() {
  std::lock_guard<std::mutex> guard(lock_);
  if (busy_) return -1;
  makeCells();
  int best = -1;
  for (int i = 0; i < depth_; ++i) {
    const Cell& cell = cells_[static_cast<std::size_t>(i)];
    if (cell.holders != 0) continue;
    if (best < 0 || cell.number == 0 || cell.number < cells_[static_cast<std::size_t>(best)].number)
      best = i;
    if (cell.number == 0) break;
  }
  if (best < 0) return -1;
  cells_[static_cast<std::size_t>(best)].number = 0;
  cells_[static_cast<std::size_t>(best)].holders = 1;
  return best;
}

void FakeStream::publish(int index) {
  std::function<void(const FakeFrame&)> callback;
  FakeFrame copy;
  {
    std::lock_guard<std::mutex> guard(lock_);
    Cell& cell = cells_[static_cast<std::size_t>(index)];
    const auto* frame = reinterpret_cast<const SB_FRAME*>(cell.memory.get());
    cell.number = ++latest_;
    cell.stampMs = monotonicMs();
    cell.holders = 0;
    ++published_;
    copy = copyOf(*frame, frameSize_);
    if (copy.length < 1) cell.number = 0;  // not shown; its number is used up
    history_.push_back(copy);
    if (history_.size() > kHistory) history_.pop_front();
    callback = onPublish_;
  }
  if (callback) callback(copy);
}

int FakeStream::acquire(long ageMs, std::int32_t* number, std::int32_t* epoch) {
  std::lock_guard<std::mutex> guard(lock_);
  const bool joined = *epoch == epoch_;
  int best = -1;
  for (int i = 0; i < static_cast<int>(cells_.size()); ++i) {
    const Cell& cell = cells_[static_cast<std::size_t>(i)];
    if (cell.number == 0) continue;
    if (joined ? cell.number - *number <= 0
               : monotonicMs() - cell.stampMs > static_cast<std::uint32_t>(std::max(ageMs, 0L)))
      continue;
    if (best < 0 || cell.number < cells_[static_cast<std::size_t>(best)].number) best = i;
  }
  if (best < 0) return -1;
  Cell& cell = cells_[static_cast<std::size_t>(best)];
  ++cell.holders;
  *number = cell.number;
  *epoch = epoch_;
  return best;
}

void FakeStream::release(int index) {
  std::lock_guard<std::mutex> guard(lock_);
  --cells_[static_cast<std::size_t>(index)].holders;
}

std::int32_t FakeStream::push(const std::string& payload, const TDateTime& time, int number) {
  const int index = reserve();
  if (index < 0) return 0;
  SB_FRAME* to = frame(index);
  storeLe32(to->seconds, time.seconds());
  storeLe32(to->microseconds, time.microseconds());
  storeLe32(to->length, static_cast<std::uint32_t>(payload.size()));
  storeLe32(to->number, static_cast<std::uint32_t>(number));
  std::memset(to->userdata, 0, sizeof to->userdata);
  std::memcpy(reinterpret_cast<char*>(to) + kFrameHeadBytes, payload.data(), payload.size());
  publish(index);
  std::lock_guard<std::mutex> guard(lock_);
  return latest_;
}

std::int32_t FakeStream::push(const std::string& payload) {
  TDateTime now;
  now.set();
  return push(payload, now);
}

std::vector<FakeFrame> FakeStream::frames() const {
  std::lock_guard<std::mutex> guard(lock_);
  return {history_.begin(), history_.end()};
}

FakeFrame FakeStream::last() const {
  std::lock_guard<std::mutex> guard(lock_);
  return history_.empty() ? FakeFrame{} : history_.back();
}

long FakeStream::published() const {
  std::lock_guard<std::mutex> guard(lock_);
  return published_;
}

int FakeStream::held() const {
  std::lock_guard<std::mutex> guard(lock_);
  return static_cast<int>(
      std::count_if(cells_.begin(), cells_.end(), [](const Cell& cell) { return cell.holders; }));
}

void FakeStream::onPublish(std::function<void(const FakeFrame&)> callback) {
  std::lock_guard<std::mutex> guard(lock_);
  onPublish_ = std::move(callback);
}

void FakeStream::setSlot(int number, int value) {
  slots_[number].value.store(value, std::memory_order_relaxed);
  slots_[number].written.store(true, std::memory_order_relaxed);
}

void FakeStream::daemonSetsSlot(int number, int value) {
  setSlot(number, value);
  slots_[number].writes.fetch_add(1, std::memory_order_relaxed);
  FakePlatform::the().record("sbSetUserdata(" + std::string(name_) + "," + std::to_string(number) +
                             "," + std::to_string(value) + ")");
}

int FakeStream::testSlot(int number) {
  Slot& slot = slots_[number];
  return slot.written.exchange(false, std::memory_order_relaxed)
             ? slot.value.load(std::memory_order_relaxed)
             : -1;
}

SB_HANDLE* sbVideo() { return FakePlatform::the().video.handle(); }
SB_HANDLE* sbVideo2() { return FakePlatform::the().video2.handle(); }
SB_HANDLE* sbAudio() { return FakePlatform::the().audio.handle(); }

long sbGetFrameSize(SB_HANDLE* buffer) {
  return buffer == nullptr ? 0 : buffer->stream->frameSize();
}

namespace {
bool usable(SB_HANDLE* buffer, int slot) {
  return buffer != nullptr && slot >= 0 && slot < kSlotCount;
}
}  // namespace

int sbGetUserdata(SB_HANDLE* buffer, int slot) {
  return usable(buffer, slot) ? buffer->stream->slot(slot) : 0;
}

void sbSetUserdata(SB_HANDLE* buffer, int slot, int value) {
  FakeScope scope;
  if (usable(buffer, slot)) buffer->stream->daemonSetsSlot(slot, value);
}

int sbTestUserdata(SB_HANDLE* buffer, int slot) {
  return usable(buffer, slot) ? buffer->stream->testSlot(slot) : -1;
}

TAutoFrame::TAutoFrame(SB_HANDLE* buffer, long age, std::int32_t* number, std::int32_t* epoch,
                       long wait)
    : buffer_(buffer), writing_(number == nullptr && epoch == nullptr) {
  FakeScope scope;
  if (buffer == nullptr) return;
  FakeStream& stream = *buffer->stream;
  const auto look = [&] {
    return writing_ ? stream.reserve() : stream.acquire(age, number, epoch);
  };
  // While it waits, time passes in steps, so that what a test has due is seen when it happens.
  constexpr long kStepMs = 10;
  index_ = look();
  while (index_ < 0 && wait > 0) {
    const long step = std::min(wait, kStepMs);
    if (FakePlatform::the().pause(step * 1000, false)) break;
    wait -= step;
    index_ = look();
  }
  if (index_ >= 0) frame_ = stream.frame(index_);
}

TAutoFrame::~TAutoFrame() {
  FakeScope scope;
  if (index_ < 0) return;
  if (writing_)
    buffer_->stream->publish(index_);
  else
    buffer_->stream->release(index_);
}
