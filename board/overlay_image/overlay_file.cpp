#include "board/overlay_image/overlay_file.h"

#include <cairo.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

#include "board/drivers/requests.h"
#include "platform/bytes.h"
#include "platform/overlay.h"

namespace {

constexpr int kPictureWidth = 640;
constexpr int kPictureHeight = 480;
constexpr int kPixelBytes = 2;
constexpr long kMostPixels = (kOverlayImageMax - long{sizeof(TOverlayImage)}) / kPixelBytes;
constexpr std::size_t kPartitionBytes = 65536;
constexpr char kErased = '\xFF';

struct SurfaceDeleter {
  void operator()(cairo_surface_t* surface) const { cairo_surface_destroy(surface); }
};
using Surface = std::unique_ptr<cairo_surface_t, SurfaceDeleter>;

struct ContextDeleter {
  void operator()(cairo_t* context) const { cairo_destroy(context); }
};

// How much smaller the picture has to become, 1 at the most.
double scaleOf(int width, int height) {
  const double pixels = static_cast<double>(width) * height;
  return std::min({1.0, static_cast<double>(kPictureWidth) / width,
                   static_cast<double>(kPictureHeight) / height,
                   std::sqrt(static_cast<double>(kMostPixels) / pixels)});
}

// Draws the picture in another size, and in the one format that the rest goes by.
Surface drawScaled(cairo_surface_t* picture, int width, int height) {
  Surface scaled(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height));
  const std::unique_ptr<cairo_t, ContextDeleter> pen(cairo_create(scaled.get()));
  cairo_scale(pen.get(), static_cast<double>(width) / cairo_image_surface_get_width(picture),
              static_cast<double>(height) / cairo_image_surface_get_height(picture));
  cairo_set_source_surface(pen.get(), picture, 0, 0);
  cairo_pattern_set_filter(cairo_get_source(pen.get()), CAIRO_FILTER_BEST);
  cairo_pattern_set_extend(cairo_get_source(pen.get()), CAIRO_EXTEND_PAD);  // edges stay opaque
  cairo_set_operator(pen.get(), CAIRO_OPERATOR_SOURCE);
  cairo_paint(pen.get());
  if (cairo_status(pen.get()) != CAIRO_STATUS_SUCCESS) return nullptr;
  cairo_surface_flush(scaled.get());
  return scaled;
}

// From 8 bits each, colours multiplied by alpha, to 4 bits each.
std::uint16_t narrow(std::uint32_t pixel) {
  const std::uint32_t alpha = pixel >> 24;
  if (alpha == 0) return 0;
  const auto part = [&](int shift) {
    const std::uint32_t value = std::min((pixel >> shift & 0xFF) * 255 / alpha, 255u);
    return (value * 15 + 127) / 255;
  };
  const std::uint32_t narrowAlpha = (alpha * 15 + 127) / 255;
  return static_cast<std::uint16_t>(narrowAlpha << 12 | part(16) << 8 | part(8) << 4 | part(0));
}

}  // namespace

bool makeOverlay(const std::string& png, OverlayFile* overlay, std::string* error) {
  const Surface picture(cairo_image_surface_create_from_png(png.c_str()));
  const cairo_status_t status = cairo_surface_status(picture.get());
  if (status != CAIRO_STATUS_SUCCESS) {
    *error = png + ": " + cairo_status_to_string(status);
    return false;
  }
  const int width = cairo_image_surface_get_width(picture.get());
  const int height = cairo_image_surface_get_height(picture.get());
  const double scale = scaleOf(width, height);
  overlay->scaled = scale < 1;
  overlay->width = std::max(static_cast<int>(width * scale), 1);
  overlay->height = std::max(static_cast<int>(height * scale), 1);
  const Surface drawn = drawScaled(picture.get(), overlay->width, overlay->height);
  if (!drawn) {
    *error = png + ": can't be scaled";
    return false;
  }
  const std::size_t count =
      static_cast<std::size_t>(overlay->width) * static_cast<std::size_t>(overlay->height);
  overlay->bytes.assign(sizeof(TOverlayImage) + count * kPixelBytes, '\0');
  char* to = overlay->bytes.data();
  std::memcpy(to, kOverlayMagic, sizeof(TOverlayImage::magic));
  storeLe16(to + offsetof(TOverlayImage, width), static_cast<std::uint16_t>(overlay->width));
  storeLe16(to + offsetof(TOverlayImage, height), static_cast<std::uint16_t>(overlay->height));
  to += sizeof(TOverlayImage);
  const unsigned char* rows = cairo_image_surface_get_data(drawn.get());
  const int stride = cairo_image_surface_get_stride(drawn.get());
  for (int y = 0; y < overlay->height; ++y) {
    for (int x = 0; x < overlay->width; ++x, to += kPixelBytes) {
      std::uint32_t pixel = 0;
      std::memcpy(&pixel, rows + static_cast<std::ptrdiff_t>(stride) * y + 4 * x, sizeof(pixel));
      storeLe16(to, narrow(pixel));
    }
  }
  return true;
}

bool writeFile(const std::string& path, const std::vector<char>& bytes, std::string* error) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  bool ok = file != nullptr && std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
  if (file != nullptr && std::fclose(file) != 0) ok = false;
  if (!ok) *error = path + ": " + std::strerror(errno);
  return ok;
}

bool writeFlash(const std::string& folder, const OverlayFile& overlay, std::string* error) {
  if (!std::filesystem::is_regular_file(folder + "/.board")) {
    *error = folder + " is no board";
    return false;
  }
  const std::string flash = folder + kFlashFile;
  std::vector<char> partition(kPartitionBytes, kErased);
  std::copy(overlay.bytes.begin(), overlay.bytes.end(), partition.begin());
  std::error_code failure;
  std::filesystem::create_directories(std::filesystem::path(flash).parent_path(), failure);
  if (!writeFile(flash + ".new", partition, error)) return false;
  std::filesystem::rename(flash + ".new", flash, failure);
  if (failure) *error = flash + ": " + failure.message();
  return !failure;
}
