// Trigger polling.
#include "core/trigger_state.h"

#include <gtest/gtest.h>

#include "core/status_slots.h"
#include "tests/fakes/fake_platform.h"

namespace {

class TriggerState : public testing::Test {
 protected:
  // The word after one pass that began with `before`.
  unsigned after(unsigned before) {
    fake.video.setSlot(kSlotStatus, static_cast<int>(before));
    getTriggerState();
    return static_cast<unsigned>(fake.video.slot(kSlotStatus));
  }

  FakePlatform fake;
};

TEST_F(TriggerState, EachStateHasItsBit) {
  EXPECT_EQ(after(0), 0u);
  fake.triggerIn = 1;
  EXPECT_EQ(after(0), 1u);
  fake.triggerOut = 1;
  EXPECT_EQ(after(0), 3u);
  fake.triggerOut2 = 1;
  EXPECT_EQ(after(0), 7u);
  fake.privacy = 1;
  EXPECT_EQ(after(0), 0x40000007u);
  fake.triggerIn = fake.triggerOut = fake.triggerOut2 = fake.privacy = 0;
  EXPECT_EQ(after(0x40000007u), 0u);
}

TEST_F(TriggerState, OnlyTheLowestBitOfAStateCounts) {
  fake.triggerIn = 2;
  fake.triggerOut = 3;
  fake.triggerOut2 = -2;
  fake.privacy = -1;
  EXPECT_EQ(after(0), 0x40000002u);
}

TEST_F(TriggerState, OtherBitsAreCarriedOverAndUnusedOnesCleared) {
  EXPECT_EQ(after(0xffffffffu), 0x3fc0fff8u);
  EXPECT_EQ(after(0x003f0000u), 0u);
}

TEST_F(TriggerState, NothingIsWrittenWhileNothingChanges) {
  fake.triggerIn = 1;
  after(0);
  const long writes = fake.video.slotWrites(kSlotStatus);
  for (int pass = 0; pass < 5; ++pass) getTriggerState();
  EXPECT_EQ(fake.video.slotWrites(kSlotStatus), writes);
  fake.triggerIn = 0;
  getTriggerState();
  EXPECT_EQ(fake.video.slotWrites(kSlotStatus), writes + 1);
}

TEST_F(TriggerState, ASourceThatFailsKeepsItsBitAndStopsNoOther) {
  const struct {
    const char* function;
    unsigned bit;
  } sources[] = {{"get_trigger_in_state", 1},
                 {"get_trigger_out_state", 2},
                 {"get_trigger_out_state2", 4},
                 {"get_pt_privacy_state", 0x40000000u}};
  for (const auto& source : sources) {
    fake.takeCalls();
    fake.fails(source.function);
    fake.triggerIn = fake.triggerOut = fake.triggerOut2 = fake.privacy = 1;
    EXPECT_EQ(after(0), 0x40000007u & ~source.bit);
    fake.triggerIn = fake.triggerOut = fake.triggerOut2 = fake.privacy = 0;
    EXPECT_EQ(after(0x40000007u), source.bit);
    // Each pass says so again.
    EXPECT_EQ(fake.callsWith("log"),
              std::vector<std::string>(2, "log 2 " + std::string(source.function) + "() fail"));
    fake.works(source.function);
  }
}

TEST_F(TriggerState, AskedInOrder) {
  for (const char* function : {"get_trigger_in_state", "get_trigger_out_state",
                               "get_trigger_out_state2", "get_pt_privacy_state"})
    fake.fails(function);
  getTriggerState();
  EXPECT_EQ(fake.calls(),
            (std::vector<std::string>{
                "log 2 get_trigger_out_state() fail", "log 2 get_trigger_out_state2() fail",
                "log 2 get_trigger_in_state() fail", "log 2 get_pt_privacy_state() fail"}));
}

TEST_F(TriggerState, AMessageSignalsTheInputForOnePass) {
  fake.postMessageOfType(8);
  EXPECT_EQ(after(0), 0x80000000u);
  EXPECT_LT(fake.video.slot(kSlotStatus), 0);
  EXPECT_EQ(after(0x80000000u), 0u);
}

TEST_F(TriggerState, AMessageOfAnotherTypeIsTakenAndSignalsNothing) {
  fake.postMessageOfType(7);
  fake.postMessageOfType(8);
  EXPECT_EQ(after(0x80000000u), 0u);
  EXPECT_EQ(after(0), 0x80000000u);
}

TEST_F(TriggerState, TheTypeIsTheFifthWord) {
  TMessage message{8, 8, 8, 8, 0, {8, 8}};
  fake.postMessage(message);
  EXPECT_EQ(after(0), 0u);
}

TEST_F(TriggerState, WithoutABufferItGoesOn) {
  fake.video.detach();
  fake.triggerIn = 1;
  getTriggerState();
  EXPECT_TRUE(fake.calls().empty());
}

}  // namespace
