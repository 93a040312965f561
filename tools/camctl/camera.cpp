#include "tools/camctl/camera.h"

#include <cstdio>

#include "platform/linux/stream_buffer_handle.h"
#include "platform/stream_buffer.h"
#include "tools/camctl/boards.h"
#include "tools/camctl/exit_codes.h"

bool cameraRuns() {
  SB_HANDLE* video = sbVideo();
  return video != nullptr && daemonAmong([video](int byte) { return video->lockOwner(byte); }) != 0;
}

int sayNoPicture() { return sayNoPicture("picture"); }

int sayNoPicture(const char* wanted) {
  if (!cameraRuns()) {
    std::fputs("camctl: the camera has stopped\n", stderr);
    return kExitNoCamera;
  }
  std::fprintf(stderr, "camctl: the camera delivers no %s\n", wanted);
  return kExitNoPicture;
}
