// The tool that makes the image of the graphic overlay.
#include <cairo.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "platform/bytes.h"
#include "platform/overlay.h"
#include "tests/platform/support.h"
#include "tests/slow_build.h"

namespace {

class OverlayTool : public testing::Test {
 protected:
  // Runs the tool. Returns its exit status; what it said is in `said_`.
  int run(std::vector<std::string> arguments) {
    Child tool([&arguments] {
      std::vector<char*> argv = {const_cast<char*>("overlay_image")};
      for (std::string& argument : arguments) argv.push_back(argument.data());
      argv.push_back(nullptr);
      execv(VS_OVERLAY_IMAGE, argv.data());
      return 127;
    });
    const int status = tool.wait();
    said_ = tool.output();
    return status;
  }

  // Writes a PNG picture. `colour`: ARGB of a pixel, colours not multiplied by alpha.
  std::string png(int width, int height, const std::function<std::uint32_t(int, int)>& colour) {
    cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height);
    unsigned char* data = cairo_image_surface_get_data(surface);
    const int stride = cairo_image_surface_get_stride(surface);
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) {
        const std::uint32_t pixel = colour(x, y);
        const std::uint32_t alpha = pixel >> 24;
        std::uint32_t stored = alpha << 24;
        for (const int shift : {0, 8, 16})
          stored |= ((pixel >> shift & 0xFF) * alpha + 127) / 255 << shift;
        std::memcpy(data + stride * y + 4 * x, &stored, sizeof stored);
      }
    }
    cairo_surface_mark_dirty(surface);
    const std::string path = root_.path("/picture.png");
    EXPECT_EQ(cairo_surface_write_to_png(surface, path.c_str()), CAIRO_STATUS_SUCCESS);
    cairo_surface_destroy(surface);
    return path;
  }

  std::string plain(int width, int height) {
    return png(width, height, [](int, int) { return 0xFFFF8000u; });
  }

  static int widthOf(const std::string& image) { return loadLe16(&image[4]); }
  static int heightOf(const std::string& image) { return loadLe16(&image[6]); }
  static int pixelOf(const std::string& image, int x, int y) {
    return loadLe16(&image[static_cast<std::size_t>(8 + 2 * (widthOf(image) * y + x))]);
  }

  TempRoot root_;
  std::string said_;
  const std::string out_ = root_.path("/out.img");
};

TEST_F(OverlayTool, KeepsAPictureThatFits) {
  const std::string picture = png(100, 50, [](int x, int y) {
    if (y == 49) return 0xFF00FF00u;
    return x < 50 ? 0xFFFF0000u : 0x00000000u;
  });
  ASSERT_EQ(run({picture, out_}), 0) << said_;
  EXPECT_EQ(said_, "100x50 pixels, 10008 bytes\n");
  const std::string image = readFile(out_);
  ASSERT_EQ(image.size(), 10008u);
  EXPECT_EQ(image.substr(0, 4), "OSD1");
  EXPECT_EQ(pixelOf(image, 0, 0), 0xFF00);
  EXPECT_EQ(pixelOf(image, 49, 48), 0xFF00);
  EXPECT_EQ(pixelOf(image, 50, 0) >> 12, 0);
  EXPECT_EQ(pixelOf(image, 99, 49), 0xF0F0);
}

TEST_F(OverlayTool, KeepsTheColoursOfClearPixels) {
  ASSERT_EQ(run({png(8, 8, [](int, int) { return 0x88FF8844u; }), out_}), 0);
  EXPECT_EQ(pixelOf(readFile(out_), 3, 3), 0x8F84);
}

