#include "events/interval_event.h"

#include "events/log_ids.h"
#include "platform/event_log.h"
#include "schedule/scheduler.h"

namespace {

constexpr long kMsPerS = 1000;

}  // namespace

TIntervalEvent::~TIntervalEvent() { TIntervalEvent::onStopped(); }

void TIntervalEvent::onLogEvent(const THandler& handler) { logAction(kIntervalActions, handler); }

void TIntervalEvent::onStarted() {
  log_event(kLogIntervalStarted);
  alarm(this);
  scheduler()->alarm(this, period() / kMsPerS, alarm);
}

void TIntervalEvent::onStopped() { scheduler()->alarm(this, 0, nullptr); }

bool TIntervalEvent::alarm(void* event) {
  static_cast<TIntervalEvent*>(event)->onHandle();
  return true;
}
