#include "core/trigger_state.h"

#include "core/status_slots.h"
#include "platform/camera_io.h"
#include "platform/log.h"
#include "platform/message.h"
#include "platform/stream_buffer.h"

namespace {

// Returns `word` with the state that `getter` (called `name`) gives.
int polled(int word, const TBitField& field, int (*getter)(int* state), const char* name) {
  int state = 0;
  if (getter(&state) == 0) return field.put(word, state);
  logEx(2, "%s() fail", name);
  return word;
}

bool inputSignalled() {
  TMessage message{};
  return PeekMessage(&message) >= 0 && message.type == kMessageInputTrigger;
}

}  // namespace

void getTriggerState() {
  const int before = sbGetUserdata(sbVideo(), kSlotStatus);
  int word = before;
  word = polled(word, kStatusOutput1, get_trigger_out_state, "get_trigger_out_state");
  word = polled(word, kStatusOutput2, get_trigger_out_state2, "get_trigger_out_state2");
  word = polled(word, kStatusInput, get_trigger_in_state, "get_trigger_in_state");
  word = polled(word, kStatusPrivacy, get_pt_privacy_state, "get_pt_privacy_state");
  word = kStatusUnused.put(word, 0);
  word = kStatusInputEvent.put(word, inputSignalled() ? 1 : 0);
  if (word != before) sbSetUserdata(sbVideo(), kSlotStatus, word);
}
