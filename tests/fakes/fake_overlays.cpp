#include "tests/fakes/fake_overlays.h"

#include <cstring>
#include <string>

#include "tests/fakes/fake_platform.h"

namespace {

FakePlatform& fake() { return FakePlatform::the(); }

template <typename T>
int give(const char* function, const std::string& argument, const std::optional<T>& value, T* to) {
  FakeScope scope;
  fake().record(std::string(function) + "(" + argument + ")");
  if (fake().failing(function) || !value) return -1;
  *to = *value;
  return 0;
}

}  // namespace

int get_overlay_image(tag_Overlay* overlay) {
  return give("get_overlay_image", "", fake().overlays.image, overlay);
}

int get_overlay_motion(tag_Overlay* overlay) {
  return give("get_overlay_motion", "", fake().overlays.motion, overlay);
}

int get_overlay_text(tag_Overlay* overlay) {
  return give("get_overlay_text", "", fake().overlays.text, overlay);
}

int get_motion_detect(tag_MotionDetect* record, int window) {
  return give("get_motion_detect", std::to_string(window), fake().overlays.windows[window - 1],
              record);
}

// An empty file counts as read, so that the daemon has to look at the length.
int read_overlay_image(char* buffer, long* length, const char* device) {
  FakeScope scope;
  const long capacity = *length;
  fake().record("read_overlay_image(" + std::string(device) + "," + std::to_string(capacity) + ")");
  *length = 0;
  const std::string image = fake().files.content(device);
  const bool fits = static_cast<long>(image.size()) <= capacity;
  if (fake().failing("read_overlay_image") || !fake().files.exists(device) || !fits) return -1;
  std::memcpy(buffer, image.data(), image.size());
  *length = static_cast<long>(image.size());
  return 0;
}
