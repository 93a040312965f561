// hold_frames: a reader that takes frames and never gives them back.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "platform/linux/root.h"
#include "platform/stream_buffer.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fputs("hold_frames FOLDER FRAMES: says \"holding\" when it does, until it is killed\n",
               stderr);
    return 2;
  }
  setPlatformRoot(argv[1]);
  std::vector<std::unique_ptr<TAutoFrame>> held(static_cast<std::size_t>(std::atoi(argv[2])));
  std::int32_t number = 0;
  std::int32_t epoch = 0;
  for (auto& frame : held) do
      frame = std::make_unique<TAutoFrame>(sbVideo(), 0, &number, &epoch, 1000);
    while (!*frame);
  std::puts("holding");
  std::fflush(stdout);
  for (;;) pause();
}
