#include "board/hardware/label.h"

#include <cairo.h>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

namespace {

struct CairoDeleter {
  void operator()(cairo_surface_t* surface) const { cairo_surface_destroy(surface); }
  void operator()(cairo_t* cairo) const { cairo_destroy(cairo); }
};

constexpr double kTextHeight = 0.75;  // of the strip

}  // namespace

OverlayLayer drawLabel(const std::string& text, const Rectangle& where) {
  const std::unique_ptr<cairo_surface_t, CairoDeleter> surface(
      cairo_image_surface_create(CAIRO_FORMAT_ARGB32, where.width, where.height));
  const std::unique_ptr<cairo_t, CairoDeleter> cairo(cairo_create(surface.get()));
  cairo_set_source_rgb(cairo.get(), 0, 0, 0);
  cairo_paint(cairo.get());
  cairo_select_font_face(cairo.get(), "monospace", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_BOLD);
  cairo_set_font_size(cairo.get(), where.height * kTextHeight);
  cairo_text_extents_t extents;
  cairo_text_extents(cairo.get(), text.c_str(), &extents);
  cairo_move_to(cairo.get(), (where.width - extents.width) / 2 - extents.x_bearing,
                (where.height - extents.height) / 2 - extents.y_bearing);
  cairo_set_source_rgb(cairo.get(), 1, 1, 1);
  cairo_show_text(cairo.get(), text.c_str());
  cairo_surface_flush(surface.get());

  const auto width = static_cast<std::size_t>(where.width);
  const auto height = static_cast<std::size_t>(where.height);
  std::vector<std::uint32_t> pixels(width * height);
  const unsigned char* data = cairo_image_surface_get_data(surface.get());
  const auto stride = static_cast<std::size_t>(cairo_image_surface_get_stride(surface.get()));
  for (std::size_t row = 0; data != nullptr && row < height; ++row)
    std::memcpy(&pixels[row * width], data + row * stride, width * sizeof pixels[0]);
  return {pixels, where.width, where.height, where.x, where.y};
}
