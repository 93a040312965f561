// The overlays' settings in the configuration database.
#include "platform/overlay.h"

#include <cstring>

#include "platform/camera_config.h"
#include "platform/ini_file.h"
#include "platform/linux/ini_value.h"
#include "platform/log.h"

namespace {

constexpr std::size_t kLineSize = 256;   // longer than any line of the file
constexpr std::size_t kUtf8Longest = 4;  // bytes of one character

bool continuesCharacter(char byte) { return (static_cast<unsigned char>(byte) & 0xc0) == 0x80; }

// Returns how many bytes of `text` to keep, `most` at the most and no half character. What is no
// UTF-8 is cut anywhere.
std::size_t keptOf(const char* text, std::size_t most) {
  for (std::size_t less = 0; less < kUtf8Longest; ++less)
    if (!continuesCharacter(text[most - less])) return most - less;
  return most;
}

// Reads the text, without the quotes that keep its blanks.
void readText(const char* section, tag_Overlay* overlay) {
  char line[kLineSize];
  if (!iniText(kCameraConfig, section, "Text", line, sizeof line)) return;
  const char* text = line;
  std::size_t length = std::strlen(line);
  if (length >= 2 && line[0] == '"' && line[length - 1] == '"') {
    ++text;
    length -= 2;
  }
  constexpr std::size_t kMost = sizeof overlay->text - 1;
  if (length > kMost) {
    length = keptOf(text, kMost);
    logEx(2, "%s: [%s] Text is cut to its first %zu bytes", kCameraConfig, section, length);
  }
  std::memcpy(overlay->text, text, length);
  overlay->text[length] = '\0';
}

int readOverlay(const char* section, tag_Overlay* overlay) {
  tag_Overlay read{};
  if (iniInteger(kCameraConfig, section, "Enable", &read.enable) != 0) return -1;
  read.x = getIniInt(kCameraConfig, section, "X", 0);
  read.y = getIniInt(kCameraConfig, section, "Y", 0);
  readText(section, &read);
  read.colour = getIniInt(kCameraConfig, section, "Colour", 0);
  read.transparency = getIniInt(kCameraConfig, section, "Transparency", 0);
  read.showTime = getIniInt(kCameraConfig, section, "ShowTime", 0);
  *overlay = read;
  return 0;
}

}  // namespace

int get_overlay_image(tag_Overlay* overlay) { return readOverlay("OverlayImage", overlay); }
int get_overlay_motion(tag_Overlay* overlay) { return readOverlay("OverlayMotion", overlay); }
int get_overlay_text(tag_Overlay* overlay) { return readOverlay("OverlayText", overlay); }
