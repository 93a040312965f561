#include "events/out_handler.h"

#include <algorithm>

#include "platform/message.h"
#include "schedule/scheduler.h"

namespace {

// The process that drives the outputs, and what it calls them.
constexpr const char* kOutputProcess = "socmond";
constexpr int kFirstOutputMessage = 52;
constexpr int kSecondOutputMessage = 59;

constexpr long kShortestPulseS = 1;

}  // namespace

TOutHandler::TOutHandler(unsigned char output, long duration)
    : THandler(nullptr, duration), output_(output) {}

TOutHandler::~TOutHandler() { cancel(); }

bool TOutHandler::onTrigger() {
  if (!THandler::onTrigger()) {
    return false;
  }
  const std::lock_guard<std::mutex> guard(mutex_);
  on_ = true;
  send(true);
  scheduler()->alarm(this, std::max(duration(), kShortestPulseS), alarm);
  return true;
}

void TOutHandler::cancel() {
  // Both are asked: an alarm that runs out beside a new trigger may clear `on_` after the trigger
  // has set it, but then the trigger's alarm is pending.
  const bool pending = scheduler()->alarm(this, 0, nullptr);
  if (pending || on_) {
    on_ = false;
    send(false);
  }
}

bool TOutHandler::alarm(void* handler) {
  auto* self = static_cast<TOutHandler*>(handler);
  const std::lock_guard<std::mutex> guard(self->mutex_);
  // A trigger that came first has begun a new pulse, and its alarm is kept.
  if (scheduler()->rearmed(self)) return false;
  self->on_ = false;
  self->send(false);
  return false;
}

void TOutHandler::send(bool on) const {
  SendMessage(kOutputProcess, output_ == 0 ? kFirstOutputMessage : kSecondOutputMessage, on ? 1 : 0,
              0);
}
