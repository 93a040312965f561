// The overlays of the sensor camera: an image, a text for motion, and date and time.
#include <cstdio>
#include <memory>

#include "capture/devices/lumo_cam.h"
#include "platform/date_time.h"
#include "platform/log.h"
#include "platform/vicam.h"

namespace {

constexpr char kFlash[] = "/dev/mtdblock2";
constexpr std::int32_t kImageTransparency = 1;  // the image brings its own

// The longest text (127), the time (19) and the terminating 0 fit well.
constexpr std::size_t kStampText = 256;
static_assert(kStampText > 2 * sizeof(tag_Overlay::text) - 1, "text and time");

// Calls a getter of the configuration, and ends the text that it gives whatever it was.
bool fetch(int (*getter)(tag_Overlay*), tag_Overlay* overlay) {
  const bool ok = getter(overlay) == 0;
  overlay->text[sizeof overlay->text - 1] = '\0';
  return ok;
}

}  // namespace

// All overlays use one record, the last of them date and time: setTimestamp() finds its settings
// there. Each is switched on when everything else of it stands.
void TLumoCam::setOverlay(int how) {
  overlay_.enable = 0;
  ioctl2(kVicamSetGposdEnable, &overlay_.enable, "SET_GPOSD_ENABLE");
  ioctl2(kVicamSetMdosdEnable, &overlay_.enable, "SET_MDOSD_ENABLE");
  ioctl2(kVicamSetDtosdEnable, &overlay_.enable, "SET_DTOSD_ENABLE");
  showImage(how == 2);
  showMotionText();
  showDateAndTime();
}

void TLumoCam::showImage(bool load) {
  if (!fetch(get_overlay_image, &overlay_)) {
    logEx(2, "get_overlay_image() fail");
    return;
  }
  if (overlay_.enable == 0) return;
  if (load && !setOverlayImage(overlay_.image1, overlay_.image2)) return;
  overlay_.transparency = kImageTransparency;
  ioctl2(kVicamSetGposdXpos, &overlay_.x, "SET_GPOSD_XPOS");
  ioctl2(kVicamSetGposdYpos, &overlay_.y, "SET_GPOSD_YPOS");
  ioctl2(kVicamSetGposdTransp, &overlay_.transparency, "SET_GPOSD_TRANSP");
  ioctl2(kVicamSetGposdEnable, &overlay_.enable, "SET_GPOSD_ENABLE");
}

void TLumoCam::showMotionText() {
  if (!fetch(get_overlay_motion, &overlay_)) {
    logEx(2, "get_overlay_motion() fail");
    return;
  }
  if (overlay_.enable == 0) return;
  ioctl2(kVicamSetMdosdXpos, &overlay_.x, "SET_MDOSD_XPOS");
  ioctl2(kVicamSetMdosdYpos, &overlay_.y, "SET_MDOSD_YPOS");
  ioctl2(kVicamSetMdosdString, overlay_.text, "SET_MDOSD_STRING");
  ioctl2(kVicamSetMdosdTransp, &overlay_.transparency, "SET_MDOSD_TRANSP");
  ioctl2(kVicamSetMdosdColor, &overlay_.colour, "SET_MDOSD_COLOR");
  ioctl2(kVicamSetMdosdEnable, &overlay_.enable, "SET_MDOSD_ENABLE");
}

void TLumoCam::showDateAndTime() {
  if (!fetch(get_overlay_text, &overlay_)) {
    logEx(2, "get_overlay_text() fail");
    // The record still holds the motion text, which setTimestamp() must not take for its own.
    overlay_.enable = 0;
    return;
  }
  if (overlay_.enable == 0) return;
  if (overlay_.showTime == 0)
    ioctl2(kVicamSetDtosdString, overlay_.text, "SET_DTOSD_STRING");
  else
    setTimestamp();
  ioctl2(kVicamSetDtosdXpos, &overlay_.x, "SET_DTOSD_XPOS");
  ioctl2(kVicamSetDtosdYpos, &overlay_.y, "SET_DTOSD_YPOS");
  ioctl2(kVicamSetDtosdTransp, &overlay_.transparency, "SET_DTOSD_TRANSP");
  ioctl2(kVicamSetDtosdColor, &overlay_.colour, "SET_DTOSD_COLOR");
  ioctl2(kVicamSetDtosdEnable, &overlay_.enable, "SET_DTOSD_ENABLE");
}

void TLumoCam::setTimestamp() {
  if (overlay_.enable == 0 || overlay_.showTime == 0) return;
  TDateTime now;
  now.set();
  char text[kStampText];
  std::snprintf(text, sizeof text, "%s%s", overlay_.text, now.getTimeString().c_str());
  ioctl2(kVicamSetDtosdString, text, "SET_DTOSD_STRING");
}

// Hands the image in flash to the driver. Returns true iff it has taken it. The arguments say
// nothing about this image.
bool TLumoCam::setOverlayImage(int, int) {
  // Zeros behind the image, because the driver is not told its length and reads what the head says.
  const auto buffer = std::make_unique<char[]>(kOverlayImageMax);
  long length = kOverlayImageMax;
  if (read_overlay_image(buffer.get(), &length, kFlash) == 0 && length >= 1 &&
      ioctl2(kVicamSetGposdImg, buffer.get(), "SET_GPOSD_IMG") >= 0)
    return true;
  logEx(1, "read_overlay_image() fail or image length < 1");
  return false;
}
