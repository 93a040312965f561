#include "schedule/alarm.h"

#include <mutex>
#include <thread>

namespace {
// The slot whose callback runs on this thread.
thread_local const TAlarm* t_calling = nullptr;
}  // namespace

// A thread's claim to the members of a slot. Held for a few loads and stores only, never across a
// call, so that whoever finds the slot claimed gets it at once when it lets the other one run.
class TAlarm::Claim {
 public:
  explicit Claim(const TAlarm& alarm) : word_(alarm.claimed_) {
    std::uint32_t unclaimed = 0;
    while (!word_.compare_exchange_weak(unclaimed, 1, std::memory_order_acquire,
                                        std::memory_order_relaxed)) {
      unclaimed = 0;
      std::this_thread::yield();
    }
  }
  Claim(const Claim&) = delete;
  Claim& operator=(const Claim&) = delete;
  ~Claim() { word_.store(0, std::memory_order_release); }

 private:
  static_assert(std::atomic<std::uint32_t>::is_always_lock_free, "a claim must not need a lock");
  std::atomic<std::uint32_t>& word_;
};

bool TAlarm::activeNow() const { return callback_ != nullptr && owner_ != nullptr && period_ > 0; }

bool TAlarm::active() const {
  Claim claim(*this);
  return activeNow();
}

bool TAlarm::serves(const void* owner) const {
  Claim claim(*this);
  return owner_ == owner && (calling_ || activeNow());
}

bool TAlarm::rearmed(const void* owner) const {
  Claim claim(*this);
  return owner_ == owner && calling_ && rearmed_ && activeNow();
}

long TAlarm::counter() const {
  Claim claim(*this);
  return counter_;
}

bool TAlarm::activate(void* owner, long seconds, Callback callback) {
  Claim claim(*this);
  const bool taken = activeNow();
  if ((taken || calling_) && owner != owner_) return false;
  // Intended: a shorter wait never shortens the one in progress, so that a trigger that comes again
  // can only lengthen a pulse.
  if (!taken || seconds < 1 || counter_ < seconds) counter_ = period_ = seconds;
  owner_ = owner;
  callback_ = callback;
  rearmed_ = true;
  return true;
}

bool TAlarm::test() {
  std::lock_guard<TMutex> call(callLock_);
  void* owner = nullptr;
  Callback callback = nullptr;
  {
    Claim claim(*this);
    if (!activeNow()) return false;
    if (counter_ >= 1) {
      --counter_;
      return true;
    }
    owner = owner_;
    callback = callback_;
    calling_ = true;
    rearmed_ = false;
  }
  t_calling = this;
  const bool repeat = callback(owner);
  t_calling = nullptr;

  Claim claim(*this);
  calling_ = false;
  if (repeat) {
    counter_ = period_ - 1;
  } else if (!rearmed_) {
    period_ = 0;
    --counter_;
  }
  return true;
}

void TAlarm::waitForCallback() {
  if (t_calling == this) return;
  {
    Claim claim(*this);
    if (!calling_) return;
  }
  std::lock_guard<TMutex> call(callLock_);
}
