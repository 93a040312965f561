#include "tools/camctl/io_files.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/camera_config.h"
#include "platform/ini_file.h"
#include "platform/linux/root.h"

namespace {

bool setValue(const char* key, const char* usualFile, bool on) {
  char name[256];
  getIniStr(kCameraConfig, "IO", key, name, sizeof name, usualFile);
  const std::string path = rooted(name);
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  bool written = fd >= 0 && write(fd, on ? "1\n" : "0\n", 2) == 2;
  if (fd >= 0 && close(fd) != 0) written = false;
  if (!written) {
    std::fprintf(stderr, "%s: %s: %s\n", program_invocation_short_name, path.c_str(),
                 std::strerror(errno));
  }
  return written;
}

}  // namespace

bool setInput(bool on) { return setValue("Input", "/run/camera/io/input", on); }

bool setPrivacy(bool on) { return setValue("Privacy", "/run/camera/io/privacy", on); }
