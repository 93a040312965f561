// Ini files: what is taken out of them, and looked up in them.
#include "platform/linux/ini_content.h"

#include "tests/fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  IniContent content;
  content.parse("file", std::string(reinterpret_cast<const char*>(data), size));
  int sections = 0;
  for (int n = content.sectionUpTo(INT32_MAX); n > 0; n = content.sectionUpTo(n - 1)) {
    require(++sections <= static_cast<int>(size), "sections are those of the file");
    const std::string name = std::to_string(n);
    content.find(name.c_str(), "Erased");
    for (int key = content.keyFrom(name.c_str(), "Start", 1); key > 0;) {
      const std::string start = "Start" + std::to_string(key);
      require(content.find(name.c_str(), start.c_str()) != nullptr, "a key that is there is found");
      if (key == INT32_MAX) break;
      const int next = content.keyFrom(name.c_str(), "Start", key + 1);
      require(next == 0 || next > key, "keys come in their order");
      key = next;
    }
  }
  return 0;
}
