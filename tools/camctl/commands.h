// The commands of camctl. Each returns the exit code of the process, having said on standard error
// what went wrong; main() has made sure before that a camera runs, except for runRepair().
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

// Stores the next picture, of an MPEG-4 stream the next key picture as an AVI file; an existing
// file is replaced as a whole.
int runGrab(const std::string& file);

// Brings a recording, or all "*.avi" in a folder and those below, to the state of closed ones, and
// prints a line for each.
int runRepair(const std::string& path);

enum class DumpFormat {
  kAny,    // one of the following two, as the first frame is
  kMjpeg,  // JPEG pictures, one after the other
  kMpeg4,  // an MPEG-4 stream, from a key picture on
  kRaw,    // every frame with the record before it
};
// Writes the stream to standard output. `count`: how many pictures, or frames if kRaw; 0: until the
// end is asked for.
int runDump(DumpFormat format, long count);
