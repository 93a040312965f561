// Status slots: values and marks, among threads and processes.
#include <memory>
#include <thread>

#include "platform/linux/stream_buffer_handle.h"
#include "tests/platform/stream_buffer_fixture.h"

namespace {

TEST_F(StreamBuffer, SlotsAreZeroAndUnwrittenAtFirst) {
  ASSERT_TRUE(own());
  for (int i = 0; i < kSlotCount; ++i) {
    EXPECT_EQ(sbGetUserdata(sbVideo(), i), 0);
    EXPECT_EQ(sbTestUserdata(sbVideo(), i), -1);
  }
}

TEST_F(StreamBuffer, SlotIsTestedOncePerWriteAlsoWithTheSameValue) {
  ASSERT_TRUE(own());
  for (int i = 0; i < kSlotCount; ++i) sbSetUserdata(sbVideo(), i, 100 + i);
  for (int i = 0; i < kSlotCount; ++i) {
    EXPECT_EQ(sbGetUserdata(sbVideo(), i), 100 + i);
    EXPECT_EQ(sbTestUserdata(sbVideo(), i), 100 + i);
    EXPECT_EQ(sbTestUserdata(sbVideo(), i), -1);
    EXPECT_EQ(sbGetUserdata(sbVideo(), i), 100 + i);
    sbSetUserdata(sbVideo(), i, 100 + i);
    sbSetUserdata(sbVideo(), i, 100 + i);
    EXPECT_EQ(sbTestUserdata(sbVideo(), i), 100 + i);
    EXPECT_EQ(sbTestUserdata(sbVideo(), i), -1);
  }
}

TEST_F(StreamBuffer, SlotsTakeAllValuesOf32Bits) {
  ASSERT_TRUE(own());
  for (const int value : {0, 1, -1, INT32_MAX, INT32_MIN}) {
    sbSetUserdata(sbVideo(), 24, value);
    EXPECT_EQ(sbGetUserdata(sbVideo(), 24), value);
    EXPECT_EQ(sbTestUserdata(sbVideo(), 24), value);
  }
}

TEST_F(StreamBuffer, SlotsOutOfRangeReadAsUnwrittenAndWriteNowhere) {
  ASSERT_TRUE(own());
  for (const int slot : {-1, kSlotCount, INT32_MAX, INT32_MIN}) {
    sbSetUserdata(sbVideo(), slot, 5);
    EXPECT_EQ(sbGetUserdata(sbVideo(), slot), 0);
    EXPECT_EQ(sbTestUserdata(sbVideo(), slot), -1);
  }
}

TEST_F(StreamBuffer, SlotWrittenByAnotherProcessIsSeenHere) {
  ASSERT_TRUE(own());
  sbSetUserdata(sbVideo(), 23, 1);
  EXPECT_EQ(sbTestUserdata(sbVideo(), 23), 1);
  Child other([] {
    sbSetUserdata(sbVideo(), 23, 77);
    return 0;
  });
  EXPECT_EQ(other.wait(), 0);
  EXPECT_EQ(sbTestUserdata(sbVideo(), 23), 77);
  EXPECT_EQ(sbTestUserdata(sbVideo(), 23), -1);
}

// A killed process's lease goes to the next one, but its last value must stay.
TEST_F(StreamBuffer, ValueOfAProcessThatEndedOutlivesTheNextOwnerOfItsLease) {
  ASSERT_TRUE(own());
  Child first([] {
    sbSetUserdata(sbVideo(), 4, 10);
    sbSetUserdata(sbVideo(), 5, 20);
    return static_cast<int>(sbVideo()->mine.lease);
  });
  const int lease = first.wait();
  Child second([] {
    sbSetUserdata(sbVideo(), 4, 11);
    return static_cast<int>(sbVideo()->mine.lease);
  });
  EXPECT_EQ(second.wait(), lease);
  EXPECT_EQ(sbGetUserdata(sbVideo(), 4), 11);
  EXPECT_EQ(sbGetUserdata(sbVideo(), 5), 20);
  EXPECT_EQ(sbTestUserdata(sbVideo(), 5), 20);
}

// Each setter counts up in its own range; the one tester sees each setter's values in order, and
// the last ones of all.
TEST_F(StreamBuffer, ManySettersAndOneTesterLoseNoLastValue) {
  ASSERT_TRUE(own());
  ASSERT_NE(sbVideo(), nullptr);
  const int kSetters = 3;
  const int kSets = fromEnvironment("VS_SLOT_SETS", 20000);
  std::vector<std::unique_ptr<Child>> processes;
  SharedWords ended;
  for (int p = 0; p < kSetters; ++p) {
    processes.push_back(std::make_unique<Child>([p, kSets, &ended] {
      const auto run = [kSets](int range) {
        for (int i = 1; i <= kSets; ++i) sbSetUserdata(sbVideo(), 7, range << 24 | i);
      };
      std::thread twin(run, 2 * p);
      run(2 * p + 1);
      twin.join();
      ++ended[0];
      return 0;
    }));
  }
  int last[2 * kSetters] = {};
  int lastTested = -1;
  std::uint32_t before = 0;
  do {
    before = ended[0];
    const int value = sbTestUserdata(sbVideo(), 7);
    if (value == -1) continue;
    lastTested = value;
    ASSERT_LT(value >> 24, 2 * kSetters);
    ASSERT_GT(value & 0xFFFFFF, last[value >> 24]) << "a value came twice or too late";
    last[value >> 24] = value & 0xFFFFFF;
  } while (before < kSetters);
  for (const auto& process : processes) EXPECT_EQ(process->wait(), 0);
  EXPECT_EQ(sbTestUserdata(sbVideo(), 7), -1);
  EXPECT_EQ(sbGetUserdata(sbVideo(), 7), lastTested);
  EXPECT_EQ(lastTested & 0xFFFFFF, kSets) << "the last write of all ends one of the runs";
}

TEST_F(StreamBuffer, SlotCountMayWrap) {
  ASSERT_TRUE(own());
  sbVideo()->slot[6] = 0xFFFFFE00U;
  for (int i = 1; i < 10; ++i) {
    sbSetUserdata(sbVideo(), 6, i);
    EXPECT_EQ(sbGetUserdata(sbVideo(), 6), i);
    EXPECT_EQ(sbTestUserdata(sbVideo(), 6), i);
    EXPECT_EQ(sbTestUserdata(sbVideo(), 6), -1);
  }
}

}  // namespace
