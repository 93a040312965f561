// One section of the events file as a plain record.
#pragma once

// What the section of one event says, defaults filled in. Never changes after reading. What belongs
// to an action is read only when the action is on.
struct TEventConfig {
  static constexpr int kTextSize = 64;  // of every text, terminator included

  // The kinds of events, as the file numbers them. Intended: 5 is the second web trigger (the
  // status slot 26), 6 the first (25).
  enum TSource { kMotion1, kMotion2, kInput, kInterval, kSchedule, kWeb2, kWeb1, kSourceCount };

  int number = 0;  // the section's name in decimal
  char schedule[kTextSize] = "";
  char schedule2[kTextSize] = "";
  TSource source = kMotion1;
  long period = 0;  // ms, at the limits of 32 bit it saturates

  // The actions, in the order in which they are carried out.
  bool out1 = false;
  long out1Duration = 0;  // s
  bool out2 = false;
  long out2Duration = 0;
  bool buzzer = false;
  int buzzerTone = 0;
  bool access = false;
  bool mail = false;
  char receiver[kTextSize] = "";
  char subject[kTextSize] = "";
  bool usb = false;
  char usbFolder[kTextSize] = "";
  bool ftp = false;
  long ftpDuration = 0;
  bool smb = false;
  // Intended: a continuous recording takes twice the period, its milliseconds counted as seconds.
  long smbDuration = 0;
};

// Reads section `number` of the events file `file`.
// Returns true iff the section holds a live event: it is not erased, at least one of its schedules
// is not "never", and its source is known. Otherwise `*config` is not to be used.
// Logs 2 "%s: [%d] Receiver is longer than %d characters, no mail"; the event does the rest.
bool readEventConfig(const char* file, int number, TEventConfig* config);
