// Two threads write to one word, and nothing orders them.
#include <thread>

namespace {
volatile int word = 0;
}  // namespace

int main() {
  std::thread other([] { word = 1; });
  word = 2;
  other.join();
  return 0;
}
