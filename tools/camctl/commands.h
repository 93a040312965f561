// The commands of camctl. Each returns the exit code of the process, having said on standard error
// what went wrong; main() has made sure before that a camera runs.
#pragma once

#include <string>

#include "tools/camctl/exit_codes.h"

// Shows everything that the camera shares: slots, buffers, who holds which frame.
// `camera`: root of its file tree. `pid`: its process; 0: none runs, which is then the answer.
int runStatus(const std::string& camera, int pid, bool json);

// A line a second: frames, bytes, gaps, status word, and what is added to the event log.
// `seconds`: how long, 0: until the end is asked for. `eventsFrom`: the byte of the event log from
// which on it is shown, negative: what is added from now on.
int runWatch(long seconds, long eventsFrom);

// Prints one setting, or all of them when `name` is empty.
int runGet(const std::string& name);
int runSet(const std::string& name, int value);

enum class Trigger { kWeb1, kWeb2, kInput };
int runTrigger(Trigger trigger);
int runInput(bool on);
int runPrivacy(bool on);
int runReload();

// Stores the newest picture; an existing file is replaced as a whole.
int runGrab(const std::string& file);

enum class DumpFormat {
  kRaw,    // every frame with the record before it
  kMjpeg,  // the pictures alone, one after the other
};
// Writes the stream to standard output. `frames`: how many, 0: until the end is asked for.
int runDump(DumpFormat format, long frames);
