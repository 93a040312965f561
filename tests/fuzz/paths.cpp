// Paths from configuration files.
#include <memory>

#include "platform/linux/safe_path.h"
#include "platform/storage.h"
#include "tests/fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const int how = static_cast<int>(input.below(16));
  const int capacity = static_cast<int>(input.below(300));
  const std::string text = input.rest();
  const char* const path = text.c_str();
  const bool safe = isSafePath(path);
  const std::string parts = "/" + std::string(path) + "/";
  require(!safe || parts.find("/../") == parts.npos, "a safe path leads nowhere else");

  const std::unique_ptr<char[]> buffer(new char[static_cast<std::size_t>(capacity) + 1]);
  const int length = slash(path, buffer.get(), capacity, how);
  if (length >= 0) {
    const std::string made(buffer.get());
    require(safe, "what is not safe is refused");
    require(static_cast<int>(made.size()) == length && length < capacity, "a path fits its place");
    require(isSafePath(made.c_str()), "a safe path stays one");
    // An empty one stays empty; what is both wanted and forbidden is nobody's question.
    if (!made.empty() && (how & 3) == 1) require(made.front() != '/', "no slash in front");
    if (!made.empty() && (how & 2) != 0)
      require(made[0] == '/' && made.compare(0, 2, "//") != 0, "one slash in front");
    if (!made.empty() && (how & 12) == 4) require(made.back() != '/', "no slash behind");
    if (!made.empty() && (how & 8) != 0) require(made.back() == '/', "a slash behind");
  } else if (capacity > 0) {
    require(*buffer.get() == '\0', "a refused path is empty");
  }
  if (get_folder(path, buffer.get(), capacity) == 0)
    require(
        std::strlen(buffer.get()) < static_cast<std::size_t>(capacity) && isSafePath(buffer.get()),
        "a folder fits its place");
  return 0;
}
