#include "events/schedule_event.h"

void TScheduleEvent::onStarted() {
  for (auto handler = handlers.rbegin(); handler != handlers.rend(); ++handler) {
    (*handler)->onStarted();
  }
}

void TScheduleEvent::onStopped() {
  for (auto handler = handlers.rbegin(); handler != handlers.rend(); ++handler) {
    (*handler)->onStopped();
  }
}
