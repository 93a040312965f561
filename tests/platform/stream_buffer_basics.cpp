// One writer and its readers, in one process and in several.
#include <cstring>
#include <memory>
#include <thread>

#include "platform/bytes.h"
#include "platform/linux/stream_buffer_handle.h"
#include "tests/platform/stream_buffer_fixture.h"

namespace {

TEST_F(StreamBuffer, IsNotAttachedWhileNobodyOwnsIt) {
  EXPECT_EQ(sbVideo(), nullptr);
  EXPECT_EQ(sbVideo2(), nullptr);
  EXPECT_EQ(sbAudio(), nullptr);
  EXPECT_EQ(sbGetFrameSize(nullptr), 0);
  EXPECT_TRUE(loggedLines().empty());
}

TEST_F(StreamBuffer, NullHandleHasNoFramesAndNoSlots) {
  Place place;
  EXPECT_FALSE(TAutoFrame(nullptr, 0, nullptr, nullptr, 1000));
  EXPECT_FALSE(TAutoFrame(nullptr, 0, &place.number, &place.epoch, 1000));
  sbSetUserdata(nullptr, 3, 7);
  EXPECT_EQ(sbGetUserdata(nullptr, 3), 0);
  EXPECT_EQ(sbTestUserdata(nullptr, 3), -1);
}

TEST_F(StreamBuffer, EachStreamHasItsOwnSegment) {
  ASSERT_TRUE(own());
  EXPECT_NE(sbVideo(), nullptr);
  EXPECT_NE(sbVideo2(), nullptr);
  EXPECT_NE(sbAudio(), nullptr);
  EXPECT_NE(sbVideo(), sbVideo2());
  EXPECT_EQ(sbVideo(), sbVideo());
  EXPECT_EQ(sbGetFrameSize(sbVideo()), 8192);
  EXPECT_EQ(sbGetFrameSize(sbAudio()), 1024);
  ASSERT_TRUE(writeFrame(sbVideo(), 5));
  Place place;
  EXPECT_EQ(readFrame(sbVideo2(), &place), 0U);
}

TEST_F(StreamBuffer, FramesComeInOrderAndOnce) {
  ASSERT_TRUE(own());
  for (std::uint32_t i = 1; i <= 3; ++i) ASSERT_TRUE(writeFrame(sbVideo(), i));
  Place place;
  EXPECT_EQ(readFrame(sbVideo(), &place), 1U);
  EXPECT_EQ(readFrame(sbVideo(), &place), 2U);
  EXPECT_EQ(readFrame(sbVideo(), &place), 3U);
  EXPECT_EQ(readFrame(sbVideo(), &place), 0U);
  EXPECT_EQ(place.number, 3);
}

TEST_F(StreamBuffer, ReaderThatFellBehindGetsTheOldestFrame) {
  ASSERT_TRUE(own());
  ASSERT_TRUE(writeFrame(sbVideo(), 1));
  Place place;
  EXPECT_EQ(readFrame(sbVideo(), &place), 1U);
  for (std::uint32_t i = 2; i <= 20; ++i) ASSERT_TRUE(writeFrame(sbVideo(), i));
  EXPECT_EQ(readFrame(sbVideo(), &place), 17U);  // four frames are kept
  EXPECT_EQ(readFrame(sbVideo(), &place), 18U);
}

TEST_F(StreamBuffer, FrameWithoutContentUsesItsNumberUpUnseen) {
  ASSERT_TRUE(own());
  Place place;
  ASSERT_TRUE(writeFrame(sbVideo(), 1));
  { TAutoFrame reservedOnly(sbVideo(), 0, nullptr, nullptr, 0); }
  for (const std::uint32_t length : {0U, 0xFFFFFFFFU, 8192U - 160U + 1U}) {
    TAutoFrame frame(sbVideo(), 0, nullptr, nullptr, 0);
    ASSERT_TRUE(frame);
    storeLe32(frame->length, length);
  }
  ASSERT_TRUE(writeFrame(sbVideo(), 6));
  EXPECT_EQ(readFrame(sbVideo(), &place), 1U);
  EXPECT_EQ(readFrame(sbVideo(), &place), 6U);
  EXPECT_EQ(place.number, 6);
}

TEST_F(StreamBuffer, ReservedFrameHasNothingOfItsEarlierUse) {
  ASSERT_TRUE(own({2, 4096}));
  for (int i = 0; i < 3; ++i) {
    TAutoFrame frame(sbVideo(), 0, nullptr, nullptr, 0);
    ASSERT_TRUE(frame);
    for (std::size_t b = 0; b < kFrameHeadBytes; ++b) {
      ASSERT_EQ(reinterpret_cast<const unsigned char*>(frame.get())[b], 0) << b;
    }
    std::memset(frame.get(), 1, kFrameHeadBytes);
    storeLe32(frame->length, 3);
  }
}

TEST_F(StreamBuffer, AgeLimitsHowFarBackANewReaderJoins) {
  ASSERT_TRUE(own());
  ASSERT_TRUE(writeFrame(sbVideo(), 1));
  ASSERT_TRUE(writeFrame(sbVideo(), 2));
  sb::Word* stamp = sbVideo()->stamp;
  for (int i = 0; i < 4; ++i) stamp[i] = stamp[i] - 500;
  ASSERT_TRUE(writeFrame(sbVideo(), 3));
  Place far;
  EXPECT_EQ(readFrame(sbVideo(), &far, 0, 1000), 1U);
  Place near;
  EXPECT_EQ(readFrame(sbVideo(), &near, 0, 300), 3U);
  for (int i = 0; i < 4; ++i) stamp[i] = stamp[i] - 500;
  Place now;
  EXPECT_EQ(readFrame(sbVideo(), &now, 0, 0), 0U);
  ASSERT_TRUE(writeFrame(sbVideo(), 4));
  EXPECT_EQ(readFrame(sbVideo(), &now, 0, 0), 4U) << "its place is behind the newest frame";
}

TEST_F(StreamBuffer, HeldFramesStayAndTheWriterTakesTheOthers) {
  ASSERT_TRUE(own());
  Place place;
  ASSERT_TRUE(writeFrame(sbVideo(), 1));
  const TAutoFrame held(sbVideo(), 1000, &place.number, &place.epoch, 0);
  ASSERT_TRUE(held);
  for (std::uint32_t i = 2; i < 50; ++i) {
    ASSERT_TRUE(writeFrame(sbVideo(), i));
    ASSERT_EQ(seedOf(held.get()), 1U);
  }
}

TEST_F(StreamBuffer, WriterIsRefusedOnlyWhenEveryFrameIsHeld) {
  ASSERT_TRUE(own({2, 4096}));
  Place place;
  ASSERT_TRUE(writeFrame(sbVideo(), 1));
  const TAutoFrame first(sbVideo(), 1000, &place.number, &place.epoch, 0);
  ASSERT_TRUE(writeFrame(sbVideo(), 2));
  auto second = std::make_unique<TAutoFrame>(sbVideo(), 1000, &place.number, &place.epoch, 0);
  ASSERT_TRUE(first && *second);
  EXPECT_FALSE(writeFrame(sbVideo(), 3, 5));
  EXPECT_EQ(sbVideo()->head.busyCount, 1U);
  second.reset();
  EXPECT_TRUE(writeFrame(sbVideo(), 3));
}

TEST_F(StreamBuffer, WaitingWriterGetsTheFrameThatIsReleased) {
  ASSERT_TRUE(own({2, 4096}));
  ASSERT_TRUE(writeFrame(sbVideo(), 1));
  ASSERT_TRUE(writeFrame(sbVideo(), 2));
  Place place;
  auto first = std::make_unique<TAutoFrame>(sbVideo(), 1000, &place.number, &place.epoch, 0);
  const TAutoFrame second(sbVideo(), 1000, &place.number, &place.epoch, 0);
  std::thread releaser([&] {
    eventually([] { return sbVideo()->head.writerWaits == 1; });
    first.reset();
  });
  EXPECT_TRUE(writeFrame(sbVideo(), 3, 20000));
  releaser.join();
}

TEST_F(StreamBuffer, WaitingReaderIsWokenByTheNextFrame) {
  ASSERT_TRUE(own());
  ASSERT_NE(sbVideo(), nullptr);
  std::uint32_t got = 0;
  std::thread reader([&] {
    Place place;
    got = readFrame(sbVideo(), &place, 20000);
  });
  eventually([] { return sbVideo()->head.latest == sbVideo()->head.readersWait; });
  ASSERT_TRUE(writeFrame(sbVideo(), 9));
  reader.join();
  EXPECT_EQ(got, 9U);
}

TEST_F(StreamBuffer, ReaderInAnotherProcessGetsEveryFrame) {
  ASSERT_TRUE(own({16, 4096}));
  SharedWords shared;
  Child reader([&] {
    Place place;
    sbVideo();
    readFrame(sbVideo(), &place);
    shared[0] = 1;
    for (std::uint32_t i = 1; i <= 500; ++i) {
      if (readFrame(sbVideo(), &place, 10000) != i) return 1;
      shared[1] = i;
    }
    return 0;
  });
  ASSERT_TRUE(eventually([&] { return shared[0] == 1; }));
  for (std::uint32_t i = 1; i <= 500; ++i) {
    ASSERT_TRUE(eventually([&] { return i - shared[1] < 10; }));
    ASSERT_TRUE(writeFrame(sbVideo(), i));
  }
  EXPECT_EQ(reader.wait(), 0);
}

TEST_F(StreamBuffer, SecondWriterProcessGetsNoFrameWhileTheFirstLives) {
  ASSERT_TRUE(own());
  ASSERT_TRUE(writeFrame(sbVideo(), 1));
  Child other([] { return writeFrame(sbVideo(), 2) ? 1 : 0; });
  EXPECT_EQ(other.wait(), 0);
  EXPECT_TRUE(writeFrame(sbVideo(), 3));
}

TEST_F(StreamBuffer, FrameOfTheParentIsNotReleasedByItsForkedChild) {
  ASSERT_TRUE(own());
  ASSERT_TRUE(writeFrame(sbVideo(), 1));
  Place place;
  auto held = std::make_unique<TAutoFrame>(sbVideo(), 1000, &place.number, &place.epoch, 0);
  auto filling = std::make_unique<TAutoFrame>(sbVideo(), 0, nullptr, nullptr, 0);
  storeLe32((*filling)->length, 100);
  Child child([&] {
    held.reset();
    filling.reset();
    return 0;
  });
  EXPECT_EQ(child.wait(), 0);
  EXPECT_EQ(sbVideo()->head.latest, 1U);
  for (std::uint32_t i = 2; i < 10; ++i) ASSERT_TRUE(writeFrame(sbVideo(), i));
  EXPECT_EQ(seedOf(held->get()), 1U);
}

TEST_F(StreamBuffer, ForkedChildHasALeaseOfItsOwn) {
  ASSERT_TRUE(own());
  const int parents = sbVideo()->mine.lease;
  ASSERT_TRUE(writeFrame(sbVideo(), 1));
  Child child([parents] {
    Place place;
    const TAutoFrame frame(sbVideo(), 1000, &place.number, &place.epoch, 0);
    return frame && sbVideo()->mine.lease != parents ? 0 : 1;
  });
  EXPECT_EQ(child.wait(), 0);
}

}  // namespace
