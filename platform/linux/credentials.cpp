#include "platform/linux/credentials.h"

#include <sys/stat.h>

#include <climits>

#include "platform/camera_config.h"
#include "platform/linux/root.h"
#include "platform/log.h"
#include "platform/relaxed.h"

void checkCredentials() {
  static Relaxed<bool> told;
  constexpr mode_t kOthers = S_IRWXG | S_IRWXO;
  char path[PATH_MAX];
  struct stat status {};
  if (!rooted(kCameraConfig, path, sizeof path) || stat(path, &status) != 0) return;
  const bool open = (status.st_mode & kOthers) != 0;
  if (open && !told)
    logEx(2, "%s holds a password and others can read it: mode %04o", kCameraConfig,
          static_cast<unsigned>(status.st_mode & 07777));
  told = open;
}
