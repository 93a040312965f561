// Recorders on frames of "video" and "video2" that another process has written.
#include <memory>

#include "platform/bytes.h"
#include "record/ftp_recorder.h"
#include "record/mail_recorder.h"
#include "record/smb_recorder.h"
#include "record/usb_recorder.h"
#include "tests/fakes/fake_platform.h"
#include "tests/fuzz/fuzz.h"

namespace {

constexpr long kPayload = 1200;

// A frame whose record and trailers are of the input.
void push(FakePlatform& fake, FakeStream& stream, Input& input) {
  const int index = stream.reserve();
  if (index < 0) return;
  SB_FRAME* const frame = stream.frame(index);
  const unsigned how = input.byte();
  TDateTime now;
  now.set();
  storeLe32(frame->seconds, (how & 1) != 0 ? input.take<std::uint32_t>() : now.seconds());
  storeLe32(frame->microseconds, (how & 2) != 0 ? input.take<std::uint32_t>() : now.microseconds());
  storeLe32(frame->number, (how & 4) != 0 ? input.take<std::uint32_t>()
                                          : static_cast<unsigned>(stream.published()));
  auto* const payload = reinterpret_cast<char*>(frame) + kFrameHeadBytes;
  const std::string head = input.bytes(input.byte() % 32);
  head.copy(payload, head.size());
  const std::string text = input.bytes((how & 8) != 0 ? 41 : 0);
  text.copy(frame->userdata[0], text.size());
  std::string trailers = input.bytes(input.byte() % 4 * 6);
  trailers.copy(payload + kPayload - trailers.size(), trailers.size());
  storeLe32(frame->length, (how & 16) != 0 ? input.take<std::uint32_t>() : input.byte() * 4);
  if ((how & 32) != 0) fake.video.setSlot(24, input.take<std::int32_t>());
  stream.publish(index);
}

std::unique_ptr<TRecorder> make(unsigned which) {
  switch (which % 4) {
    case 0:
      return std::make_unique<TUsbRecorder>(nullptr, "/usb", "pictures", nullptr);
    case 1:
      return std::make_unique<TFtpRecorder>(nullptr);
    case 2:
      return std::make_unique<TMailRecorder>(nullptr, "a@b.c", "picture");
    default:
      return std::make_unique<TSmbRecorder>("");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  FakePlatform fake;
  fake.keepCalls(false);
  const unsigned which = input.byte();
  FakeStream& stream = which % 4 == 3 ? fake.video : fake.video2;
  for (FakeStream* one : {&fake.video, &fake.video2}) {
    one->setFrameSize(kPayload + static_cast<long>(kFrameHeadBytes));
    one->setDepth(4);
  }
  fake.smbMounted();
  {
    const auto recorder = make(which);
    recorder->start(static_cast<long>(input.byte()));
    for (int i = 0; i < 6; ++i) fake.at(0.2 + 0.4 * i, [&] { push(fake, stream, input); });
    fake.stopAfter(4);
    fake.runBody(*recorder);
  }
  require(stream.held() == 0, "every frame is given back");
  return 0;
}
