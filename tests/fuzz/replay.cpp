// Runs a fuzz target over the files of its corpus, once each, where there is no fuzzer.
#include <dirent.h>

#include <vector>

#include "tests/fuzz/fuzz.h"

extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* count, char*** arguments);

namespace {

// A copy that ends where the input ends, so that a byte too far is seen.
std::vector<std::uint8_t> content(const std::string& path) {
  std::vector<std::uint8_t> bytes(1 << 16);
  std::FILE* const file = std::fopen(path.c_str(), "rb");
  require(file != nullptr, "the corpus can be read");
  bytes.resize(std::fread(bytes.data(), 1, bytes.size(), file));
  bytes.shrink_to_fit();
  std::fclose(file);
  return bytes;
}

}  // namespace

int main(int count, char** arguments) {
  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&count, &arguments);
  DIR* const folder = opendir(arguments[1]);
  require(folder != nullptr, "there is a corpus");
  int runs = 0;
  while (const dirent* const entry = readdir(folder)) {
    if (entry->d_name[0] == '.') continue;
    std::fprintf(stderr, "%s\n", entry->d_name);  // the last one is the one that failed
    const std::vector<std::uint8_t> input =
        content(std::string(arguments[1]) + "/" + entry->d_name);
    LLVMFuzzerTestOneInput(input.data(), input.size());
    ++runs;
  }
  closedir(folder);
  std::printf("%d inputs\n", runs);
  return runs > 0 ? 0 : 1;
}
