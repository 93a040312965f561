#include "platform/thread.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <mutex>
#include <vector>

#include "platform/application.h"
#include "platform/linux/clock.h"
#include "platform/linux/futex.h"
#include "platform/linux/thread_access.h"
#include "platform/log.h"
#include "platform/relaxed.h"
#include "platform/timer.h"

namespace {

constexpr long kStopMs = 5000;
constexpr std::size_t kNameSize = 16;  // the kernel's, terminator included
// A system that is short of memory or threads for an instant must not cost a camera its recorder.
constexpr int kStartTries = 5;
constexpr useconds_t kStartPauseUs = 2000;

using Lock = std::lock_guard<Monitor>;

// The descriptor that tells the main thread to hurry; below 0 on every other thread.
thread_local int mainStopFd = -1;

}  // namespace

// What object and body share. `running` and `asked` are read without the lock.
struct PThread::State {
  struct All;

  State(PThread* owner, const char* label) : object(owner) {
    std::snprintf(name, sizeof name, "%s", label);
  }

  static void* body(void* holder);
  // Notes that the body has returned. Returns true iff it is to be started again.
  bool returned();
  // Waits until no body is inside, until `deadlineUs`. Returns true iff so.
  bool awaitEnd(std::int64_t deadlineUs);
  // Asks the body to end. Returns true iff none is inside.
  bool ask();
  // Whoever sees the request also sees that the body is not to run any more.
  bool isAsked() const { return asked.load(std::memory_order_acquire) != 0; }
  // Logs, once, that the body was left behind.
  void leaveBehind();

  Monitor monitor;
  char name[kNameSize];
  PThread* object;  // null once it is gone
  Relaxed<bool> running;
  std::atomic<std::uint32_t> asked{0};  // 1: to stop, from outside; the body's pauses wait for it
  Relaxed<bool> left;                   // behind, by its owner
  bool inside = false;                  // execute() was started and has not returned
  bool again = false;                   // a start waits for the return
  unsigned returns = 0;                 // of bodies, ever
};

namespace {
thread_local void* current = nullptr;  // the PThread::State whose body this thread is
}  // namespace

// The bodies that are inside execute(). Never destroyed: threads may outlive static objects.
struct PThread::State::All {
  std::mutex mutex;
  std::vector<std::shared_ptr<State>> inside;

  static All& instance() {
    static auto* const all = new All;
    return *all;
  }
  void add(const std::shared_ptr<State>& state) {
    const std::lock_guard<std::mutex> lock(mutex);
    inside.push_back(state);
  }
  void remove(const std::shared_ptr<State>& state) {
    const std::lock_guard<std::mutex> lock(mutex);
    inside.erase(std::find(inside.begin(), inside.end(), state));
  }
};

PThread::PThread(const char* name) : state_(std::make_shared<State>(this, name)) {}

void PThread::run() {
  std::atomic_thread_fence(std::memory_order_seq_cst);
  State& s = *state_;
  const Lock lock(s.monitor);
  if (s.running) return;
  if (s.inside) {
    s.again = true;
    return;
  }
  s.running = true;
  s.left = false;
  s.inside = true;
  State::All::instance().add(state_);
  auto* const holder = new std::shared_ptr<State>(state_);
  const int error = ThreadAccess::start(&State::body, holder);
  if (error == 0) return;
  delete holder;
  logEx(3, "can't start thread %s: %s", s.name, std::strerror(error));
  s.running = false;
  s.inside = false;
  State::All::instance().remove(state_);
}

bool PThread::stop(bool wait) {
  State& s = *state_;
  if (current == &s) {
    const Lock lock(s.monitor);
    s.again = false;
    s.running = false;
    return false;
  }
  const Lock lock(s.monitor);
  if (s.ask()) return true;
  if (!wait) return false;
  const unsigned before = s.returns;
  return s.monitor.waitUntil(monotonicUs() + kStopMs * 1000,
                             [&] { return !s.inside || s.returns != before; });
}

PThread::~PThread() {
  if (!PThread::stop(true)) logEx(3, "thread %s is deleted while its body runs", state_->name);
  const Lock lock(state_->monitor);
  state_->again = false;
  state_->object = nullptr;
}

bool PThread::running() const { return state_->running; }

void PThread::leave() {
  {
    const Lock lock(state_->monitor);
    state_->running = false;
  }
  std::atomic_thread_fence(std::memory_order_seq_cst);
}

void* PThread::State::body(void* holder) {
  const std::unique_ptr<std::shared_ptr<State>> owned(static_cast<std::shared_ptr<State>*>(holder));
  State& s = **owned;
  pthread_setname_np(pthread_self(), s.name);
  current = &s;
  do {
    s.object->execute();
  } while (s.returned());
  current = nullptr;
  All::instance().remove(*owned);
  return nullptr;
}

bool PThread::State::returned() {
  const Lock lock(monitor);
  ++returns;
  const bool restart = again && object != nullptr;
  again = false;
  asked.store(0);
  running = restart;
  inside = restart;
  monitor.wake();
  return restart;
}

