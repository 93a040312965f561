// What the fake platform needs to know of real threads.
#include <time.h>

#include <cstdint>
#include <cstdlib>
#include <thread>

#include "platform/linux/thread_access.h"
#include "platform/timer.h"  // declares realMonotonicMs(), see CMakeLists.txt
#include "tests/fakes/fake_seam.h"

namespace {

// Static objects are made on the main thread.
const std::thread::id kMainThread = std::this_thread::get_id();

}  // namespace

std::uint32_t realMonotonicMs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint32_t>(std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000);
}

namespace fake_seam {

Body here() {
  if (std::this_thread::get_id() == kMainThread) {
    return Body::kNone;
  }
  return ThreadAccess::stopAsked() ? Body::kAskedToStop : Body::kRunning;
}

// Real bodies are ended by their owners, not by what the test does inside them.
void askHere() { std::abort(); }

}  // namespace fake_seam
