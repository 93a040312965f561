// The identifiers that the event engine writes to the camera's event log. Their texts are in
// docs/event-log.md.
#pragma once

class THandler;

constexpr int kLogInputDetected = 501;
constexpr int kLogIntervalStarted = 502;

// What is logged for an action, by what its handler does. 0: nothing.
struct TActionLogIds {
  int output;  // relay output
  int buzzer;
  int usb;  // recording to USB storage
  int ftp;  // upload
  int mail;
};

// Actions carried out, by the kind of event that fired. The web triggers have no identifier for a
// recording to USB storage, and none has one for a recording to the network share. Motion and
// schedule events log nothing.
constexpr TActionLogIds kInputActions{523, 519, 513, 508, 503};
constexpr TActionLogIds kIntervalActions{524, 521, 514, 509, 504};
constexpr TActionLogIds kWebActions{525, 520, 0, 510, 505};

// Actions suppressed because the camera's privacy mode is on.
constexpr TActionLogIds kSuppressedActions{526, 522, 516, 511, 506};

// Writes the identifier that `ids` has for what `handler` does, if any. Any thread.
void logAction(const TActionLogIds& ids, const THandler& handler);
