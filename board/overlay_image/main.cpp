// overlay_image: makes the image for a camera's graphic overlay from a PNG picture.
#include <cstdio>
#include <string>
#include <vector>

#include "board/overlay_image/overlay_file.h"

namespace {

constexpr char kUsage[] =
    "usage: overlay_image IN.png OUT.img\n"
    "       overlay_image IN.png --board FOLDER\n"
    "\n"
    "Makes the image for the graphic overlay of the sensor camera: for the flash partition\n"
    "/dev/mtdblock2 of a camera, or at once in that of the virtual board in FOLDER. A picture "
    "that\n"
    "is too large is scaled down: an image has at most 32768 bytes, two for each pixel.\n";

int usage(std::FILE* out) {
  std::fputs(kUsage, out);
  return out == stdout ? 0 : 2;
}

int fail(const std::string& error) {
  std::fprintf(stderr, "overlay_image: %s\n", error.c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> files;
  std::string board;
  for (int at = 1; at < argc; ++at) {
    const std::string argument = argv[at];
    if (argument == "-h" || argument == "--help") return usage(stdout);
    if (argument == "--board" && at + 1 < argc)
      board = argv[++at];
    else if (argument.rfind("--", 0) == 0)
      return usage(stderr);
    else
      files.push_back(argument);
  }
  if (files.size() != (board.empty() ? 2u : 1u)) return usage(stderr);
  OverlayFile overlay;
  std::string error;
  if (!makeOverlay(files[0], &overlay, &error)) return fail(error);
  const bool ok = board.empty() ? writeFile(files[1], overlay.bytes, &error)
                                : writeFlash(board, overlay, &error);
  if (!ok) return fail(error);
  std::printf("%dx%d pixels, %zu bytes%s\n", overlay.width, overlay.height, overlay.bytes.size(),
              overlay.scaled ? ", scaled down" : "");
  return 0;
}
