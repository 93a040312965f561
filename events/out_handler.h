// The action that pulses a relay output.
#pragma once

#include <mutex>

#include "events/handler.h"
#include "platform/relaxed.h"

// Switches a relay output on through the messaging service, and off by an alarm of the scheduler.
// Two handlers may drive the same output; the first pulse that ends then switches it off.
class TOutHandler : public THandler {
 public:
  // `output`: 0 the first relay output, otherwise the second. `duration`: length of the pulse in
  // seconds; 1 when it is below 1.
  TOutHandler(unsigned char output, long duration);
  // Ends a pulse that is pending, see cancel().
  ~TOutHandler() override;

  // Switches the output on. A pulse that is on is prolonged, never shortened.
  bool onTrigger() override;

  // Switches the output off if this handler has it on; afterwards no alarm reaches the handler.
  // Any thread.
  void cancel();

  unsigned char output() const { return output_; }

 private:
  // The scheduler's callback at the end of the pulse. Returns false: it comes once.
  static bool alarm(void* handler);
  void send(bool on) const;

  const unsigned char output_;
  // Keeps what is sent and the alarm together: without it the end of one pulse could switch off the
  // next one, which began at the same instant.
  std::mutex mutex_;
  Relaxed<bool> on_{false};  // for a pulse that got no alarm: nothing else would tell that it is on
};
