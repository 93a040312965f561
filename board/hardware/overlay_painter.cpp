#include "board/hardware/overlay_painter.h"

#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>

namespace {

constexpr char kFamily[] = "DejaVu Sans";
constexpr double kFontPixels = 16;
constexpr double kOutlinePixels = 2.5;
constexpr int kMarginX = 4;  // of the box, beside the text
constexpr int kMarginY = 2;
constexpr int kWidest = 8192;  // no text of 256 characters that is drawn by sane fonts is wider

struct Colour {
  double red;
  double green;
  double blue;
};
constexpr Colour kBlack{0, 0, 0};
constexpr Colour kWhite{1, 1, 1};
constexpr Colour kColours[] = {kWhite,    kBlack,    {1, 0, 0}, {0, 1, 0},
                               {0, 0, 1}, {1, 1, 0}, {0, 1, 1}, {1, 0, 1}};
static_assert(std::size(kColours) == kTextColours, "a colour for each code");

// What a text of that colour can be read on.
const Colour& contrasting(int code) {
  const Colour& c = kColours[code];
  return 0.30 * c.red + 0.59 * c.green + 0.11 * c.blue < 0.25 ? kWhite : kBlack;
}

struct SurfaceDeleter {
  void operator()(cairo_surface_t* surface) const { cairo_surface_destroy(surface); }
};
struct ContextDeleter {
  void operator()(cairo_t* context) const { cairo_destroy(context); }
};

// Cairo's image in memory with the pen that draws into it.
class Canvas {
 public:
  Canvas(int width, int height)
      : surface_(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height)),
        pen_(cairo_create(surface_.get())) {
    cairo_select_font_face(pen_.get(), kFamily, CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_BOLD);
    cairo_set_font_size(pen_.get(), kFontPixels);
  }

  cairo_t* pen() { return pen_.get(); }

  void use(const Colour& colour, double alpha) {
    cairo_set_source_rgba(pen(), colour.red, colour.green, colour.blue, alpha);
  }

  // The pixels, row by row; as many as the canvas was made for, clear ones after a failure.
  std::vector<std::uint32_t> pixels(int width, int height) {
    const auto columns = static_cast<std::size_t>(width);
    std::vector<std::uint32_t> result(columns * static_cast<std::size_t>(height));
    cairo_surface_flush(surface_.get());
    const unsigned char* data = cairo_image_surface_get_data(surface_.get());
    if (data == nullptr || cairo_status(pen()) != CAIRO_STATUS_SUCCESS) return result;
    const int stride = cairo_image_surface_get_stride(surface_.get());
    for (int row = 0; row < height; ++row)
      std::memcpy(&result[columns * static_cast<std::size_t>(row)],
                  data + static_cast<std::ptrdiff_t>(stride) * row,
                  columns * sizeof(std::uint32_t));
    return result;
  }

 private:
  std::unique_ptr<cairo_surface_t, SurfaceDeleter> surface_;
  std::unique_ptr<cairo_t, ContextDeleter> pen_;
};

void drawBox(const TextOverlay& overlay, Canvas* canvas) {
  if (overlay.transparency != kOpaque && overlay.transparency != kVeiledBackground) return;
  canvas->use(contrasting(overlay.colour), overlay.transparency == kOpaque ? 1 : 0.5);
  cairo_paint(canvas->pen());
}

void drawText(const TextOverlay& overlay, const std::string& text, double baseline,
              Canvas* canvas) {
  cairo_t* pen = canvas->pen();
  const bool outlined =
      overlay.transparency == kClearBackground || overlay.transparency == kTranslucent;
  cairo_push_group(pen);
  cairo_move_to(pen, kMarginX, kMarginY + baseline);
  if (outlined) {
    cairo_text_path(pen, text.c_str());
    canvas->use(contrasting(overlay.colour), 1);
    cairo_set_line_width(pen, kOutlinePixels);
    cairo_set_line_join(pen, CAIRO_LINE_JOIN_ROUND);
    cairo_stroke_preserve(pen);
    canvas->use(kColours[overlay.colour], 1);
    cairo_fill(pen);
  } else {
    canvas->use(kColours[overlay.colour], 1);
    cairo_show_text(pen, text.c_str());
  }
  cairo_pop_group_to_source(pen);
  cairo_paint_with_alpha(pen, overlay.transparency == kTranslucent ? 0.5 : 1);
}

