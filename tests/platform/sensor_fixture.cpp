#include "sensor_fixture.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>

#include "board/hardware/libav.h"
#include "platform/bytes.h"
#include "platform/overlay.h"

namespace {

class StagedScene : public Scene {
 public:
  explicit StagedScene(Stage* stage) : stage_(stage) {}
  void draw(std::int64_t, const Rectangle*, AVFrame* picture) override { stage_->draw(picture); }

 private:
  Stage* stage_;
};

std::uint8_t& at(const AVFrame& picture, int plane, int x, int y) {
  return picture.data[plane][static_cast<std::ptrdiff_t>(picture.linesize[plane]) * y + x];
}

}  // namespace

void Stage::show(Play play) {
  const std::lock_guard<std::mutex> lock(mutex_);
  play_ = std::move(play);
}

void Stage::draw(AVFrame* picture) {
  const std::lock_guard<std::mutex> lock(mutex_);
  play_(picture);
}

void PaceOfTest::wait(std::int64_t untilMs, std::condition_variable*,
                      std::unique_lock<std::mutex>*) {
  const std::int64_t before = now.exchange(untilMs);
  waits.push_back(untilMs - before);
}

SensorTest::SensorTest()
    : world_(std::make_unique<StagedScene>(&stage_), &pace_), sensor_(&world_, &pace_) {
  stage_.show(drawShades);
}

void SensorTest::show(Stage::Play play) {
  stage_.show(std::move(play));
  nextPicture();
}

void SensorTest::nextPicture() { pace_.now += World::kPictureMs; }

int SensorTest::set(unsigned request, std::int32_t value) {
  std::vector<char> argument(sizeof(value));
  std::memcpy(argument.data(), &value, sizeof(value));
  return sensor_.ioctl(request, &argument);
}

int SensorTest::setText(unsigned request, const std::string& text) {
  std::vector<char> argument(text.begin(), text.end());
  argument.push_back('\0');
  return sensor_.ioctl(request, &argument);
}

int SensorTest::setColours(const TVideoPicture& colours) {
  std::vector<char> argument(sizeof(colours));
  std::memcpy(argument.data(), &colours, sizeof(colours));
  return sensor_.ioctl(kVidiocspict, &argument);
}

int SensorTest::setWindow(std::uint32_t width, std::uint32_t height) {
  const TVideoWindow window{0, 0, width, height, 0, 0, 0, 0};
  std::vector<char> argument(sizeof(window));
  std::memcpy(argument.data(), &window, sizeof(window));
  return sensor_.ioctl(kVidiocswin, &argument);
}

int SensorTest::setImage(int width, int height, std::uint16_t pixel) {
  const auto count = static_cast<std::size_t>(width * height);
  std::vector<char> image(sizeof(TOverlayImage) + 2 * count);
  std::memcpy(image.data(), kOverlayMagic, 4);
  storeLe16(&image[4], static_cast<std::uint16_t>(width));
  storeLe16(&image[6], static_cast<std::uint16_t>(height));
  for (std::size_t index = 0; index < count; ++index)
    storeLe16(&image[sizeof(TOverlayImage) + 2 * index], pixel);
  return sensor_.ioctl(kVicamSetGposdImg, &image);
}

int SensorTest::level(int window) {
  return set(window == 1 ? kVicamGetMdwnd1Status : kVicamGetMdwnd2Status, 0);
}

Picture SensorTest::capture() {
  Picture picture = makePicture(kSceneWidth, kSceneHeight);
  sensor_.capture(picture.get());
  return picture;
}

std::vector<char> SensorTest::readJpeg(std::size_t limit) {
  std::vector<char> data;
  const int result = sensor_.read(limit, &data);
  EXPECT_EQ(result, static_cast<int>(data.size()));
  return data;
}

void drawShades(AVFrame* picture) {
  for (int y = 0; y < kSceneHeight; ++y) {
    for (int x = 0; x < kSceneWidth; ++x)
      at(*picture, 0, x, y) = static_cast<std::uint8_t>(30 + x / 5 + y / 8);
  }
  for (int y = 0; y < kSceneHeight / 2; ++y) {
    for (int x = 0; x < kSceneWidth / 2; ++x) {
      at(*picture, 1, x, y) = static_cast<std::uint8_t>(90 + x / 8);
      at(*picture, 2, x, y) = static_cast<std::uint8_t>(110 + y / 6);
    }
  }
}

void drawPlain(AVFrame* picture, int luma, int u, int v) {
  fillLuma(picture, {0, 0, kSceneWidth, kSceneHeight}, luma);
  for (int y = 0; y < kSceneHeight / 2; ++y) {
    std::memset(&at(*picture, 1, 0, y), u, kSceneWidth / 2);
    std::memset(&at(*picture, 2, 0, y), v, kSceneWidth / 2);
  }
}

void fillLuma(AVFrame* picture, const Rectangle& where, int luma) {
  for (int y = where.y; y < where.y + where.height; ++y)
    std::memset(&at(*picture, 0, where.x, y), luma, static_cast<std::size_t>(where.width));
}

int lumaAt(const AVFrame& picture, int x, int y) { return at(picture, 0, x, y); }
int uAt(const AVFrame& picture, int x, int y) { return at(picture, 1, x / 2, y / 2); }
int vAt(const AVFrame& picture, int x, int y) { return at(picture, 2, x / 2, y / 2); }

double meanLuma(const AVFrame& picture) {
  double sum = 0;
  for (int y = 0; y < picture.height; ++y)
    for (int x = 0; x < picture.width; ++x) sum += lumaAt(picture, x, y);
  return sum / (picture.width * picture.height);
}

bool samePixels(const AVFrame& one, const AVFrame& other) {
  for (int y = 0; y < one.height; ++y) {
    for (int x = 0; x < one.width; ++x) {
      if (lumaAt(one, x, y) != lumaAt(other, x, y) || uAt(one, x, y) != uAt(other, x, y) ||
          vAt(one, x, y) != vAt(other, x, y))
        return false;
    }
  }
  return true;
}

Rectangle differences(const AVFrame& one, const AVFrame& other) {
  int left = one.width, top = one.height, right = 0, bottom = 0;
  for (int y = 0; y < one.height; ++y) {
    for (int x = 0; x < one.width; ++x) {
      if (lumaAt(one, x, y) == lumaAt(other, x, y)) continue;
      left = std::min(left, x);
      top = std::min(top, y);
      right = std::max(right, x + 1);
      bottom = std::max(bottom, y + 1);
    }
  }
  return right == 0 ? Rectangle{0, 0, 0, 0} : Rectangle{left, top, right - left, bottom - top};
}

Picture decodeJpeg(const std::vector<char>& jpeg) {
  const AVCodec* decoder = avcodec_find_decoder(AV_CODEC_ID_MJPEG);
  const Codec codec(avcodec_alloc_context3(decoder));
  codec->err_recognition = AV_EF_EXPLODE | AV_EF_CAREFUL | AV_EF_COMPLIANT;
  codec->thread_count = 1;
  const Packet packet(av_packet_alloc());
  Picture picture(av_frame_alloc());
  if (avcodec_open2(codec.get(), decoder, nullptr) != 0) return nullptr;
  if (av_new_packet(packet.get(), static_cast<int>(jpeg.size())) != 0) return nullptr;
  std::memcpy(packet->data, jpeg.data(), jpeg.size());
  if (avcodec_send_packet(codec.get(), packet.get()) != 0) return nullptr;
  if (avcodec_receive_frame(codec.get(), picture.get()) != 0) return nullptr;
  return picture;
}
