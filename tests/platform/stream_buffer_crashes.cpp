// Processes that are killed or stopped at every point of every operation.
#include <signal.h>
#include <unistd.h>
#include <memory>
#include <set>

#include "platform/bytes.h"
#include "platform/linux/stream_buffer_handle.h"
#include "tests/platform/stream_buffer_fixture.h"

namespace {

using sb::Point;

class StreamBufferCrash : public StreamBuffer {
 protected:
  // How many different frames a writer uses: all of them, unless one was lost.
  static std::size_t framesInUse() {
    std::set<const SB_FRAME*> used;
    for (std::uint32_t i = 0; i < 3 * sbVideo()->frames; ++i) {
      TAutoFrame frame(sbVideo(), 0, nullptr, nullptr, 0);
      if (!frame) continue;
      used.insert(frame.get());
      storeLe32(frame->length, 4);
    }
    return used.size();
  }
};

class StreamBufferReaderCrash : public StreamBufferCrash,
                                public testing::WithParamInterface<Point> {};

TEST_P(StreamBufferReaderCrash, CostsNoFrameForGood) {
  ASSERT_TRUE(own());
  for (int round = 0; round < 8; ++round) {
    ASSERT_TRUE(writeFrame(sbVideo(), 1)) << "at most one frame is missing until it is reaped";
    Child reader([] {
      signalAt(GetParam(), SIGKILL);
      Place place;
      readFrame(sbVideo(), &place);
      return 1;
    });
    ASSERT_EQ(reader.wait(), -SIGKILL);
  }
  sbVideo()->reap();
  EXPECT_EQ(framesInUse(), 4U);
}

// The pins of eight dead readers hold all frames; the writer takes them back within its own call.
TEST_P(StreamBufferReaderCrash, CanNotMakeTheWriterWaitWhenAllFramesAreHeldByTheDead) {
  ASSERT_TRUE(own());
  std::vector<std::unique_ptr<Child>> readers;
  SharedWords shared;
  for (std::uint32_t i = 1; i <= 4; ++i) {
    ASSERT_TRUE(writeFrame(sbVideo(), i));
    readers.push_back(std::make_unique<Child>([i, &shared] {
      callAt(GetParam(), [&shared] {
        ++shared[0];
        for (;;) pause();
      });
      Place place;
      place.epoch = static_cast<std::int32_t>(sbVideo()->segment.epoch);
      place.number = static_cast<std::int32_t>(i) - 1;
      readFrame(sbVideo(), &place);
      return 1;
    }));
    ASSERT_TRUE(eventually([&] { return shared[0] == i; }));
  }
  const bool allHeld = GetParam() != Point::kPinCleared;
  EXPECT_EQ(writeFrame(sbVideo(), 5), !allHeld);
  readers.clear();
  EXPECT_TRUE(writeFrame(sbVideo(), 5));
  EXPECT_EQ(framesInUse(), 4U);
}

TEST_P(StreamBufferReaderCrash, StoppedInsteadCostsTheWriterNothingButDepth) {
  ASSERT_TRUE(own());
  ASSERT_TRUE(writeFrame(sbVideo(), 1));
  Child reader([] {
    callAt(GetParam(), [] {
      raise(SIGSTOP);
      callAt(Point::kCount, nullptr);
    });
    Place place;
    place.epoch = static_cast<std::int32_t>(sbVideo()->segment.epoch);
    const std::uint32_t first = readFrame(sbVideo(), &place);
    return first != 0 && readFrame(sbVideo(), &place) > first ? 0 : 1;
  });
  ASSERT_TRUE(reader.awaitStop());
  for (std::uint32_t i = 2; i < 1000; ++i) ASSERT_TRUE(writeFrame(sbVideo(), i));
  EXPECT_EQ(sbVideo()->head.busyCount, 0U);
  reader.kill(SIGCONT);
  EXPECT_EQ(reader.wait(), 0);
  EXPECT_EQ(framesInUse(), 4U);
}

INSTANTIATE_TEST_SUITE_P(At, StreamBufferReaderCrash,
                         testing::Values(Point::kPinSet, Point::kPinned, Point::kPinCleared),
                         [](const auto& at) { return pointName(at.param); });

class StreamBufferWriterCrash : public StreamBufferCrash,
                                public testing::WithParamInterface<Point> {};

// The dead writer's frame is either seen whole or not at all, its successor goes on with the next
// number, and all frames stay in use.
TEST_P(StreamBufferWriterCrash, LeavesNoTornFrameAndNoGap) {
  ASSERT_TRUE(own());
  Place place;
  for (std::uint32_t round = 1; round < 20; round += 2) {
    Child writer([round] {
      if (!writeFrame(sbVideo(), round)) return 1;
      signalAt(GetParam(), SIGKILL);
      writeFrame(sbVideo(), round + 1);
      return 2;
    });
    ASSERT_EQ(writer.wait(), -SIGKILL);
    ASSERT_EQ(readFrame(sbVideo(), &place), round);
    const std::uint32_t next = readFrame(sbVideo(), &place);
    const bool seen = GetParam() == Point::kFrameNumbered || GetParam() == Point::kLatestMoved;
    ASSERT_EQ(next, seen ? round + 1 : 0U);
  }
  const std::int32_t before = place.number;
  ASSERT_TRUE(writeFrame(sbVideo(), 99));
  EXPECT_EQ(readFrame(sbVideo(), &place), 99U);
  EXPECT_EQ(place.number, before + 1);
  EXPECT_EQ(framesInUse(), 4U);
}

// The reader's wait ends at its limit although the wake never came, or with the frame.
TEST_P(StreamBufferWriterCrash, DoesNotHoldWaitingReaders) {
  ASSERT_TRUE(own());
  sbVideo();
  SharedWords shared;
  Child writer([&shared] {
    sbVideo();
    shared[0] = 1;
    while (shared[1] == 0) usleep(100);
    signalAt(GetParam(), SIGKILL);
    writeFrame(sbVideo(), 5);
    return 1;
  });
  Child reader([&shared] {
    Place place;
    sbVideo();
    shared[1] = 1;
    readFrame(sbVideo(), &place, 100);
    return 0;
  });
  EXPECT_EQ(writer.wait(), -SIGKILL);
  EXPECT_EQ(reader.wait(), 0);
}

TEST_P(StreamBufferWriterCrash, StoppedInsteadHoldsNoReader) {
  ASSERT_TRUE(own());
  Child writer([] {
    writeFrame(sbVideo(), 1);
    writeFrame(sbVideo(), 2);
    callAt(GetParam(), [] { raise(SIGSTOP); });
    return writeFrame(sbVideo(), 3) ? 0 : 1;
  });
  ASSERT_TRUE(writer.awaitStop());
  Place place;
  EXPECT_EQ(readFrame(sbVideo(), &place), 1U);
  EXPECT_EQ(readFrame(sbVideo(), &place), 2U);
  EXPECT_FALSE(writeFrame(sbVideo(), 9)) << "a stopped writer still is the writer";
  writer.kill(SIGCONT);
  EXPECT_EQ(writer.wait(), 0);
  EXPECT_EQ(readFrame(sbVideo(), &place), 3U);
}

INSTANTIATE_TEST_SUITE_P(At, StreamBufferWriterCrash,
                         testing::Values(Point::kFrameEmptied, Point::kFrameReserved,
                                         Point::kFrameNumbered, Point::kLatestMoved),
                         [](const auto& at) { return pointName(at.param); });

TEST_F(StreamBufferCrash, OfASetterBeforeItsSwapLeavesTheSlotAsItWas) {
  ASSERT_TRUE(own());
  sbSetUserdata(sbVideo(), 4, 1);
  for (int i = 0; i < 5; ++i) {
    Child setter([] {
      signalAt(Point::kCellWritten, SIGKILL);
      sbSetUserdata(sbVideo(), 4, 2);
      return 1;
    });
    ASSERT_EQ(setter.wait(), -SIGKILL);
    EXPECT_EQ(sbGetUserdata(sbVideo(), 4), 1);
  }
  EXPECT_EQ(sbTestUserdata(sbVideo(), 4), 1);
  EXPECT_EQ(sbTestUserdata(sbVideo(), 4), -1);
}

TEST_F(StreamBufferCrash, OfASetterAfterItsSwapLeavesTheSlotWritten) {
  ASSERT_TRUE(own());
  for (int i = 0; i < 5; ++i) {
    Child setter([i] {
      signalAt(Point::kSlotSet, SIGKILL);
      sbSetUserdata(sbVideo(), 4, 10 + i);
      return 1;
    });
    ASSERT_EQ(setter.wait(), -SIGKILL);
    EXPECT_EQ(sbTestUserdata(sbVideo(), 4), 10 + i);
    EXPECT_EQ(sbTestUserdata(sbVideo(), 4), -1);
    EXPECT_EQ(sbGetUserdata(sbVideo(), 4), 10 + i);
  }
}

TEST_F(StreamBufferCrash, OfATesterBeforeItsSwapLeavesTheMark) {
  ASSERT_TRUE(own());
  sbSetUserdata(sbVideo(), 4, 5);
  Child before([] {
    signalAt(Point::kMarkRead, SIGKILL);
    return sbTestUserdata(sbVideo(), 4);
  });
  EXPECT_EQ(before.wait(), -SIGKILL);
  EXPECT_EQ(sbTestUserdata(sbVideo(), 4), 5);
  sbSetUserdata(sbVideo(), 4, 6);
  Child after([] {
    signalAt(Point::kMarkCleared, SIGKILL);
    return sbTestUserdata(sbVideo(), 4);
  });
  EXPECT_EQ(after.wait(), -SIGKILL);
  EXPECT_EQ(sbTestUserdata(sbVideo(), 4), -1);
  EXPECT_EQ(sbGetUserdata(sbVideo(), 4), 6);
}

TEST_F(StreamBufferCrash, OfSettersAndTestersWhileOthersAreStoppedHoldsNobody) {
  ASSERT_TRUE(own());
  Child stopped([] {
    callAt(Point::kCellWritten, [] {
      raise(SIGSTOP);
      callAt(Point::kCount, nullptr);
    });
    sbSetUserdata(sbVideo(), 4, 1000);
    return 0;
  });
  ASSERT_TRUE(stopped.awaitStop());
  for (int i = 0; i < 100; ++i) {
    sbSetUserdata(sbVideo(), 4, i);
    ASSERT_EQ(sbTestUserdata(sbVideo(), 4), i);
  }
  stopped.kill(SIGCONT);
  EXPECT_EQ(stopped.wait(), 0);
  EXPECT_EQ(sbTestUserdata(sbVideo(), 4), 1000);
}

TEST_F(StreamBufferCrash, WhileTakingOverADeadReadersPlaceLosesNoFrame) {
  ASSERT_TRUE(own());
  ASSERT_TRUE(writeFrame(sbVideo(), 1));
  Child reader([] {
    signalAt(Point::kPinned, SIGKILL);
    Place place;
    readFrame(sbVideo(), &place);
    return 1;
  });
  ASSERT_EQ(reader.wait(), -SIGKILL);
  Child successor([] {
    signalAt(Point::kLeaseTaken, SIGKILL);
    sbVideo();
    return 1;
  });
  ASSERT_EQ(successor.wait(), -SIGKILL);
  Child heir([] {
    Place place;
    return static_cast<int>(readFrame(sbVideo(), &place));
  });
  EXPECT_EQ(heir.wait(), 1);
  EXPECT_EQ(framesInUse(), 4U) << "the heir has cleared its predecessors' pins";
}

TEST_F(StreamBufferCrash, OfAWriterThatClearsTheDeadLosesNoFrame) {
  ASSERT_TRUE(own());
  Child writer([] {
    writeFrame(sbVideo(), 1);
    Child reader([] {
      signalAt(Point::kPinned, SIGKILL);
      Place place;
      readFrame(sbVideo(), &place);
      return 1;
    });
    if (reader.wait() != -SIGKILL) return 1;
    signalAt(Point::kReaped, SIGKILL);
    sbVideo()->reap();
    return 2;
  });
  ASSERT_EQ(writer.wait(), -SIGKILL);
  EXPECT_EQ(framesInUse(), 4U);
}

TEST_F(StreamBufferCrash, OfAReaderInTheWritersWayIsMadeGoodWithinSeconds) {
  ASSERT_TRUE(own());
  ASSERT_TRUE(writeFrame(sbVideo(), 1));
  Child reader([] {
    signalAt(Point::kPinned, SIGKILL);
    Place place;
    readFrame(sbVideo(), &place);
    return 1;
  });
  ASSERT_EQ(reader.wait(), -SIGKILL);
  EXPECT_TRUE(eventually([] { return framesInUse() == 4; }));
}

}  // namespace
