#include "events/event.h"

#include <strings.h>

#include <algorithm>
#include <cstdio>

#include "events/out_handler.h"
#include "platform/log.h"
#include "platform/os.h"
#include "schedule/scheduler.h"

namespace {

// The schedule that is always active. The scheduler keeps the pointer, not the text.
constexpr const char* kAlways = "always";

constexpr unsigned long kUsPerMs = 1000;
constexpr unsigned kPauseAfterFiringS = 2;

bool isAlways(const char* name) { return strcasecmp(name, kAlways) == 0; }

void copyName(char (&destination)[TEvent::kNameSize], const char* source) {
  std::snprintf(destination, sizeof destination, "%s", source != nullptr ? source : "");
}

}  // namespace

TEvent::TEvent(const char* schedule, const char* schedule2, long period)
    : PThread("pthread"), period_(period) {
  copyName(schedule_, schedule);
  copyName(schedule2_, schedule2);
}

TEvent::~TEvent() {
  withdraw();
  for (auto& handler : handlers) {  // a vector's own order is not fixed
    handler.reset();
  }
}

void TEvent::refresh() {
  if (handlers.empty()) {
    return;
  }
  if (isAlways(schedule_) || isAlways(schedule2_)) {
    add(kAlways);
    // Intended: the first event that is bound to "always" is started once more by the scheduler's
    // first pass; the others have no registration of their own and depend on this start.
    onStarted();
    return;
  }
  add(schedule_);
  add(schedule2_);
}

void TEvent::add(const char* name) {
  // False also when another event owns the name; its registration must outlive this event.
  if (scheduler()->add(this, name, onCallback)) {
    registered_.push_back(name);
  }
}

void TEvent::withdraw() {
  for (const char* name : registered_) {
    scheduler()->del(name);
  }
  registered_.clear();
}

void TEvent::leaveBehind() {
  leftBehind_ = true;
  for (auto& handler : handlers) {
    if (auto* output = dynamic_cast<TOutHandler*>(handler.get())) {
      output->cancel();
    }
  }
}

void TEvent::onCallback(void* event, bool on) {
  auto* self = static_cast<TEvent*>(event);
  if (on) {
    if (++self->active_ == 1) {
      self->onStarted();
    }
  } else if (--self->active_ == 0) {
    self->onStopped();
  }
  if (self->active_ < 0) {
    logEx(2, "TEvent::onCallback() IPE, ref = %ld", static_cast<long>(self->active_));
  }
}

void TEvent::execute() {
  const unsigned long pause = static_cast<unsigned long>(std::max(period_, 0L)) * kUsPerMs;
  while (running()) {
    if (onDetect()) {
      onHandle();
    }
    os::usleep(pause);
  }
}

void TEvent::onLogEvent(const THandler&) {}

bool TEvent::onDetect() { return false; }

void TEvent::onHandle() {
  for (std::size_t i = 0; i < handlers.size() && !leftBehind_; ++i) {
    if (handlers[i]->onTrigger()) {
      onLogEvent(*handlers[i]);
    }
  }
}

void TEvent::handleAndPause() {
  TEvent::onHandle();
  os::sleep(kPauseAfterFiringS);
}

void TEvent::onStarted() { run(); }

void TEvent::onStopped() { stop(false); }
