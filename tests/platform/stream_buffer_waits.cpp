// Waiting, and numbers that wrap.
#include <signal.h>
#include <unistd.h>
#include <memory>

#include "platform/linux/stream_buffer_handle.h"
#include "platform/linux/stream_buffer_streams.h"
#include "platform/thread.h"
#include "platform/timer.h"
#include "tests/platform/stream_buffer_fixture.h"

namespace {

class StreamBufferWaits : public StreamBuffer {};

TEST_F(StreamBufferWaits, OfReadersEndAtTheirLimit) {
  ASSERT_TRUE(own());
  Place place;
  const std::uint32_t start = monotonicMs();
  EXPECT_EQ(readFrame(sbVideo(), &place, 130), 0U);
  EXPECT_GE(monotonicMs() - start, 130U);
  for (const long none : {0L, -1L, -2147483647L}) EXPECT_EQ(readFrame(sbVideo(), &place, none), 0U);
  EXPECT_LT(monotonicMs() - start, 10000U);
}

TEST_F(StreamBufferWaits, OfWritersEndAtTheirLimit) {
  ASSERT_TRUE(own({2, 4096}));
  Place place;
  ASSERT_TRUE(writeFrame(sbVideo(), 1) && writeFrame(sbVideo(), 2));
  const TAutoFrame first(sbVideo(), 1000, &place.number, &place.epoch, 0);
  const TAutoFrame second(sbVideo(), 1000, &place.number, &place.epoch, 0);
  ASSERT_TRUE(first && second);
  const std::uint32_t start = monotonicMs();
  EXPECT_FALSE(writeFrame(sbVideo(), 3, 130));
  EXPECT_GE(monotonicMs() - start, 130U);
  EXPECT_FALSE(writeFrame(sbVideo(), 3, 0));
  EXPECT_FALSE(writeFrame(sbVideo(), 3, -5));
  EXPECT_LT(monotonicMs() - start, 10000U);
  EXPECT_EQ(sbVideo()->head.busyCount, 3U);
}

// A body that waits, for much longer than its owner has patience.
class Waiter : public PThread {
 public:
  explicit Waiter(bool writes) : PThread("waiter"), writes_(writes) {}
  std::atomic<bool> waits{false};
  std::atomic<bool> got{true};

 protected:
  void execute() override {
    Place place;
    place.epoch = static_cast<std::int32_t>(sbVideo()->segment.epoch);
    place.number = static_cast<std::int32_t>(sbVideo()->head.latest.load());
    waits = true;
    const TAutoFrame frame(sbVideo(), 0, writes_ ? nullptr : &place.number,
                           writes_ ? nullptr : &place.epoch, 60000);
    got = static_cast<bool>(frame);
  }

