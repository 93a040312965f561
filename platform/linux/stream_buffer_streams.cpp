#include "platform/linux/stream_buffer_streams.h"

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "platform/linux/root.h"
#include "platform/linux/stream_buffer_handle.h"
#include "platform/linux/stream_buffer_owner.h"
#include "platform/log.h"
#include "platform/timer.h"

namespace sb {

std::atomic<SB_HANDLE*> current[kStreams];

namespace {

constexpr std::uint32_t kRetryMs = 1000;  // what was refused is looked at again

struct State {
  std::string path;
  SB_HANDLE* last = nullptr;  // never freed, others may use it
  Relaxed<std::uint32_t> lookedMs = 0;
  ino_t refused = 0;  // 0: none; why was logged once
  std::uint32_t refusedMs = 0;
  Attached refusal = Attached::kRefused;
};

struct Streams {
  std::mutex mutex;
  State state[kStreams];
  std::vector<SB_HANDLE*> handles;  // all that were ever given out
};

// Never destroyed: threads that are left behind at the end of the process still use it.
Streams& streams() {
  static Streams* const all = [] {
    static const char* const names[kStreams] = {"video", "video2", "audio"};
    auto* made = new Streams;
    for (int i = 0; i < kStreams; ++i) {
      made->state[i].path = rooted("/dev/shm/camera/") + names[i];
    }
    return made;
  }();
  return *all;
}

void forkedChild() {
  Streams& all = streams();
  new (&all.mutex) std::mutex;
  for (SB_HANDLE* handle : all.handles) handle->forked();
  for (auto& handle : current) handle.store(nullptr);
}

Relaxed<int> owner;  // the process that owns the segments; 0: none that we know of

// Once per process, and inherited by its children.
void watchForks() {
  static const int registered = pthread_atfork(nullptr, nullptr, forkedChild);
  (void)registered;
}

bool sameFile(const SB_HANDLE* handle, const struct stat& status) {
  return handle != nullptr && handle->segment.inode == status.st_ino &&
         handle->segment.device == status.st_dev;
}

// On failure `*reason` tells why.
Attached attachNew(Streams& all, int stream, const char** reason) {
  State& state = all.state[stream];
  Segment segment;
  switch (openSegment(state.path, &segment, reason)) {
    case OpenResult::kMissing:
      return Attached::kMissing;
    case OpenResult::kRefused:
      return Attached::kRefused;
    case OpenResult::kOpened:
      break;
  }
  // From here on the file stays open: closing it could drop locks.
  state.last = new SB_HANDLE(stream, segment);
  all.handles.push_back(state.last);
  return Attached::kYes;
}

}  // namespace

SB_HANDLE* lastHandle(int stream) {
  Streams& all = streams();
  const std::lock_guard<std::mutex> guard(all.mutex);
  return all.state[stream].last;
}

const char* streamPath(int stream) { return streams().state[stream].path.c_str(); }

Attached attach(int stream) {
  watchForks();
  Streams& all = streams();
  const std::lock_guard<std::mutex> guard(all.mutex);
  State& state = all.state[stream];
  if (current[stream].load(std::memory_order_acquire) != nullptr) return Attached::kYes;
  const std::uint32_t nowMs = monotonicMs();
  struct stat status;
  const bool exists = lstat(state.path.c_str(), &status) == 0;
  if (!exists && state.last == nullptr) return Attached::kMissing;
  const bool known = exists && state.refused == status.st_ino;
  if (known && nowMs - state.refusedMs < kRetryMs) return state.refusal;

  const char* reason = "all places are taken";
  Attached result = Attached::kYes;
  if (exists && !sameFile(state.last, status)) result = attachNew(all, stream, &reason);
  if (result == Attached::kYes && !state.last->ensureLease()) result = Attached::kFull;
  if (result == Attached::kYes) {
    state.refused = 0;
    state.lookedMs = nowMs;
    current[stream].store(state.last, std::memory_order_release);
  } else if (result != Attached::kMissing && exists) {
    if (!known) logEx(2, "buffer %s: %s", state.path.c_str(), reason);
    state.refused = status.st_ino;
    state.refusedMs = nowMs;
    state.refusal = result;
  }
  return result;
}

// By name alone: opening the file and closing it again would drop the process's locks on it. A
// segment whose name is gone is kept, unless its owner can make another. A look that fails for
// another reason tells nothing.
bool lookForReplacement(SB_HANDLE* handle, std::uint32_t nowMs, std::uint32_t everyMs) {
  State& state = streams().state[handle->stream];
  if (current[handle->stream].load(std::memory_order_relaxed) != handle) return false;
  if (nowMs - state.lookedMs < everyMs) return false;
  state.lookedMs = nowMs;
  struct stat status;
  const bool named = lstat(state.path.c_str(), &status) == 0;
  if (named && sameFile(handle, status)) return true;
  if (!named) {
    if (errno == ENOENT) restoreSegment(handle->stream);
    return false;
  }
  SB_HANDLE* expected = handle;
  current[handle->stream].compare_exchange_strong(expected, nullptr);
  return false;
}

void becomeOwner() { owner = getpid(); }
bool owns() { return owner == getpid(); }

void forgetStreams() {
  Streams& all = streams();
  owner = 0;
  const std::lock_guard<std::mutex> guard(all.mutex);
  static const char* const names[kStreams] = {"video", "video2", "audio"};
  for (int i = 0; i < kStreams; ++i) {
    all.state[i].path = rooted("/dev/shm/camera/") + names[i];
    all.state[i].last = nullptr;
    all.state[i].refused = 0;
    current[i].store(nullptr);
  }
}

}  // namespace sb
