// camctl grab: the newest picture into a file.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/timer.h"
#include "tools/camctl/camera.h"
#include "tools/camctl/commands.h"
#include "tools/camctl/frame_reader.h"
#include "tools/camctl/stop_flag.h"

namespace {

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

}  // namespace

int runGrab(const std::string& file) {
  endInOrder();
  FrameReader reader;
  const std::uint32_t begun = monotonicMs();
  while (monotonicMs() - begun < kNoPictureMs && !endAsked()) {
    std::string picture;
    {
      const FrameReader::Frame frame(&reader, kWaitMs);
      if (frame) picture.assign(frame.payload(), frame.length());
    }
    if (picture.empty()) continue;
    if (file != "-") return store(file, picture);
    return writeAll(STDOUT_FILENO, picture) ? kExitOk : sayError("standard output");
  }
  return sayNoPicture();
}
