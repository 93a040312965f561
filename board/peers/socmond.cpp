// socmond of the virtual board: the process beside the daemon that drives the relay outputs. It
// takes messages at its name and shows the outputs in their value files, where everybody looks for
// them.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/camera_config.h"
#include "platform/ini_file.h"
#include "platform/message.h"

namespace {

constexpr char kSocket[] = "/run/camera/msg/socmond";
constexpr int kPathSize = 256;

struct Output {
  int messageId;
  const char* key;   // in section "IO" of the camera's configuration
  const char* file;  // when the configuration names none
};
constexpr Output kOutputs[] = {{52, "Output1", "/run/camera/io/output1"},
                               {59, "Output2", "/run/camera/io/output2"}};

// Returns the socket, bound to its name; -1 with `errno`.
int listenForMessages() {
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, kSocket, sizeof kSocket);
  unlink(kSocket);  // of a predecessor that was killed
  if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    return -1;
  return fd;
}

// Writes "1" or "0" into the value file of `output`. Returns true on success.
bool show(const Output& output, bool on) {
  char path[kPathSize];
  getIniStr(kCameraConfig, "IO", output.key, path, kPathSize, output.file);
  const int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  const bool written = write(fd, on ? "1\n" : "0\n", 2) == 2;
  return close(fd) == 0 && written;
}

}  // namespace

int main() {
  const int fd = listenForMessages();
  if (fd < 0) {
    std::fprintf(stderr, "socmond: %s: %s\n", kSocket, std::strerror(errno));
    return 1;
  }
  for (;;) {
    TMessage message{};
    if (recv(fd, &message, sizeof message, 0) != static_cast<ssize_t>(sizeof message)) continue;
    for (const Output& output : kOutputs) {
      if (output.messageId == message.id && !show(output, message.argument1 != 0)) {
        std::fprintf(stderr, "socmond: %s: %s\n", output.key, std::strerror(errno));
      }
    }
  }
}
