// The motion windows of the sensor camera: definitions, programming, levels.
#include <fcntl.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "capture/devices/lumo_cam.h"
#include "platform/bytes.h"
#include "platform/log.h"
#include "platform/os.h"
#include "platform/vicam.h"

namespace {

// The last column and row that a window may end in front of. Intended: a window never reaches the
// right or the bottom edge of the picture of 640x480, it ends a pixel short of it.
constexpr std::int32_t kLastColumn = 639;
constexpr std::int32_t kLastRow = 479;

constexpr std::size_t kLevelText = 24;  // a number of 64 bits and its end

// What a window is set to whose definition can't be read: it stays off.
constexpr tag_MotionDetect kDefault{0, 1, 1, 100, 100, 1, {}};

// The requests of one window, with the names that messages give them.
struct Request {
  unsigned number;
  const char* name;
};
struct WindowRequests {
  Request enable;
  Request x;
  Request y;
  Request width;
  Request height;
  Request threshold;
  Request status;
};
constexpr WindowRequests kRequests[] = {{{kVicamSetMdwnd1Enable, "SET_MDWND1_ENABLE"},
                                         {kVicamSetMdwnd1Xpos, "SET_MDWND1_XPOS"},
                                         {kVicamSetMdwnd1Ypos, "SET_MDWND1_YPOS"},
                                         {kVicamSetMdwnd1Width, "SET_MDWND1_WIDTH"},
                                         {kVicamSetMdwnd1Height, "SET_MDWND1_HEIGHT"},
                                         {kVicamSetMdwnd1Threshold, "SET_MDWND1_THRESHOLD"},
                                         {kVicamGetMdwnd1Status, "GET_MDWND1_STATUS"}},
                                        {{kVicamSetMdwnd2Enable, "SET_MDWND2_ENABLE"},
                                         {kVicamSetMdwnd2Xpos, "SET_MDWND2_XPOS"},
                                         {kVicamSetMdwnd2Ypos, "SET_MDWND2_YPOS"},
                                         {kVicamSetMdwnd2Width, "SET_MDWND2_WIDTH"},
                                         {kVicamSetMdwnd2Height, "SET_MDWND2_HEIGHT"},
                                         {kVicamSetMdwnd2Threshold, "SET_MDWND2_THRESHOLD"},
                                         {kVicamGetMdwnd2Status, "GET_MDWND2_STATUS"}}};

// Cuts one side of a window to the picture. The sum is taken in 64 bits, because a definition may
// hold any number. Intended: a length that is zero or negative is left to the driver.
void clampSide(std::int32_t* start, std::int32_t* length, std::int32_t last) {
  if (*start < 0) *start = 0;
  if (std::int64_t{*start} + *length > last) *length = last - *start;
}

void clamp(tag_MotionDetect* record) {
  clampSide(&record->x, &record->width, kLastColumn);
  clampSide(&record->y, &record->height, kLastRow);
}

// Reads as many bytes as there are, `size` at the most. Returns their number.
std::size_t readUpTo(int fd, unsigned char* bytes, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    const long got = os::read(fd, bytes + done, size - done);
    if (got < 1) break;
    done += static_cast<std::size_t>(got);
  }
  return done;
}

std::int32_t loadField(const unsigned char* bytes, int field) {
  return static_cast<std::int32_t>(loadLe32(bytes + 4 * field));
}

// Reads the definition of a window that another process has left in a file.
bool readDefinition(tag_MotionDetect* record, int window) {
  char path[32];
  std::snprintf(path, sizeof path, "/tmp/motion%d.dat", window);
  // Anybody may write there: a pipe under this name must not hold up the capture thread.
  const int fd = os::open(path, O_RDONLY | O_NONBLOCK);
  if (fd < 0) {
    logEx(2, "fopen(%s) fail", path);
    return false;
  }
  unsigned char bytes[sizeof(tag_MotionDetect)];
  const bool whole = readUpTo(fd, bytes, sizeof bytes) == sizeof bytes;
  os::close(fd);
  if (!whole) {
    logEx(2, "fread(%s) fail", path);
    return false;
  }
  record->enable = loadField(bytes, 0);
  record->x = loadField(bytes, 1);
  record->y = loadField(bytes, 2);
  record->width = loadField(bytes, 3);
  record->height = loadField(bytes, 4);
  record->threshold = loadField(bytes, 5);
  return true;
}

}  // namespace

// One record serves both windows: what window 1 has left in it counts for window 2 only if that
// can't be read, and then it is off.
int TLumoCam::setMotionDetection(int how) {
  const bool first = how == 0 || how == 2 || how == 3;
  const bool second = how == 1 || how == 2 || how == 3;
  tag_MotionDetect record = kDefault;
  if (first) programWindow(&record, 1, how == 3);
  record.enable = 0;
  return second ? programWindow(&record, 2, how == 3) : 0;
}

// Programs one window, which is switched off meanwhile: `record->enable` is 0 at first. Returns 0
// when it stays off, else the result of switching it on.
int TLumoCam::programWindow(tag_MotionDetect* record, int window, bool fromConfig) {
  const WindowRequests& requests = kRequests[window - 1];
  Window& state = windows_[window - 1];
  const auto set = [this](const Request& request, std::int32_t* value) {
    return ioctl2(request.number, value, request.name);
  };
  set(requests.enable, &record->enable);
  const bool loaded = getMotionDetection(record, window, fromConfig);
  if (loaded) clamp(record);
  const bool enabled = loaded && record->enable > 0;
  if (enabled) state.threshold = record->threshold;
  state.enabled = enabled;
  if (!enabled) return 0;
  set(requests.x, &record->x);
  set(requests.y, &record->y);
  set(requests.width, &record->width);
  set(requests.height, &record->height);
  set(requests.threshold, &record->threshold);
  return set(requests.enable, &record->enable);
}

bool TLumoCam::getMotionDetection(tag_MotionDetect* record, int window, bool fromConfig) {
  if (!fromConfig) return readDefinition(record, window);
  if (get_motion_detect(record, window) == 0) return true;
  logEx(2, "get_motion_detect(%d) fail", window);
  return false;
}

// Intended: a failed request is kept as the level, so that it is below any threshold in use.
void TLumoCam::pollMotion() {
  for (int i = 0; i < kWindows; ++i) {
    Window& window = windows_[i];
    const Request& request = kRequests[i].status;
    std::int32_t scratch = 0;
    window.status = window.enabled ? ioctl2(request.number, &scratch, request.name) : 0;
  }
}

int TLumoCam::getMotionStatus(int index) {
  if (index < 0 || index >= kWindows) return 0;
  const Window& window = windows_[index];
  return window.enabled && window.threshold < window.status ? 1 : 0;
}

// Intended: empty for a window that is off, so that a level of 0 is a measured one.
void TLumoCam::printLevel(int index, char* text) const {
  const Window& window = windows_[index];
  *text = '\0';
  if (window.enabled)
    std::snprintf(text, kLevelText, "%ld", static_cast<long>(window.status.load()));
}
