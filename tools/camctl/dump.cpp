// camctl dump: the stream to standard output.
#include <poll.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "platform/timer.h"
#include "tools/camctl/camera.h"
#include "tools/camctl/commands.h"
#include "tools/camctl/frame_reader.h"
#include "tools/camctl/mpeg4_stream.h"
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

// Writes the frames one by one. Bound to one thread.
class Dump {
 public:
  explicit Dump(DumpFormat format) : format_(format) {}

  // Takes a frame while it is pinned. Returns false iff it is not of the format.
  bool take(const FrameReader::Frame& frame) {
    const FrameChunks content = frame.content();
    if (format_ == DumpFormat::kAny && content.kind() != FrameKind::kUnknown) {
      format_ = content.kind() == FrameKind::kMpeg4 ? DumpFormat::kMpeg4 : DumpFormat::kMjpeg;
    }
    switch (format_) {
      case DumpFormat::kAny:
        return false;
      case DumpFormat::kMjpeg:
        if (content.kind() != FrameKind::kJpeg) return false;
        write(frame.payload(), frame.length());
        return true;
      case DumpFormat::kMpeg4:
        stream_.take(frame.number(), frame.text(0), content.chunks(), &pictures_);
        return content.kind() == FrameKind::kMpeg4;
      case DumpFormat::kRaw:
        write(reinterpret_cast<const char*>(frame.record()), kFrameHeadBytes + frame.length());
        return true;
    }
    return false;
  }

  // Writes what was taken to be written later, when no frame is pinned. `most`: how many pictures
  // may be written in all; 0: any number.
  void writeOn(long most) {
    for (const Mpeg4Picture& picture : pictures_) {
      if (written_ != Written::kAll || (most != 0 && count_ >= most)) break;
      write((picture.header + picture.data).c_str(), picture.header.size() + picture.data.size());
    }
    pictures_.clear();
  }

  Written written() const { return written_; }
  long count() const { return count_; }
  // What a camera does not deliver when nothing can be taken.
  const char* wanted() const {
    if (format_ == DumpFormat::kMjpeg) return "JPEG picture";
    return format_ == DumpFormat::kMpeg4 ? "MPEG-4 picture" : "picture";
  }

 private:
  void write(const char* data, std::size_t size) {
    written_ = writeOut(data, size);
    if (written_ == Written::kAll) ++count_;
  }

  DumpFormat format_;
  Mpeg4Stream stream_;
  std::vector<Mpeg4Picture> pictures_;
  Written written_ = Written::kAll;
  long count_ = 0;  // of the pictures, or frames, that were written
};

}  // namespace

int runDump(DumpFormat format, long count) {
  if (isatty(STDOUT_FILENO) != 0) {
    std::fputs("camctl: a stream is nothing for a terminal, send it into a file or a pipe\n",
               stderr);
    return kExitUsage;
  }
  endInOrder();
  FrameReader reader;
  Dump dump(format);
  std::uint32_t lastTaken = monotonicMs();
  while ((count == 0 || dump.count() < count) && !endAsked()) {
    bool taken = false;
    {
      const FrameReader::Frame frame(&reader, kWaitMs);
      taken = frame && dump.take(frame);
    }
    dump.writeOn(count);
    if (dump.written() == Written::kEnd) return kExitOk;
    if (dump.written() == Written::kError) {
      std::fprintf(stderr, "camctl: standard output: %s\n", std::strerror(errno));
      return kExitFailed;
    }
    // Writing may have taken long.
    if (taken) lastTaken = monotonicMs();
    if (monotonicMs() - lastTaken > kNoPictureMs) return sayNoPicture(dump.wanted());
  }
  return kExitOk;
}
