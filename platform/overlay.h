// The overlays of the sensor camera: their settings and the image kept in flash.
#pragma once

#include <cstdint>

// Settings of one overlay. The text is of at most 127 characters.
struct tag_Overlay {
  std::int32_t enable;  // non-zero: shown
  std::int32_t x;       // of the top left corner, in pixels of the picture
  std::int32_t y;
  std::int32_t image1;  // kept for the image, not used
  std::int32_t image2;
  char text[128];             // UTF-8, terminated
  std::int32_t colour;        // code
  std::int32_t transparency;  // code
  std::int32_t showTime;      // non-zero: text and current time
};
static_assert(sizeof(tag_Overlay) == 160, "shared with the configuration library");

// Getters of the camera's configuration database, /etc/camera.conf: see docs/configuration.md. The
// graphic, the motion text, date and time. 0 on success; otherwise non-zero (the overlay's section
// or its key Enable is absent) and `*overlay` is unchanged. A text that is too long is cut at a
// character: logs 2 "%s: [%s] Text is cut to its first %zu bytes". Any thread.
int get_overlay_image(tag_Overlay* overlay);
int get_overlay_motion(tag_Overlay* overlay);
int get_overlay_text(tag_Overlay* overlay);

// Head of an overlay image as it lies in flash and goes to the driver, little-endian; the pixels
// follow, row by row from the top, two bytes each: 4 bits each of alpha (15: opaque), red, green
// and blue, from the most significant bit. docs/overlays.md shows how to make one.
struct TOverlayImage {
  char magic[4];            // kOverlayMagic
  unsigned char width[2];   // pixels
  unsigned char height[2];  // pixels
};
static_assert(sizeof(TOverlayImage) == 8, "lies in flash");
constexpr char kOverlayMagic[] = "OSD1";
constexpr long kOverlayImageMax = 32768;  // bytes with head, the most that the driver takes

// Reads the overlay image from `device` into `buffer`. `*length`: in, the capacity; out, the length
// of the image with its head. 0 on success; otherwise non-zero (not readable, no image, too large)
// and `*length` is 0. Logs 2 "no overlay image in %s: %s". Any thread.
int read_overlay_image(char* buffer, long* length, const char* device);
