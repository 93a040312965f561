// camctl grab: a picture into a file.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "platform/media.h"
#include "platform/timer.h"
#include "tools/camctl/camera.h"
#include "tools/camctl/commands.h"
#include "tools/camctl/frame_reader.h"
#include "tools/camctl/mpeg4_stream.h"
#include "tools/camctl/stop_flag.h"

namespace {

// A slow camera with many predicted pictures makes a key picture rarely.
constexpr std::uint32_t kNoKeyPictureMs = 30000;
constexpr std::size_t kAviMore = 1024;  // more than a file has besides its picture

bool writeAll(int fd, const std::string& data) {
  std::size_t done = 0;
  while (done < data.size()) {
    const ssize_t n = write(fd, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

int sayError(const std::string& file) {
  std::fprintf(stderr, "camctl: %s: %s\n", file.c_str(), std::strerror(errno));
  return kExitFailed;
}

// Builds the file beside its place, so that nobody ever sees half a picture under its name.
int store(const std::string& file, const std::string& data) {
  std::string built = file + ".XXXXXX";
  const int fd = mkostemp(built.data(), O_CLOEXEC);
  if (fd < 0) return sayError(file);
  const mode_t mask = umask(0);
  umask(mask);
  const bool complete = writeAll(fd, data) && fchmod(fd, 0666 & ~mask) == 0 && fsync(fd) == 0;
  if (close(fd) == 0 && complete && rename(built.c_str(), file.c_str()) == 0) return kExitOk;
  const int result = sayError(file);
  unlink(built.c_str());
  return result;
}

// Returns an AVI file of a key picture, empty if there can be none.
std::string aviOf(const Mpeg4Picture& picture) {
  const std::string data = picture.header + picture.data;
  std::string avi(data.size() + kAviMore, '\0');
  const long length =
      i2avi(data.data(), static_cast<long>(data.size()), avi.data(), static_cast<long>(avi.size()));
  avi.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  return avi;
}

// Looks for a picture in what the camera delivers. Bound to one thread.
class Grab {
 public:
  // Takes a frame. Returns the picture as it is to be stored, empty if there is none yet.
  std::string take(const FrameReader::Frame& frame) {
    const FrameChunks content = frame.content();
    if (content.kind() == FrameKind::kMpeg4) isStream_ = true;
    if (!isStream_ || content.kind() == FrameKind::kJpeg) return {frame.payload(), frame.length()};
    std::vector<Mpeg4Picture> pictures;
    stream_.take(frame.number(), frame.text(0), content.chunks(), &pictures);
    // The first of a stream is a key picture and has the header.
    return pictures.empty() ? "" : aviOf(pictures.front());
  }

  // For how long to look, and for what.
  std::uint32_t patienceMs() const { return isStream_ ? kNoKeyPictureMs : kNoPictureMs; }
  const char* wanted() const { return isStream_ ? "key picture" : "picture"; }

 private:
  Mpeg4Stream stream_;
  bool isStream_ = false;
};

}  // namespace

int runGrab(const std::string& file) {
  endInOrder();
  FrameReader reader;
  Grab grab;
  const std::uint32_t begun = monotonicMs();
  while (monotonicMs() - begun < grab.patienceMs() && !endAsked()) {
    std::string picture;
    {
      const FrameReader::Frame frame(&reader, kWaitMs);
      if (frame) picture = grab.take(frame);
    }
    if (picture.empty()) continue;
    if (file != "-") return store(file, picture);
    return writeAll(STDOUT_FILENO, picture) ? kExitOk : sayError("standard output");
  }
  return sayNoPicture(grab.wanted());
}
