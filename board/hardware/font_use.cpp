#include "board/hardware/font_use.h"

#include <cairo.h>
#include <fontconfig/fontconfig.h>
#include <atomic>

namespace {
std::atomic<int> users{0};
}

FontUse::FontUse() { ++users; }

FontUse::~FontUse() {
  if (--users > 0) return;
  cairo_debug_reset_static_data();
  FcFini();
}
