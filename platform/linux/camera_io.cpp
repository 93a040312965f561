#include "platform/camera_io.h"

#include <fcntl.h>

#include <climits>
#include <cstring>
#include <string>

#include "platform/camera_config.h"
#include "platform/linux/folders.h"
#include "platform/linux/ini_value.h"
#include "platform/linux/root.h"
#include "platform/os.h"

namespace {

constexpr std::size_t kNameSize = 256;

// Finds the value file named by `key`. Allocates nothing: the inputs are read several times a
// second.
bool findFile(const char* key, const char* usual, char (&path)[PATH_MAX]) {
  char name[kNameSize];
  const bool named = iniText(kCameraConfig, "IO", key, name, sizeof name) && *name != '\0';
  return rooted(named ? name : usual, path, sizeof path);
}

// Reads a file whose first character is '0' or '1', as those of the kernel's GPIO are.
int readValue(const char* key, const char* usual, int* state) {
  char path[PATH_MAX];
  if (!findFile(key, usual, path)) return -1;
  const int fd = os::open(path, O_RDONLY | O_NONBLOCK);
  if (fd < 0) return -1;
  char value = 0;
  const bool good = os::read(fd, &value, 1) == 1 && (value == '0' || value == '1');
  os::close(fd);
  if (!good) return -1;
  *state = value - '0';
  return 0;
}

}  // namespace

int get_trigger_in_state(int* state) { return readValue("Input", "/run/camera/io/input", state); }

int get_trigger_out_state(int* state) {
  return readValue("Output1", "/run/camera/io/output1", state);
}

int get_trigger_out_state2(int* state) {
  return readValue("Output2", "/run/camera/io/output2", state);
}

int get_pt_privacy_state(int* state) {
  return readValue("Privacy", "/run/camera/io/privacy", state);
}

int set_trigger_in_state(int used) {
  char path[PATH_MAX];
  if (!findFile("InputUsed", "/run/camera/io/input_used", path)) return -1;
  if (const char* const slash = std::strrchr(path, '/'))
    makeFolders({path, static_cast<std::size_t>(slash - path)});
  // Over what is there, never cutting it first: who reads meanwhile finds the old or the new value.
  const int fd = os::open(path, O_WRONLY | O_CREAT | O_NONBLOCK);
  if (fd < 0) return -1;
  const bool written = os::write(fd, used != 0 ? "1\n" : "0\n", 2) == 2;
  return os::close(fd) == 0 && written ? 0 : -1;
}
