// The way of a picture from the driver to the reader of the stream buffer: nothing on it is copied.
#include <memory>
#include <string>
#include <vector>

#include "capture/chunk_trailer.h"
#include "capture/video_args.h"
#include "capture/video_source.h"
#include "platform/application.h"
#include "record/avi_writer.h"
#include "record/jpg_writer.h"
#include "tests/fakes/allocations.h"
#include "tests/fakes/copies.h"
#include "tests/unit/capture/devices/lumo_fixture.h"
#include "tests/unit/capture/run_frames.h"

namespace {

// The sensor camera under the capture thread, with drivers whose pictures are large enough to
// count.
class FramePath : public LumoFixture {
 protected:
  FramePath() : args(0, nullptr) {
    args.resolution = 7;
    drivers.onChunk = [this](char* buffer, long) {
      const FakeScope notOurs;
      // A key picture of two chunks, then two predicted ones.
      static const char kKinds[] = {'\x10', 'i', '\x50', '\x50'};
      const char kind = kKinds[reads.size() % sizeof kKinds];
      std::string bytes(kChunk, static_cast<char>('a' + reads.size() % 20));
      if (kind != 'i') bytes.replace(0, 5, std::string("\0\0\1\xB6", 4) + kind);
      if (kind == 'i' || kind == '\x10') keyBytes += kChunk;
      return give(buffer, bytes);
    };
    drivers.onPicture = [this](char* buffer, long) {
      const FakeScope notOurs;
      return give(buffer, "\xFF\xD8" + std::string(kJpeg - 2, 'j'));
    };
    fake.keepCalls(false);
  }
  ~FramePath() override {
    aviWriter()->delRef(this);
    jpgWriter()->delRef(this);
  }

  long give(char* buffer, const std::string& bytes) {
    reads.push_back({buffer, bytes});
    return FakeDrivers::give(bytes, buffer, static_cast<long>(bytes.size()));
  }

  std::unique_ptr<TVideoSource> cameraInMode(int mode) {
    TCamera::defMode = mode;
    args.compressionType = mode;
    return std::make_unique<TVideoSource>(args, std::make_unique<TLumoCam>());
  }

  // What the drivers were given to write to, and what they wrote.
  struct Read {
    const char* to;
    std::string bytes;
  };
  std::vector<Read> reads;
  long keyBytes = 0;
  TVideoArgs args;
  static constexpr int kChunk = 1000;
  static constexpr int kJpeg = 3000;
};

TEST_F(FramePath, TheDriverWritesWhereTheReaderReads) {
  std::int32_t number = 0;
  std::int32_t epoch = 0;
  for (const int mode : {0, 1, 2, 3}) {
    const auto source = cameraInMode(mode);
    runFrames(fake, *source, 1);
    while (TAutoFrame(sbVideo(), 0, &number, &epoch, 0)) {
    }
    reads.clear();
    runFrames(fake, *source, 1);
    const TAutoFrame reader(sbVideo(), 0, &number, &epoch, 0);
    ASSERT_TRUE(reader) << mode;
    const char* at = reader->payload;
    if (mode == 2) {
      EXPECT_EQ(reads.at(0).to, at) << "the chunks overwrite the picture for recorders";
      reads.erase(reads.begin());
    }
    ASSERT_EQ(reads.size(), mode == 1 ? 1u : 3u) << mode;
    for (const Read& read : reads) {
      EXPECT_TRUE(read.to == at) << mode;
      EXPECT_TRUE(read.bytes.compare(0, std::string::npos, at, read.bytes.size()) == 0) << mode;
      at += read.bytes.size();
    }
  }
}

TEST_F(FramePath, NothingIsCopiedOrAllocatedForReaders) {
  for (const int mode : {0, 1, 2, 3}) {
    const auto source = cameraInMode(mode);
    jpgWriter()->delRef(source->camera());  // mode 3 takes it for itself
    runFrames(fake, *source, 2);
    const long copied = copiedBytes();
    const long allocated = allocations();
    runFrames(fake, *source, 100);
    EXPECT_EQ(copiedBytes() - copied, 0) << mode;
    EXPECT_EQ(allocations() - allocated, 0) << mode;
  }
  EXPECT_EQ(fake.video2.published(), 0);
}

TEST_F(FramePath, KeyFramesAreCopiedOnceForRecordersAndOnceIntoTheirBuffer) {
  const auto source = cameraInMode(0);
  aviWriter()->addRef(this);
  runFrames(fake, *source,
            4);  // twelve chunks: what was gathered last is complete, and not yet published
  const long copied = copiedBytes();
  const long published = fake.video2.published();
  keyBytes = 0;
  runFrames(fake, *source, 40);
  EXPECT_EQ(fake.video2.published() - published, 30);
  EXPECT_EQ(keyBytes, 30 * 2 * kChunk);
  EXPECT_EQ(copiedBytes() - copied, 2 * keyBytes + 30 * TAviWriter::kHeaderBytes);
}

TEST_F(FramePath, PicturesAreCopiedOnceIntoTheRecordersBuffer) {
  const auto source = cameraInMode(2);
  jpgWriter()->addRef(this);
  runFrames(fake, *source, 2);
  const long copied = copiedBytes();
  runFrames(fake, *source, 40);
  EXPECT_EQ(copiedBytes() - copied, 40 * kJpeg);
}

}  // namespace
