// AVI files of one key frame as players see them: ffprobe and ffmpeg.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/media.h"
#include "tests/platform/stream_header.h"
#include "tests/platform/support.h"

namespace {

class AviPlayers : public testing::Test {
 protected:
  void SetUp() override {
    if (!outputOf("ffprobe -version >/dev/null && ffmpeg -version >/dev/null").empty())
      GTEST_SKIP() << "ffmpeg is not installed";
  }

  // Returns key frames of a stream of that size: 20 bytes of header and the picture.
  std::vector<std::string> keyFrames(const std::string& size, const std::string& options) {
    const std::string file = root_.path("/stream.m4v");
    EXPECT_EQ(outputOf("ffmpeg -y -v error -f lavfi -i testsrc2=size=" + size +
                       ":rate=10 -frames:v 4 -c:v mpeg4 -g 3 " + options + " -f m4v " + file),
              "");
    const std::string stream = readFile(file);
    std::vector<std::string> frames;
    std::string header;
    for (std::size_t at = startCode(stream, 0); at < stream.size();) {
      const std::size_t next = startCode(stream, at + 4);
      const auto code = static_cast<unsigned char>(stream[at + 3]);
      if (code == 0) header.clear();
      if (code < 0x30) header += stream.substr(at, next - at);
      if (code == 0xb6 && (stream[at + 4] & 0xc0) == 0) {
        header.resize(20, '\0');
        frames.push_back(header + stream.substr(at, next - at));
      }
      at = next;
    }
    return frames;
  }

  // Expects a file that a player opens without a word, with one picture at one a second.
  void expectPlayable(const std::string& frame, const std::string& size) {
    std::vector<char> buffer(frame.size() + 1000);
    const long length = i2avi(frame.data(), static_cast<long>(frame.size()), buffer.data(),
                              static_cast<long>(buffer.size()));
    ASSERT_GT(length, 0);
    const std::string file = root_.path("/frame.avi");
    writeFile(file, std::string(buffer.data(), static_cast<std::size_t>(length)));
    EXPECT_EQ(outputOf("ffprobe -v warning -of csv=p=0 -count_frames -show_entries "
                       "stream=codec_name,width,height,r_frame_rate,duration,nb_read_frames " +
                       file),
              "mpeg4," + size + ",1/1,1.000000,1\n");
    EXPECT_EQ(outputOf("ffmpeg -v error -xerror -err_detect explode -i " + file + " -f null -"),
              "");
    // What is shown is what went in, not merely something.
    writeFile(root_.path("/frame.m4v"), frame);
    const auto sum = [](const std::string& of) {
      return outputOf("ffmpeg -v error -flags +bitexact -i " + of +
                      " -f framemd5 - | tail -n 1 | sed 's/.*,//'");
    };
    EXPECT_EQ(sum(file), sum(root_.path("/frame.m4v")));
  }

 private:
  static std::size_t startCode(const std::string& stream, std::size_t from) {
    const std::size_t at = stream.find(std::string("\0\0\1", 3), from);
    return at == std::string::npos ? stream.size() : at;
  }

  TempRoot root_;
};

TEST_F(AviPlayers, ShowAPictureOfEverySize) {
  for (const char* size : {"720x576", "640x480", "176x144", "160x120"}) {
    SCOPED_TRACE(size);
    const std::vector<std::string> frames = keyFrames(size, "-qscale:v 4");
    ASSERT_EQ(frames.size(), 2U);
    std::string withComma = size;
    withComma.replace(withComma.find('x'), 1, ",");
    expectPlayable(frames.back(), withComma);
  }
}

TEST_F(AviPlayers, ShowPicturesOfEveryQuality) {
  for (const char* quality : {"1", "31"}) {
    SCOPED_TRACE(quality);
    for (const std::string& frame : keyFrames("160x120", std::string("-qscale:v ") + quality))
      expectPlayable(frame, "160,120");
  }
}

}  // namespace
