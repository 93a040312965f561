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

int sayNoPicture() {
  if (!cameraRuns()) {
    std::fputs("camctl: the camera has stopped\n", stderr);
    return kExitNoCamera;
  }
  std::fputs("camctl: the camera delivers no picture\n", stderr);
  return kExitNoPicture;
}
