// Fonts in memory.
#pragma once

// Whoever draws text has one. The last that goes gives back the fonts of the whole process, which
// the libraries keep in ways that leak checkers can't follow; nobody may be drawing then. Any
// thread.
class FontUse {
 public:
  FontUse();
  FontUse(const FontUse&) = delete;
  FontUse& operator=(const FontUse&) = delete;
  ~FontUse();
};