 private:
  bool writes_;
};

TEST_F(StreamBufferWaits, EndEarlyWhenTheThreadIsAskedToStop) {
  ASSERT_TRUE(own({2, 4096}));
  Place place;
  ASSERT_TRUE(writeFrame(sbVideo(), 1) && writeFrame(sbVideo(), 2));
  const TAutoFrame first(sbVideo(), 1000, &place.number, &place.epoch, 0);
  const TAutoFrame second(sbVideo(), 1000, &place.number, &place.epoch, 0);
  for (const bool writes : {false, true}) {
    Waiter waiter(writes);
    waiter.run();
    ASSERT_TRUE(eventually([&] { return waiter.waits.load(); }));
    const std::uint32_t start = monotonicMs();
    EXPECT_TRUE(waiter.stop(true));
    EXPECT_LT(monotonicMs() - start, 3000U);
    EXPECT_FALSE(waiter.got);
  }
}

// With a wake that is missed the reader would sleep through its slice of 50 ms.
TEST_F(StreamBufferWaits, OfManyReadersEndWithTheFrame) {
  ASSERT_TRUE(own());
  constexpr int kReaders = 6;
  constexpr std::uint32_t kFrames = 60;
  SharedWords shared;
  std::vector<std::unique_ptr<Child>> readers;
  for (int i = 0; i < kReaders; ++i) {
    readers.push_back(std::make_unique<Child>([&shared] {
      Place place;
      readFrame(sbVideo(), &place);
      ++shared[1];
      for (std::uint32_t n = 1; n <= kFrames; ++n) {
        if (readFrame(sbVideo(), &place, 10000) != n) return 1;
        ++shared[0];
      }
      return 0;
    }));
  }
  ASSERT_TRUE(eventually([&] { return shared[1] == kReaders; }));
  std::vector<std::uint32_t> times;
  for (std::uint32_t n = 1; n <= kFrames; ++n) {
    const std::uint32_t start = monotonicMs();
    ASSERT_TRUE(writeFrame(sbVideo(), n));
    ASSERT_TRUE(eventually([&] { return shared[0] == n * kReaders; }));
    times.push_back(monotonicMs() - start);
  }
  for (auto& reader : readers) EXPECT_EQ(reader->wait(), 0);
  std::nth_element(times.begin(), times.begin() + kFrames / 2, times.end());
  EXPECT_LT(times[kFrames / 2], 40U);
}

class StreamBufferNumbers : public StreamBuffer,
                            public testing::WithParamInterface<std::uint32_t> {};

TEST_P(StreamBufferNumbers, WrapWithoutAGapForReadersAndWriters) {
  ASSERT_TRUE(own());
  ASSERT_NE(sbVideo(), nullptr);
  sbVideo()->head.latest = GetParam();
  Place place;
  EXPECT_EQ(readFrame(sbVideo(), &place), 0U);
  Place late = place;
  for (std::uint32_t i = 1; i <= 12; ++i) {
    ASSERT_TRUE(writeFrame(sbVideo(), i));
    ASSERT_NE(sbVideo()->head.latest, 0U) << "0 is no number";
    ASSERT_EQ(readFrame(sbVideo(), &place, 10000), i);
    Place joins;
    ASSERT_EQ(readFrame(sbVideo(), &joins), i < 4 ? 1 : i - 3) << "oldest of four frames";
    Child next([i] { return writeFrame(sbVideo(), i) ? 1 : 0; });  // there is a writer already
    ASSERT_EQ(next.wait(), 0);
  }
  EXPECT_EQ(readFrame(sbVideo(), &late), 9U);
  EXPECT_EQ(readFrame(sbVideo(), &late), 10U);
}

TEST_P(StreamBufferNumbers, AreRepairedByTheNextWriterAcrossTheWrap) {
  ASSERT_TRUE(own());
  ASSERT_NE(sbVideo(), nullptr);
  sbVideo()->head.latest = GetParam();
  Place place;
  readFrame(sbVideo(), &place);
  for (std::uint32_t i = 1; i <= 8; ++i) {
    Child writer([i] {
      signalAt(sb::Point::kFrameNumbered, SIGKILL);
      writeFrame(sbVideo(), i);
      return 1;
    });
    ASSERT_EQ(writer.wait(), -SIGKILL);
    ASSERT_EQ(readFrame(sbVideo(), &place), i);
  }
}

INSTANTIATE_TEST_SUITE_P(From, StreamBufferNumbers,
                         testing::Values(0x7FFFFFFAU, 0x7FFFFFFFU, 0xFFFFFFF9U, 0xFFFFFFFEU,
                                         0xFFFFFFFFU));

TEST_F(StreamBuffer, PlaceOfAnotherSegmentOrOfTheFutureJoinsAnew) {
  ASSERT_TRUE(own());
  for (std::uint32_t i = 1; i <= 3; ++i) ASSERT_TRUE(writeFrame(sbVideo(), i));
  const auto epoch = static_cast<std::int32_t>(sbVideo()->segment.epoch);
  Place other{2, epoch + 1};
  EXPECT_EQ(readFrame(sbVideo(), &other), 1U);
  Place future{1000000, epoch};
  EXPECT_EQ(readFrame(sbVideo(), &future), 1U);
  Place past{-1000000, epoch};
  EXPECT_EQ(readFrame(sbVideo(), &past), 1U);
}

// Four numbers around the whole circle: each has another one ahead of it.
TEST_F(StreamBuffer, DamagedNumbersHoldNoReaderAndAreWrittenOver) {
  ASSERT_TRUE(own());
  ASSERT_NE(sbVideo(), nullptr);
  for (const bool filled : {false, true}) {
    for (std::uint32_t i = 0; filled && i < kSmall.frames; ++i)
      ASSERT_TRUE(writeFrame(sbVideo(), 100 + i));
    Place place{static_cast<std::int32_t>(sbVideo()->head.latest),
                static_cast<std::int32_t>(sbVideo()->segment.epoch)};
    for (std::uint32_t i = 0; i < kSmall.frames; ++i) sbVideo()->seq[i] = 0x1000000U + (i << 30);
    EXPECT_EQ(readFrame(sbVideo(), &place), 0U) << "a frame that nobody wrote";
    for (std::uint32_t i = 1; i <= 2 * kSmall.frames; ++i) {
      ASSERT_TRUE(writeFrame(sbVideo(), i));
      EXPECT_EQ(readFrame(sbVideo(), &place), i);
    }
  }
}

TEST_F(StreamBuffer, ReadersCanNotWriteIntoFrames) {
  ASSERT_TRUE(own());
  ASSERT_TRUE(writeFrame(sbVideo(), 1));
  Child reader([] {
    sb::forgetStreams();
    Place place;
    const TAutoFrame frame(sbVideo(), 1000, &place.number, &place.epoch, 0);
    if (!frame) return 0;
    close(STDERR_FILENO);  // a sanitizer would tell the whole story
    frame->payload[0] = 'x';
    return 0;
  });
  EXPECT_NE(reader.wait(), 0);
  Place place;
  EXPECT_EQ(readFrame(sbVideo(), &place), 1U);
}

}  // namespace
