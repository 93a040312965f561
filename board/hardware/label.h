// Text in a picture.
#pragma once

#include <string>

#include "board/hardware/overlay_layer.h"
#include "board/hardware/scene.h"

// Draws `text` in white on a black strip that fills `where` (small, inside the scene). The caller
// has a FontUse.
OverlayLayer drawLabel(const std::string& text, const Rectangle& where);
