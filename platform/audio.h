// Audio capture into the stream buffer "audio": 8 kHz, mono, mu-law (ITU-T G.711), 20 ms a frame.
#pragma once

#include "platform/thread.h"

// The audio options. They begin with -A and collide with no video option. Never changes after
// parsing.
class TAudioArgs {
 public:
  // Parses `argc` arguments; `argv` must outlive the object. Unknown options are ignored.
  TAudioArgs(int argc, char** argv);

  // Prints the options to standard output.
  void usage() const;

  const char* source = "default";  // -A<source>: an ALSA device, or a WAV file when it is a path
};

// The audio capture thread. A missing device is logged and tried again, never fatal.
class TAudioSource : public PThread {
 public:
  explicit TAudioSource(TAudioArgs& args);
  ~TAudioSource() override;

 protected:
  void execute() override;

 private:
  const char* source_;
};
