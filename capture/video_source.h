// The capture thread: feeds the stream buffer "video" from the camera.
#pragma once

#include <memory>

#include "platform/thread.h"

class TCamera;
class TVideoArgs;
struct SB_FRAME;

// Owns the camera. Applies the settings that come by the status slots and stores one frame per
// pass. Constructed and destroyed on the main thread, which ends the body before; the body alone
// uses the camera's settings and frames meanwhile.
class TVideoSource : public PThread {
 public:
  // Makes the camera that `args` names, and publishes all settings for config() to apply.
  // Logs 3 "Can't attach video streaming buffer", 3 "KTX-310 must use CompressionType 0",
  // 3 "BRM-520 must use CompressionType 0 or 1": then there is no camera.
  explicit TVideoSource(TVideoArgs& args);
  // As above, with this camera (which may be null).
  TVideoSource(const TVideoArgs& args, std::unique_ptr<TCamera> camera);
  ~TVideoSource() override;

  // As PThread::run(), but without a camera nothing happens.
  void run() override;

  // Hands every setting that was written since the last call to the camera.
  void config();

  // Returns the number of the next frame. It is kept in a status slot, so that it goes on when the
  // daemon starts again, and wraps behind 2^31 - 1. Thread: the capture thread.
  int getFrameCount();

  // The camera; null iff there is none. It lives as long as this object.
  TCamera* camera() const { return camera_.get(); }

 protected:
  // Logs 1 "video buffer busy".
  void execute() override;

 private:
  void pass();
  int fill(SB_FRAME& frame, long size);

  std::unique_ptr<TCamera> camera_;
};
