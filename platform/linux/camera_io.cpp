#include "platform/camera_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>

#include "platform/camera_config.h"
#include "platform/linux/folders.h"
#include "platform/linux/ini_value.h"
#include "platform/linux/root.h"
#include "platform/os.h"
#include "platform/timer.h"

namespace {

constexpr std::size_t kNameSize = 256;
// So often is a file looked for by name: as often as other changes of the configuration.
constexpr std::uint32_t kLookMs = 3000;

// Finds the value file named by `key`. Allocates nothing: the inputs are read several times a
// second.
bool findFile(const char* key, const char* usual, char (&path)[PATH_MAX]) {
  char name[kNameSize];
  const bool named = iniText(kCameraConfig, "IO", key, name, sizeof name) && *name != '\0';
  return rooted(named ? name : usual, path, sizeof path);
}

// A file whose first character is '0' or '1', as those of the kernel's GPIO are. It stays open:
// opening and closing it for each look would be most of the system calls that the daemon makes
// while nothing happens. Never destroyed: threads left behind may still read.
class ValueFile {
 public:
  ValueFile(const char* key, const char* usual) : key_(key), usual_(usual) {}

  // As get_trigger_in_state().
  int read(int* state) {
    const std::lock_guard<std::mutex> guard(mutex_);
    const bool fresh = fd_ >= 0 && monotonicMs() - lookedMs_ < kLookMs && root_ == platformRoot();
    if (fresh && readOpen(state)) return 0;
    // What has no value may be gone, as a GPIO that was handed back: its successor may have one.
    return look(!fresh) && readOpen(state) ? 0 : -1;
  }

 private:
  bool readOpen(int* state) const {
    char value = 0;
    if (pread(fd_, &value, 1, 0) != 1 || (value != '0' && value != '1')) return false;
    *state = value - '0';
    return true;
  }

  // Opens what has the file's name now, unless `mayKeep` and that is what is open. Returns true iff
  // a file is open.
  bool look(bool mayKeep) {
    char path[PATH_MAX];
    struct stat status {};
    root_ = platformRoot();
    lookedMs_ = monotonicMs();
    const bool there = findFile(key_, usual_, path) && stat(path, &status) == 0;
    if (there && mayKeep && fd_ >= 0 && status.st_dev == device_ && status.st_ino == inode_)
      return true;
    if (fd_ >= 0) os::close(fd_);
    fd_ = there ? os::open(path, O_RDONLY | O_NONBLOCK) : -1;
    if (fd_ >= 0 && fstat(fd_, &status) == 0) {
      device_ = status.st_dev;
      inode_ = status.st_ino;
    }
    return fd_ >= 0;
  }

  const char* const key_;
  const char* const usual_;
  std::mutex mutex_;
  std::string root_;
  std::uint32_t lookedMs_ = 0;
  dev_t device_ = 0;
  ino_t inode_ = 0;
  int fd_ = -1;
};

}  // namespace

int get_trigger_in_state(int* state) {
  static auto& file = *new ValueFile("Input", "/run/camera/io/input");
  return file.read(state);
}

int get_trigger_out_state(int* state) {
  static auto& file = *new ValueFile("Output1", "/run/camera/io/output1");
  return file.read(state);
}

int get_trigger_out_state2(int* state) {
  static auto& file = *new ValueFile("Output2", "/run/camera/io/output2");
  return file.read(state);
}

int get_pt_privacy_state(int* state) {
  static auto& file = *new ValueFile("Privacy", "/run/camera/io/privacy");
  return file.read(state);
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
