// Key frames gathered for recorders, of any chunks in any order.
#include "record/avi_writer.h"

#include "platform/bytes.h"
#include "record/jpg_writer.h"
#include "tests/fakes/fake_platform.h"
#include "tests/fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static FakePlatform& fake = *new FakePlatform;
  constexpr long kUsable = 900;
  fake.keepCalls(false);
  fake.video2.setFrameSize(kUsable + static_cast<long>(kFrameHeadBytes));
  Input input(data, size);
  TAviWriter writer;
  TJpgWriter pictures;
  static const std::string payload(2000, 'x');
  char header[TAviWriter::kHeaderBytes] = {};
  bool client = false;
  TDateTime now;
  now.set();
  while (input.left() > 0) {
    const unsigned what = input.byte();
    const long length = what % 32 < 16 ? input.take<std::uint8_t>() : input.take<std::int16_t>();
    const long given = std::min(length, static_cast<long>(payload.size()));
    switch (what % 8) {
      case 0:
        client ? writer.delRef(&writer) : writer.addRef(&writer);
        client = !client;
        break;
      case 1:
        header[0] = static_cast<char>(what);
        writer.setHeader(header, (what & 64) != 0);
        break;
      case 2:
        writer.cut();
        break;
      case 3:
        pictures.write(payload.data(), given, now, 'J');
        break;
      default:
        require(writer.write(payload.data(), given, now, "IiPp"[what % 4]) >= 0,
                "lengths are lengths");
    }
  }
  if (client) writer.delRef(&writer);
  return 0;
}
