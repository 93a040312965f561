// The JPEG coder of the virtual board.
#include "board/hardware/jpeg.h"

#include <cstring>

#include "hardware_fixture.h"

namespace {

std::vector<char> code(const AVFrame& picture, int quality) {
  std::vector<char> data;
  EXPECT_TRUE(JpegCoder().encode(picture, quality, &data));
  return data;
}

Picture shades(int width, int height) {
  const Picture whole = makePicture(kSceneWidth, kSceneHeight);
  drawShades(whole.get());
  Picture picture = makePicture(width, height);
  scalePicture(*whole, picture.get());
  return picture;
}

TEST(HardwareJpeg, TheSamePictureGivesTheSameBytesWhateverWasCodedBefore) {
  const Picture picture = shades(320, 240);
  const Picture other = shades(160, 120);
  const std::vector<char> expected = code(*picture, 65);
  JpegCoder coder;
  std::vector<char> data;
  for (const int quality : {65, 2, 65}) {
    EXPECT_TRUE(coder.encode(*other, 65, &data));
    EXPECT_TRUE(coder.encode(*picture, quality, &data));
    EXPECT_EQ(data == expected, quality == 65) << quality;
  }
  EXPECT_TRUE(coder.encode(*picture, 65, &data));
  EXPECT_EQ(data, expected);
}

TEST(HardwareJpeg, EveryQualityAndSizeDecodesWithoutAComplaint) {
  const LibavComplaints complaints;
  for (const auto& [width, height] :
       {std::pair{640, 480}, {320, 240}, {160, 120}, {34, 18}, {2, 2}}) {
    const Picture picture = shades(width, height);
    for (const int quality : {1, 2, 24, 50, 65, 79, 100}) {
      const Picture decoded = decodeJpeg(code(*picture, quality));
      ASSERT_TRUE(decoded) << width << " " << quality;
      EXPECT_EQ(decoded->width, width);
      EXPECT_EQ(decoded->height, height);
    }
  }
  EXPECT_EQ(LibavComplaints::text(), "");
}

TEST(HardwareJpeg, QualitiesOutsideTheRangeAreTheNearest) {
  const Picture picture = shades(160, 120);
  EXPECT_EQ(code(*picture, 0), code(*picture, 1));
  EXPECT_EQ(code(*picture, -5), code(*picture, 1));
  EXPECT_EQ(code(*picture, 101), code(*picture, 100));
}

TEST(HardwareJpeg, ShadesAndColoursFillTheRangeThatDecodersExpect) {
  const Picture picture = makePicture(64, 48);
  for (const auto& [limited, full] :
       {std::pair{16, 0}, {235, 255}, {126, 128}, {0, 0}, {255, 255}}) {
    for (int y = 0; y < 48; ++y)
      std::memset(picture->data[0] + y * picture->linesize[0], limited, 64);
    EXPECT_NEAR(lumaAt(*decodeJpeg(code(*picture, 100)), 30, 30), full, 1) << limited;
  }
  for (const auto& [limited, full] : {std::pair{16, 1}, {240, 255}, {128, 128}, {72, 64}}) {
    for (int y = 0; y < 24; ++y)
      std::memset(picture->data[1] + y * picture->linesize[1], limited, 32);
    const Picture decoded = decodeJpeg(code(*picture, 100));
    EXPECT_NEAR(uAt(*decoded, 30, 30), full, 2) << limited;
    EXPECT_NEAR(vAt(*decoded, 30, 30), 128, 1) << limited;
  }
}

TEST(HardwareJpeg, TellsItsTablesAndItsKind) {
  const std::vector<char> data = code(*shades(64, 48), 50);
  const std::string text(data.begin(), data.end());
  EXPECT_EQ(text.substr(0, 4), "\xFF\xD8\xFF\xE0");
  EXPECT_EQ(text.substr(6, 5), std::string("JFIF\0", 5));
  EXPECT_EQ(text.substr(text.size() - 2), "\xFF\xD9");
  const std::size_t tables = text.find("\xFF\xDB");
  ASSERT_NE(tables, std::string::npos);
  EXPECT_EQ(static_cast<int>(text[tables + 6]), 11) << "of the standard's own table at 50 per cent";
}

}  // namespace
