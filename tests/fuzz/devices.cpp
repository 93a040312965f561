// The sensor camera and its encoder: whatever their drivers give, and the files that tell of
// windows.
#include "capture/devices/lumo_cam.h"

#include "record/avi_writer.h"
#include "record/jpg_writer.h"
#include "tests/fakes/fake_platform.h"
#include "tests/fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  FakePlatform fake;
  fake.keepCalls(false);
  fake.files.put("/dev/mpg430", "");
  fake.files.put("/dev/video0", "");
  fake.files.put("/tmp/motion1.dat", input.bytes(input.byte()));
  fake.files.put("/tmp/motion2.dat", input.bytes(input.byte()));
  const int tables = 2;  // descriptors of the two devices
  int opened = 0;
  fake.onCall([&](const std::string& call) { opened += call.compare(0, 10, "open(/dev/") == 0; });
  // What a driver answers, and what it leaves behind, as far as the request has room.
  fake.onIoctl([&](int, unsigned long request, void* argument) {
    const unsigned how = input.byte();
    if (request == 0x01200000) {  // the stream header
      const std::string header = input.bytes(20);
      header.copy(static_cast<char*>(argument), header.size());
      return how < 0xf0 ? 20 : static_cast<int>(how);
    }
    if (how < 0x80) return static_cast<int>(how);
    return static_cast<int>(input.take<std::int32_t>());
  });
  fake.onRead([&](int fd, char* buffer, std::size_t room) -> long {
    if (opened < tables) return -1;
    if (const long got = fake.files.read(fd, buffer, room); got > 0) return got;
    const std::string bytes = input.bytes(std::min<std::size_t>(room, input.byte()));
    bytes.copy(buffer, bytes.size());
    const unsigned how = input.byte();
    if (how >= 0xfc) return static_cast<long>(room) + how;  // more than it was asked for
    return static_cast<long>(std::max<std::size_t>(bytes.size(), 1));
  });
  constexpr long kPayload = 600;
  fake.video.setFrameSize(kPayload + static_cast<long>(kFrameHeadBytes));
  fake.video2.setFrameSize(kPayload + static_cast<long>(kFrameHeadBytes));
  {
    TLumoCam camera;
    int client = 0;
    aviWriter()->addRef(&client);
    const std::unique_ptr<char[]> frame(new char[kPayload]);
    for (int i = 0; i < 12 && input.left() > 0; ++i) {
      const unsigned what = input.byte();
      const int value = input.take<std::int8_t>();
      if (what < 0x40) camera.setMode(what % 4 == 3 ? value : static_cast<int>(what % 4));
      if (what % 8 == 1) camera.setMotionDetection(value % 4);
      if (what % 8 == 2) camera.setOverlay(value % 4);
      if (what % 8 == 3) camera.setResolution(value);
      if (what % 8 == 4) camera.setBrightness(value * 1000);
      if (what % 8 == 5) camera.setCompression(value);
      const int length = camera.getImage(frame.get(), kPayload);
      require(length <= kPayload, "a frame is not longer than its place");
      for (int text = 0; text < 3; ++text) {
        const std::unique_ptr<char[]> place(new char[48]());
        camera.getUserdata(text, place.get());
        require(std::memchr(place.get(), '\0', 48) != nullptr, "texts end");
        camera.getMotionStatus(text);
      }
    }
    aviWriter()->delRef(&client);
  }
  return 0;
}
