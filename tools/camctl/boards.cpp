#include "tools/camctl/boards.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <memory>

#include "platform/linux/stream_buffer_layout.h"

namespace {

// The folder in which board/make enters every board, one symbolic link each; see board/common.sh.
std::string registry() {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime != nullptr && *runtime != '\0' && access(runtime, W_OK) == 0) {
    return std::string(runtime) + "/video_svr-boards";
  }
  return "/tmp/video_svr-boards-" + std::to_string(getuid());
}

// Everybody may create folders in /tmp, so a registry of somebody else is none.
bool isOurs(const std::string& folder) {
  struct stat about {};
  return lstat(folder.c_str(), &about) == 0 && S_ISDIR(about.st_mode) && about.st_uid == getuid();
}

std::string linkTarget(const std::string& path) {
  char target[PATH_MAX];
  const ssize_t length = readlink(path.c_str(), target, sizeof target);
  return length > 0 ? std::string(target, static_cast<std::size_t>(length)) : std::string();
}

bool isDaemon(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/comm");
  std::string name;
  return std::getline(file, name) && name == "video_svr";
}

}  // namespace

pid_t daemonAmong(const std::function<pid_t(int byte)>& ownerOf) {
  const pid_t writer = ownerOf(sb::kWriterByte);
  if (writer > 0) return writer;
  for (int lease = 0; lease < static_cast<int>(sb::kLeases); ++lease) {
    const pid_t user = ownerOf(lease);
    if (user > 0 && isDaemon(user)) return user;
  }
  return 0;
}

pid_t cameraAt(const std::string& root) {
  // Without waiting, should it be a pipe.
  const int fd = open((root + "/dev/shm/camera/video").c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return errno == ENOENT || errno == ENOTDIR ? 0 : -1;
  const pid_t daemon = daemonAmong([fd](int byte) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = byte;
    lock.l_len = 1;
    return fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK ? lock.l_pid : 0;
  });
  close(fd);
  return daemon;
}

std::vector<std::string> runningCameras() {
  std::vector<std::string> roots;
  if (cameraAt("") > 0) roots.emplace_back();
  const std::string folder = registry();
  if (!isOurs(folder)) return roots;
  const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(folder.c_str()), closedir);
  if (!entries) return roots;
  while (const dirent* entry = readdir(entries.get())) {
    const std::string board = linkTarget(folder + "/" + entry->d_name);
    if (!board.empty() && cameraAt(board) > 0) roots.push_back(board);
  }
  std::sort(roots.begin(), roots.end());
  return roots;
}
