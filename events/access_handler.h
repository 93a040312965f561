// The action that publishes whether the camera may be accessed.
#pragma once

#include "events/handler.h"
#include "platform/relaxed.h"

// Sets the access mode while its event's active time lasts. Firing it does nothing more.
// The mode is one word for the whole process, written without a lock; any thread.
class TAccessHandler : public THandler {
 public:
  TAccessHandler();
  // Sets kAccessOff.
  ~TAccessHandler() override;

  // Sets kAccessOn. Returns true, whatever the privacy mode.
  bool onStarted() override;
  // Sets kAccessOff.
  void onStopped() override;

  // Keeps `value`, a TAccessMode, as the mode, and publishes it unless `flush` is 0.
  static void setMode(char value);

  // Publishes the mode in the status word, if it is not there already.
  static void update();

  static Relaxed<char> mode;
  // 0 while the event manager rebuilds the events, so that the modes in between are not seen.
  static Relaxed<char> flush;
};
