// What runs per frame takes nothing from the heap.
#include <string>

#include "record/usb_recorder.h"
#include "tests/fakes/allocations.h"
#include "tests/unit/record/record_fixture.h"

namespace {

using testing::Gt;

class Allocation : public RecordFixture {
 protected:
  char client = 0;
};

TEST_F(Allocation, WritersAllocateNothingPerFrame) {
  TAviWriter avi;
  TJpgWriter jpeg;
  avi.addRef(&client);
  jpeg.addRef(&client);
  const std::string chunk(300, 'c');
  const long length = static_cast<long>(chunk.size());
  const auto write = [&] {
    for (const char type : {'I', 'i', 'P', 'p'}) avi.write(chunk.data(), length, now(), type);
    jpeg.write(chunk.data(), length, now(), 'J');
  };
  write();
  const long before = allocations();
  for (int i = 0; i < 100; ++i) write();
  EXPECT_EQ(before, allocations());
  EXPECT_EQ(202, fake.video2.published());
}

TEST_F(Allocation, WriterThatIsThereBeforeItsBufferAllocatesOnce) {
  fake.video2.detach();
  TAviWriter avi;
  avi.addRef(&client);
  fake.video2.attach();
  const long before = allocations();
  for (int i = 0; i < 10; ++i) {
    avi.write("key frame", 9, now(), 'I');
    avi.write("", 0, now(), 'P');
  }
  EXPECT_GE(allocations(), before + 1);
  EXPECT_LE(allocations(), before + 2) << "the assembly buffer, and the size of the frames";
}

TEST_F(Allocation, RecorderAllocatesNothingPerPicture) {
  FakeCamera camera;
  TUsbRecorder recorder(&camera, "/usb", "pics", nullptr);
  for (int i = 0; i < 50; ++i)
    fake.at(0.1 + i * 0.5, [this, i] {
      const FakeScope scope;
      fake.video2.push(i % 2 == 0 ? "\xFF\xD8 picture" : "key frame");
    });
  long early = 0;
  long late = 0;
  fake.at(2.05, [&] { early = allocations(); });
  fake.at(20.05, [&] { late = allocations(); });
  recorder.start(22);
  runBodies(recorder);
  EXPECT_EQ(early, late);
  EXPECT_THAT(fake.files.paths().size(), Gt(15U));
}

}  // namespace
