// The action that sounds the buzzer.
#pragma once

#include "events/handler.h"

// Runs the command that plays a tone.
class TBuzzerHandler : public THandler {
 public:
  // `tone`: index of the tone, from 0.
  explicit TBuzzerHandler(int tone);

  // Starts the tone; does not wait for its end.
  bool onTrigger() override;

  int tone() const { return tone_; }

 private:
  const int tone_;
};