bool PThread::State::awaitEnd(std::int64_t deadlineUs) {
  if (current == this) return false;
  const Lock lock(monitor);
  return monitor.waitUntil(deadlineUs, [this] { return !inside; });
}

bool PThread::State::ask() {
  again = false;
  running = false;
  if (!inside) return true;
  asked.store(1);
  futexWake(asked);
  return false;
}

void PThread::State::leaveBehind() {
  if (left) return;
  left = true;
  logEx(3, "thread %s does not end, left behind", name);
}

TStopDeadline::TStopDeadline() : startMs_(monotonicMs()) {}

bool TStopDeadline::end(PThread& thread) {
  thread.stop(false);
  PThread::State& s = *thread.state_;
  if (s.awaitEnd(monotonicUs() + leftMs() * 1000)) return true;
  s.leaveBehind();
  return false;
}

long TStopDeadline::leftMs() const {
  const std::uint32_t spent = monotonicMs() - startMs_;
  return spent < kStopMs ? kStopMs - static_cast<long>(spent) : 0;
}

bool ThreadAccess::stopAsked() {
  if (current != nullptr) return static_cast<PThread::State*>(current)->isAsked();
  return mainStopFd >= 0 && TApplication::stopped;
}

std::function<bool()> ThreadAccess::stopTest() {
  const auto* const body = static_cast<const PThread::State*>(current);
  if (body != nullptr) return [body] { return body->isAsked(); };
  if (mainStopFd >= 0) return [] { return static_cast<bool>(TApplication::stopped); };
  return [] { return false; };
}

std::int64_t ThreadAccess::pause(std::int64_t microseconds) {
  if (microseconds <= 0) return 0;
  const std::int64_t end = monotonicUs() + microseconds;
  if (current != nullptr) {
    // On the word itself: after a condition's wait the C library makes one more call, to leave the
    // lock.
    auto& s = *static_cast<PThread::State*>(current);
    for (std::int64_t left = microseconds; left > 0; left = end - monotonicUs()) {
      if (s.isAsked()) return left;
      futexPause(s.asked, 0, left);
    }
    return 0;
  }
  if (mainStopFd < 0) {
    const timespec point = monotonicPoint(end);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &point, nullptr) == EINTR) {
    }
    return 0;
  }
  pollfd stop{mainStopFd, POLLIN, 0};
  for (std::int64_t left = microseconds; left > 0; left = end - monotonicUs()) {
    // In milliseconds: on 32 bit the C library's fortified ppoll() takes a 64-bit time for a short
    // one.
    const std::int64_t ms = std::min<std::int64_t>((left + 999) / 1000, INT_MAX);
    if (poll(&stop, 1, static_cast<int>(ms)) > 0) return left;
  }
  return 0;
}

void ThreadAccess::adoptMain(int fd) { mainStopFd = fd; }

int ThreadAccess::start(void* (*body)(void*), void* argument) {
  // All but those that a fault of the thread itself raises: sanitizers and core dumps need them.
  sigset_t blocked;
  sigset_t before;
  sigfillset(&blocked);
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP}) sigdelset(&blocked, fault);
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  // A thread inherits the mask of its creator, so there is no instant in which it takes signals.
  pthread_sigmask(SIG_SETMASK, &blocked, &before);
  pthread_t thread;
  int error = pthread_create(&thread, &attributes, body, argument);
  for (int tries = 1; error == EAGAIN && tries < kStartTries; ++tries) {
    usleep(kStartPauseUs);
    error = pthread_create(&thread, &attributes, body, argument);
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  pthread_attr_destroy(&attributes);
  return error;
}

int ThreadAccess::stuck(char* names, std::size_t size) {
  int count = 0;
  std::size_t used = 0;
  if (size > 0) names[0] = '\0';
  auto& all = PThread::State::All::instance();
  const std::lock_guard<std::mutex> allLock(all.mutex);
  for (const auto& state : all.inside) {
    if (!state->isAsked() && !state->left) continue;
    ++count;
    const int length =
        std::snprintf(names + used, size - used, "%s%s", used > 0 ? ", " : "", state->name);
    used = std::min(used + static_cast<std::size_t>(length), size - 1);
  }
  return count;
}

bool ThreadAccess::endAll() {
  std::vector<std::shared_ptr<PThread::State>> inside;
  {
    auto& all = PThread::State::All::instance();
    const std::lock_guard<std::mutex> allLock(all.mutex);
    inside = all.inside;
  }
  for (const auto& state : inside) {
    const Lock lock(state->monitor);
    state->ask();
  }
  const std::int64_t deadline = monotonicUs() + kStopMs * 1000;
  bool all = true;
  for (const auto& state : inside) {
    if (state->awaitEnd(state->left ? 0 : deadline)) continue;
    state->leaveBehind();
    all = false;
  }
  return all;
}
