#include "platform/linux/root.h"

#include <utility>

namespace {
std::string& root() {
  static std::string value;
  return value;
}
}  // namespace

const std::string& platformRoot() { return root(); }

void setPlatformRoot(std::string value) {
  while (!value.empty() && value.back() == '/') value.pop_back();
  root() = std::move(value);
}

std::string rooted(const char* path) { return root() + path; }