OverlayLayer makeTextLayer(const TextOverlay& overlay) {
  if (overlay.enable == 0 || overlay.text.empty()) return {};
  const std::string text = displayable(overlay.text);
  cairo_font_extents_t font;
  cairo_text_extents_t extents;
  {
    Canvas ruler(1, 1);
    cairo_font_extents(ruler.pen(), &font);
    cairo_text_extents(ruler.pen(), text.c_str(), &extents);
    if (cairo_status(ruler.pen()) != CAIRO_STATUS_SUCCESS) return {};
  }
  const double ink = std::max(extents.x_advance, extents.x_bearing + extents.width);
  const int width = std::min(static_cast<int>(std::ceil(ink)) + 2 * kMarginX, kWidest);
  const int height = static_cast<int>(std::ceil(font.ascent + font.descent)) + 2 * kMarginY;
  Canvas canvas(width, height);
  drawBox(overlay, &canvas);
  drawText(overlay, text, std::ceil(font.ascent), &canvas);
  return {canvas.pixels(width, height), width, height, overlay.x, overlay.y};
}

// From 4 bits each to 8 bits each, multiplied by alpha.
std::uint32_t widen(std::uint16_t pixel, int transparency) {
  const auto part = [pixel](int shift) { return (pixel >> shift & 0xFu) * 17u; };
  std::uint32_t alpha = transparency == kOpaque ? 255u : part(12);
  if (transparency == kVeiledBackground || transparency == kTranslucent) alpha /= 2;
  const auto premultiplied = [alpha](std::uint32_t value) { return (value * alpha + 127) / 255; };
  return alpha << 24 | premultiplied(part(8)) << 16 | premultiplied(part(4)) << 8 |
         premultiplied(part(0));
}

OverlayLayer makeGraphicLayer(const GraphicOverlay& overlay) {
  if (overlay.enable == 0 || !overlay.image) return {};
  std::vector<std::uint32_t> pixels;
  pixels.reserve(overlay.image->pixels.size());
  for (const std::uint16_t pixel : overlay.image->pixels)
    pixels.push_back(widen(pixel, overlay.transparency));
  return {pixels, overlay.image->width, overlay.image->height, overlay.x, overlay.y};
}

// Length of the UTF-8 character at `at`, 0 when there is none.
std::size_t characterLength(const std::string& text, std::size_t at) {
  const auto byte = [&text](std::size_t index) {
    return index < text.size() ? static_cast<unsigned char>(text[index]) : 0u;
  };
  const unsigned first = byte(at);
  if (first < 0x80) return 1;
  const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  constexpr std::uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  std::uint32_t character = first & (0xFFu >> (length + 1));
  for (std::size_t next = 1; next < length; ++next) {
    if ((byte(at + next) & 0xC0) != 0x80) return 0;
    character = character << 6 | (byte(at + next) & 0x3F);
  }
  const bool surrogate = character >= 0xD800 && character <= 0xDFFF;
  if (first < 0xC0 || first > 0xF4 || character < kSmallest[length] || surrogate) return 0;
  return character > 0x10FFFF ? 0 : length;
}

}  // namespace

std::string displayable(const std::string& text) {
  std::string result;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t length = characterLength(text, at);
    const auto first = static_cast<unsigned char>(text[at]);
    if (length == 0)
      result += "\xEF\xBF\xBD";
    else if (length == 1 && (first < 0x20 || first == 0x7F))
      result += ' ';
    else
      result.append(text, at, length);
    at += std::max<std::size_t>(length, 1);
  }
  return result;
}

void OverlayPainter::paint(const SensorSettings& settings, AVFrame* picture) {
  if (!(settings.graphic == graphic_)) {
    graphic_ = settings.graphic;
    graphicLayer_ = makeGraphicLayer(graphic_);
  }
  if (!(settings.motionText == motionText_)) {
    motionText_ = settings.motionText;
    motionLayer_ = makeTextLayer(motionText_);
  }
  if (!(settings.dateTime == dateTime_)) {
    dateTime_ = settings.dateTime;
    dateTimeLayer_ = makeTextLayer(dateTime_);
  }
  graphicLayer_.blend(picture);
  motionLayer_.blend(picture);
  dateTimeLayer_.blend(picture);
}
