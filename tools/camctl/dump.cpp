// camctl dump: the stream to standard output.
#include <poll.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/timer.h"
#include "tools/camctl/camera.h"
#include "tools/camctl/commands.h"
#include "tools/camctl/frame_reader.h"
#include "tools/camctl/stop_flag.h"

namespace {

enum class Written { kAll, kEnd, kError };

// As much as a pipe that is ready takes without blocking, so that the end can be asked for
// meanwhile.
constexpr std::size_t kPiece = 4096;

// Writes out of the frame itself, which stays pinned meanwhile: a slow reader of ours costs the
// camera one frame of depth and never makes it wait.
Written writeOut(const char* data, std::size_t size) {
  for (std::size_t done = 0; done < size;) {
    if (endAsked()) return Written::kEnd;
    pollfd out{STDOUT_FILENO, POLLOUT, 0};
    if (poll(&out, 1, static_cast<int>(kWaitMs)) <= 0) continue;
    const ssize_t n = write(STDOUT_FILENO, data + done, std::min(size - done, kPiece));
    if (n >= 0) {
      done += static_cast<std::size_t>(n);
    } else if (errno == EPIPE) {
      return Written::kEnd;
    } else if (errno != EINTR) {
      return Written::kError;
    }
  }
  return Written::kAll;
}

Written writeFrame(const FrameReader::Frame& frame, DumpFormat format) {
  if (format == DumpFormat::kMjpeg) return writeOut(frame.payload(), frame.length());
  return writeOut(reinterpret_cast<const char*>(frame.record()), kFrameHeadBytes + frame.length());
}

}  // namespace

int runDump(DumpFormat format, long frames) {
  if (isatty(STDOUT_FILENO) != 0) {
    std::fputs("camctl: a stream is nothing for a terminal, send it into a file or a pipe\n",
               stderr);
    return kExitUsage;
  }
  endInOrder();
  FrameReader reader;
  std::uint32_t lastFrame = monotonicMs();
  for (long done = 0; (frames == 0 || done < frames) && !endAsked();) {
    const FrameReader::Frame frame(&reader, kWaitMs);
    if (!frame) {
      if (monotonicMs() - lastFrame > kNoPictureMs) return sayNoPicture();
      continue;
    }
    lastFrame = monotonicMs();
    if (format == DumpFormat::kMjpeg && !frame.isPicture()) continue;
    switch (writeFrame(frame, format)) {
      case Written::kAll:
        ++done;
        break;
      case Written::kEnd:
        return kExitOk;
      case Written::kError:
        std::fprintf(stderr, "camctl: standard output: %s\n", std::strerror(errno));
        return kExitFailed;
    }
  }
  return kExitOk;
}
