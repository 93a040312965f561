// Makes the overlay image that lies in a camera's flash.
#pragma once

#include <string>
#include <vector>

// An image as platform/overlay.h describes it.
struct OverlayFile {
  int width = 0;  // pixels
  int height = 0;
  bool scaled = false;  // the picture was larger than what fits
  std::vector<char> bytes;
};

// Reads a PNG picture. One that would be larger than kOverlayImageMax or than the camera's picture
// of 640x480 is scaled down with its aspect kept. Returns true on success; otherwise sets `*error`.
bool makeOverlay(const std::string& png, OverlayFile* overlay, std::string* error);

// Puts the image to the beginning of the flash partition of the virtual board in `folder`; the rest
// of the partition is erased. Who reads it meanwhile sees the old or the new image. Returns true on
// success; otherwise sets `*error`.
bool writeFlash(const std::string& folder, const OverlayFile& overlay, std::string* error);

// Writes just the image. Returns true on success; otherwise sets `*error`.
bool writeFile(const std::string& path, const std::vector<char>& bytes, std::string* error);