TEST_F(OverlayTool, ScalesDownWhatIsTooLargeAndKeepsItsAspect) {
  SKIP_WHERE_RACES_ARE_WATCHED();
  struct Expected {
    int width, height, newWidth, newHeight;
  };
  for (const Expected& e : {Expected{1280, 960, 147, 110},
                            {640, 480, 147, 110},
                            {130, 126, 130, 126},
                            {130, 127, 129, 126},
                            {5000, 10, 640, 1},
                            {10, 5000, 1, 480}}) {
    ASSERT_EQ(run({plain(e.width, e.height), out_}), 0) << said_;
    const std::string image = readFile(out_);
    EXPECT_LE(image.size(), static_cast<std::size_t>(kOverlayImageMax));
    EXPECT_NEAR(widthOf(image), e.newWidth, 1) << e.width << "x" << e.height;
    EXPECT_NEAR(heightOf(image), e.newHeight, 1) << e.width << "x" << e.height;
    EXPECT_EQ(said_.find("scaled down") != std::string::npos, e.width * e.height > 130 * 126);
    for (const int x : {0, widthOf(image) - 1})
      for (const int y : {0, heightOf(image) - 1}) EXPECT_EQ(pixelOf(image, x, y), 0xFF80);
  }
}

TEST_F(OverlayTool, PutsTheImageIntoTheFlashOfABoard) {
  const std::string board = root_.path("/board");
  std::filesystem::create_directories(board);
  writeFile(board + "/.board", "");
  ASSERT_EQ(run({plain(120, 100), "--board", board}), 0) << said_;
  const std::string flash = readFile(board + "/var/flash/mtdblock2");
  ASSERT_EQ(flash.size(), 65536u);
  EXPECT_EQ(flash.substr(24008), std::string(65536 - 24008, '\xFF'));
  std::vector<char> image(kOverlayImageMax);
  long length = kOverlayImageMax;
  ASSERT_EQ(read_overlay_image(image.data(), &length, "/board/var/flash/mtdblock2"), 0);
  EXPECT_EQ(length, 24008);
  // Another image takes its place, and only the flash is there afterwards.
  ASSERT_EQ(run({"--board", board, plain(10, 10)}), 0) << said_;
  EXPECT_EQ(readFile(board + "/var/flash/mtdblock2").substr(208), std::string(65536 - 208, '\xFF'));
  EXPECT_FALSE(std::filesystem::exists(board + "/var/flash/mtdblock2.new"));
}

TEST_F(OverlayTool, LeavesFoldersAloneThatAreNoBoards) {
  EXPECT_EQ(run({plain(10, 10), "--board", root_.path("/nowhere")}), 1);
  EXPECT_NE(said_.find("is no board"), std::string::npos) << said_;
  EXPECT_FALSE(std::filesystem::exists(root_.path("/nowhere")));
}

TEST_F(OverlayTool, SaysWhichPictureItCantRead) {
  EXPECT_EQ(run({root_.path("/missing.png"), out_}), 1);
  EXPECT_NE(said_.find("missing.png: "), std::string::npos) << said_;
  for (const std::string& content : {std::string(), std::string("\x89PNG\r\n\x1A\n and no more")}) {
    writeFile(root_.path("/odd.png"), content);
    EXPECT_EQ(run({root_.path("/odd.png"), out_}), 1);
    EXPECT_NE(said_.find("odd.png: "), std::string::npos) << said_;
  }
  EXPECT_FALSE(std::filesystem::exists(out_));
}

TEST_F(OverlayTool, SaysWhereItCantWrite) {
  EXPECT_EQ(run({plain(10, 10), root_.path("/missing/out.img")}), 1);
  EXPECT_NE(said_.find("missing/out.img: No such file or directory"), std::string::npos) << said_;
}

TEST_F(OverlayTool, TellsHowItIsUsed) {
  EXPECT_EQ(run({"--help"}), 0);
  EXPECT_EQ(said_.rfind("usage: overlay_image", 0), 0u);
  for (const std::vector<std::string>& wrong :
       std::vector<std::vector<std::string>>{{},
                                             {"a.png"},
                                             {"a.png", "b", "c"},
                                             {"a.png", "--board"},
                                             {"--odd", "b"},
                                             {"a", "b", "--board", "c"}}) {
    EXPECT_EQ(run(wrong), 2);
    EXPECT_EQ(said_.rfind("usage: overlay_image", 0), 0u);
  }
}

}  // namespace
