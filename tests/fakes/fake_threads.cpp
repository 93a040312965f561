// Threads that run only when a test runs their bodies, on the test's own thread.
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

#include "platform/log.h"
#include "platform/thread.h"
#include "platform/timer.h"
#include "tests/fakes/fake_platform.h"
#include "tests/fakes/fake_seam.h"

struct PThread::State {
  explicit State(const char* threadName) : name(threadName) {}
  std::mutex lock;
  const std::string name;
  bool running = false;   // what running() says
  bool due = false;       // started, and the body has not begun yet
  bool live = false;      // started, and the body has not returned since
  bool inBody = false;    // the body is inside execute()
  bool asked = false;     // ... and was asked to stop from outside
  bool again = false;     // ... and is to be started again as soon as it has returned
  bool reported = false;  // left behind, and said so
};

struct ThreadAccess {
  using State = PThread::State;
  static State& state(const PThread& thread) { return *thread.state_; }
  static std::shared_ptr<State> keep(const PThread& thread) { return thread.state_; }
  static void execute(PThread& thread) { thread.execute(); }

  // Asks the body to end. Returns true iff it is not inside execute().
  static bool ask(State& state) {
    std::lock_guard<std::mutex> guard(state.lock);
    state.running = false;
    state.due = false;
    state.again = false;
    if (state.inBody) state.asked = true;
    if (!state.inBody && !FakePlatform::the().stuck(state.name)) state.live = false;
    return !state.live;
  }
};

namespace {

thread_local ThreadAccess::State* t_body = nullptr;
constexpr long kStopMs = 5000;

void require(bool condition, const char* what, const std::string& name) {
  if (condition) return;
  std::fprintf(stderr, "%s: %s\n", what, name.c_str());
  std::abort();
}

}  // namespace

namespace fake_seam {

Body here() {
  if (t_body == nullptr) return Body::kNone;
  std::lock_guard<std::mutex> guard(t_body->lock);
  return t_body->asked ? Body::kAskedToStop : Body::kRunning;
}

void askHere() {
  if (t_body != nullptr) ThreadAccess::ask(*t_body);
}

}  // namespace fake_seam

PThread::PThread(const char* name) {
  FakeScope scope;
  state_ = std::make_shared<State>(name);
}

PThread::~PThread() {
  FakeScope scope;
  require(!state_->inBody, "thread deleted inside its body", state_->name);
  FakePlatform::the().record("delete(" + state_->name + ")");
}

void PThread::run() {
  FakeScope scope;
  FakePlatform::the().record("run(" + state_->name + ")");
  std::lock_guard<std::mutex> guard(state_->lock);
  if (state_->inBody) {
    if (!state_->running) state_->again = true;
    return;
  }
  state_->running = state_->due = state_->live = true;
}

bool PThread::stop(bool wait) {
  FakeScope scope;
  FakePlatform::the().record("stop(" + state_->name + (wait ? ",1)" : ",0)"));
  const bool returned = ThreadAccess::ask(*state_);
  if (!returned && wait && t_body != state_.get()) FakePlatform::the().pause(kStopMs * 1000, false);
  return returned;
}

bool PThread::running() const {
  std::lock_guard<std::mutex> guard(state_->lock);
  return state_->running;
}

void PThread::leave() {
  FakePlatform::the().leaving(false);
  {
    std::lock_guard<std::mutex> guard(state_->lock);
    state_->running = false;
  }
  FakePlatform::the().leaving(true);
}

TStopDeadline::TStopDeadline() : startMs_(monotonicMs()) {}

long TStopDeadline::leftMs() const {
  const std::uint32_t passed = monotonicMs() - startMs_;
  return passed >= kStopMs ? 0 : kStopMs - static_cast<long>(passed);
}

bool TStopDeadline::end(PThread& thread) {
  FakeScope scope;
  PThread::State& state = ThreadAccess::state(thread);
  FakePlatform::the().record("end(" + state.name + ")");
  if (ThreadAccess::ask(state)) return true;
  FakePlatform::the().pause(leftMs() * 1000, false);
  if (!state.reported) logEx(3, "thread %s does not end, left behind", state.name.c_str());
  state.reported = true;
  return false;
}

bool FakePlatform::started(const PThread& thread) const {
  ThreadAccess::State& state = ThreadAccess::state(thread);
  std::lock_guard<std::mutex> guard(state.lock);
  return state.due;
}

bool FakePlatform::runBody(PThread& thread) {
  const auto state = ThreadAccess::keep(thread);
  require(started(thread), "thread not started", state->name);
  ThreadAccess::State* const outer = t_body;
  {
    std::lock_guard<std::mutex> guard(state->lock);
    state->due = state->asked = state->again = false;
    state->inBody = true;
  }
  t_body = state.get();
  ThreadAccess::execute(thread);
  t_body = outer;
  std::lock_guard<std::mutex> guard(state->lock);
  state->inBody = state->asked = false;
  state->running = state->due = state->live = state->again;
  state->again = false;
  return state->due;
}
