#include "platform/media.h"

// Not written yet: no camera device makes MPEG-4 so far, and a picture that can't be converted ends
// the recording with the message of its recorder.
long i2avi(const char* /*data*/, long /*length*/, char* /*buffer*/, long /*capacity*/) {
  return -1;
}
