// The overlay image in flash.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <string>

#include "platform/bytes.h"
#include "platform/overlay.h"
#include "tests/platform/support.h"

namespace {

const char* const kDevice = "/dev/mtdblock2";

std::string head(int width, int height) {
  TOverlayImage image{};
  std::memcpy(image.magic, kOverlayMagic, sizeof image.magic);
  storeLe16(image.width, static_cast<std::uint16_t>(width));
  storeLe16(image.height, static_cast<std::uint16_t>(height));
  return {reinterpret_cast<const char*>(&image), sizeof image};
}

class OverlayImage : public testing::Test {
 protected:
  OverlayImage() { std::filesystem::create_directories(root_.path("/dev")); }
  void flash(const std::string& content) { writeFile(root_.path(kDevice), content); }

  // Reads into memory of just `capacity` bytes. Returns what was read; "" on failure.
  std::string read(long capacity = kOverlayImageMax) {
    const std::unique_ptr<char[]> buffer(
        new char[static_cast<std::size_t>(capacity > 0 ? capacity : 0)]);
    long length = capacity;
    const int result = read_overlay_image(buffer.get(), &length, kDevice);
    EXPECT_EQ(result == 0, length > 0) << length;
    EXPECT_TRUE(length == 0 || length <= capacity) << length;
    return length > 0 ? std::string(buffer.get(), static_cast<std::size_t>(length)) : "";
  }
  // The log folds what is said again at once, so each reason can be asked for once in a test.
  bool said(const std::string& reason) {
    return log_.waitFor("2 no overlay image in /dev/mtdblock2: " + reason);
  }

  TempRoot root_;
  LogReader log_{root_};
};

TEST_F(OverlayImage, IsReadWithoutTheEmptyFlashBehindIt) {
  const std::string image = head(3, 2) + "twelve bytes";
  flash(image);
  EXPECT_EQ(read(), image);
  flash(image + std::string(100000, '\xff'));
  EXPECT_EQ(read(), image);
  EXPECT_EQ(log_.lines(), std::vector<std::string>());
}

TEST_F(OverlayImage, MayFillItsRoomToTheLastByte) {
  const std::string image = head(127, 128) + std::string(2 * 127 * 128, '\x5a');
  flash(image);
  const auto size = static_cast<long>(image.size());
  EXPECT_EQ(read(size), image);
  EXPECT_EQ(read(size - 1), "");
  EXPECT_TRUE(said("too large"));
  const std::string wide =
      head((kOverlayImageMax - 8) / 2, 1) + std::string(kOverlayImageMax - 8, 'x');
  flash(wide);
  EXPECT_EQ(read(), wide);
  flash(head((kOverlayImageMax - 8) / 2 + 1, 1) + std::string(kOverlayImageMax, 'x'));
  EXPECT_EQ(read(), "");
}

TEST_F(OverlayImage, IsRefusedWhenItIsLargerThanAnything) {
  for (const auto& [width, height] :
       {std::pair{65535, 65535}, {32768, 65535}, {32768, 32768}, {16384, 65535}}) {
    flash(head(width, height) + std::string(1000, 'x'));
    EXPECT_EQ(read(), "") << width;
  }
  for (const std::string& line : log_.lines())
    EXPECT_EQ(line.find("no image"), std::string::npos) << line;
}

TEST_F(OverlayImage, NeedsRoom) {
  flash(head(1, 1) + "xx");
  EXPECT_EQ(read(10).size(), 10U);
  for (const long capacity : {9L, 8L, 7L, 1L, 0L, -1L}) {
    EXPECT_EQ(read(capacity), "");
  }
  EXPECT_TRUE(said("too large"));
}

TEST_F(OverlayImage, IsRefusedWhenItIsCutOff) {
  const std::string image = head(3, 2) + "twelve bytes";
  for (const std::size_t length : {0, 1, 7, 8, 9, 19}) {
    flash(image.substr(0, length));
    EXPECT_EQ(read(), "") << length;
  }
  EXPECT_TRUE(said("cut off"));
}

TEST_F(OverlayImage, IsRefusedWhenItIsNone) {
  for (const std::string& content :
       {std::string(50000, '\xff'), std::string(50000, '\0'),
        "OSD2" + head(3, 2).substr(4) + "twelve bytes",
        "osd1" + head(3, 2).substr(4) + "twelve bytes", " " + head(3, 2) + "twelve bytes",
        head(0, 2) + "twelve bytes", head(3, 0) + "twelve bytes", head(0, 0)}) {
    flash(content);
    EXPECT_EQ(read(), "");
  }
  EXPECT_TRUE(said("no image"));
}

TEST_F(OverlayImage, IsRefusedWhereNothingCanBeRead) {
  EXPECT_EQ(read(), "");
  EXPECT_TRUE(said("can't be opened"));
  std::filesystem::create_directory(root_.path(kDevice));
  EXPECT_EQ(read(), "");
  EXPECT_TRUE(said("cut off"));
  std::filesystem::remove(root_.path(kDevice));
  ASSERT_EQ(mkfifo(root_.path(kDevice).c_str(), 0600), 0);
  EXPECT_EQ(read(), "");  // and does not wait for a writer
}

TEST_F(OverlayImage, MayComeInPieces) {
  const std::string image = head(3, 2) + "twelve bytes";
  ASSERT_EQ(mkfifo(root_.path(kDevice).c_str(), 0600), 0);
  const int pipe = open(root_.path(kDevice).c_str(), O_RDWR | O_CLOEXEC);
  // A pipe gives what is in it, and then has no more for the moment.
  ASSERT_EQ(write(pipe, image.data(), image.size()), static_cast<ssize_t>(image.size()));
  EXPECT_EQ(read(), image);
  ASSERT_EQ(write(pipe, image.data(), 15), 15);
  EXPECT_EQ(read(), "");
  EXPECT_TRUE(said("cut off"));
  close(pipe);
}

TEST_F(OverlayImage, IsMadeOfNoGarbage) {
  std::mt19937 random(11);
  std::uniform_int_distribution<int> byte(0, 255);
  int read = 0;
  for (int round = 0; round < 300; ++round) {
    std::string content = round % 3 == 0 ? std::string() : head(byte(random), byte(random));
    content.resize(static_cast<std::size_t>(byte(random)) * 400);
    for (std::size_t i = round % 3 == 0 ? 0 : 8; i < content.size(); ++i)
      content[i] = static_cast<char>(i * 7);
    if (round % 5 == 0 && !content.empty())
      content[static_cast<std::size_t>(byte(random)) % 8] ^= 1;
    flash(content);
    const std::string image = this->read(byte(random) * 256);
    ASSERT_EQ(image, content.substr(0, image.size()));
    read += image.empty() ? 0 : 1;
  }
  EXPECT_GT(read, 20);
}

}  // namespace
