#include "platform/linux/root.h"

#include <cstdio>
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

bool rooted(const char* path, char* buffer, std::size_t size) {
  const int length = std::snprintf(buffer, size, "%s%s", root().c_str(), path);
  return length >= 0 && static_cast<std::size_t>(length) < size;
}
