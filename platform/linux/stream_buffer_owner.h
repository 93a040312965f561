// The process that owns the stream buffers creates them; every other process attaches.
#pragma once

#include <cstdint>

namespace sb {

struct FrameSizes {
  std::uint32_t frames;
  std::uint32_t frameSize;  // bytes, record included
};
struct BufferSizes {
  FrameSizes video{16, 256 << 10};
  FrameSizes video2{12, 256 << 10};
  FrameSizes audio{64, 1024};  // 20 ms each: more than a second
};

// Reads one number of the camera's configuration; set where the platform can read ini files.
using IniReader = int (*)(const char* file, const char* section, const char* key, int fallback);
extern IniReader readIni;

// The sizes that section "Buffers" of /etc/camera.conf asks for, see docs/configuration.md:
//   VideoFrames      16       2 to 64        frames of "video"
//   VideoFrameSize   262144   1024 to 4 MiB  bytes of one, its 160-byte record included
//   Video2Frames     12                      the same for "video2"
//   Video2FrameSize  262144
//   AudioFrames      64                      the same for "audio"
//   AudioFrameSize   1024
// A number out of range gives the default and logs 2 "%s: [Buffers] %s is out of range: %d".
BufferSizes configuredSizes();

// Creates "video", "video2" and "audio" in /dev/shm/camera, or reuses what is there in the same
// size: numbers and slots outlive a restart. A segment of another size or version is replaced, and
// its users move over. Logs 3 "can't create buffer %s: %s".
// Returns true iff all are there. Main thread.
bool ownSegments(const BufferSizes& sizes);

// For the process that has called ownSegments(): makes the segment of `stream` anew whose name is
// gone, or taken by what is no segment, with the slots' values as far as this process knows them.
// Once in ten seconds at the most, as each takes memory for good. Logs 2 "buffer %s was taken away
// by another process, made anew". Any thread.
void restoreSegment(int stream);

}  // namespace sb

// ownSegments() with the configured sizes.
void sbOwnSegments();
