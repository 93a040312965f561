// A file that stands for a camera.
#pragma once

#include "capture/camera.h"

// Delivers the whole content of a file as every frame, so that everything behind the camera runs
// without camera hardware. A file longer than a frame comes in pieces, one frame each. The file is
// opened once: what is written into it shows in the next frame, a new file under its name does not.
// Thread: as TCamera.
class TFileSource : public TCamera {
 public:
  using TCamera::TCamera;
  ~TFileSource() override;

  // As TCamera::getImage(), beginning anew at the end of the file.
  // Logs 3 "reading file source return %d" for a read without data.
  int getImage(char* buffer, long length) override;
  // As TCamera::setFramerate(), and sets the pacing; a negative rate leaves that as it was.
  int setFramerate(int framerate) override;
};
