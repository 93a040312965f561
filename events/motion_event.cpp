#include "events/motion_event.h"

#include "capture/camera.h"

TMotion1Event::TMotion1Event(const char* schedule, const char* schedule2, long period,
                             TCamera* camera)
    : TEvent(schedule, schedule2, period), camera_(camera) {}

bool TMotion1Event::onDetect() { return motion(0); }

void TMotion1Event::onHandle() { handleAndPause(); }

bool TMotion1Event::motion(int window) const {
  return camera_ != nullptr && camera_->getMotionStatus(window) != 0;
}

bool TMotion2Event::onDetect() { return motion(1); }
