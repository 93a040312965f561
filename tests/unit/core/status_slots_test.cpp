// The layout of the status words: other processes read them.
#include "core/status_slots.h"

#include <gtest/gtest.h>

namespace {

TEST(StatusSlots, HaveTheirNumbers) {
  const int slots[] = {kSlotFrameCount,     kSlotSource,          kSlotMode,
                       kSlotExposure,       kSlotFramerate,       kSlotCompression,
                       kSlotIpratio,        kSlotFlicker,         kSlotBrightness,
                       kSlotContrast,       kSlotSaturation,      kSlotHue,
                       kSlotFlip,           kSlotMirror,          kSlotTimestamp,
                       kSlotOverlay,        kSlotMotionDetection, kSlotWhiteBalance,
                       kSlotNoiseReduction, kSlotBacklight,       kSlotResolution,
                       kSlotShutter,        kSlotPackage,         kSlotConfigChanged,
                       kSlotStatus,         kSlotWebTrigger1,     kSlotWebTrigger2};
  for (int i = 0; i <= 26; ++i) EXPECT_EQ(slots[i], i);
  EXPECT_EQ(kSlotFormat, 28);
}

// Each field is put into a word of all zeros and one of all ones.
TEST(StatusSlots, AFieldChangesItsBitsAlone) {
  const struct {
    TBitField field;
    int low, high;
  } fields[] = {
      {kStatusInput, 0, 0},        {kStatusOutput1, 1, 1},    {kStatusOutput2, 2, 2},
      {kStatusMode, 3, 4},         {kStatusAccess, 5, 7},     {kStatusFramerate, 8, 15},
      {kStatusUnused, 16, 21},     {kStatusIpratio, 22, 29},  {kStatusPrivacy, 30, 30},
      {kStatusInputEvent, 31, 31}, {kFormatResolution, 0, 7}, {kFormatCompression, 8, 15}};
  for (const auto& one : fields) {
    const int all = (1 << (one.high - one.low + 1)) - 1;
    for (const int value : {0, 1, all / 2 + 1, all, -1, 0x7fffffff}) {
      const int zeros = one.field.put(0, value);
      const int ones = one.field.put(-1, value);
      for (int bit = 0; bit < 32; ++bit) {
        const bool inside = bit >= one.low && bit <= one.high;
        const unsigned expected = inside ? static_cast<unsigned>(value) >> (bit - one.low) & 1u : 0;
        EXPECT_EQ(static_cast<unsigned>(zeros) >> bit & 1u, expected) << one.low << " " << bit;
        EXPECT_EQ(static_cast<unsigned>(ones) >> bit & 1u, inside ? expected : 1u);
      }
      EXPECT_EQ(one.field.get(zeros), value & all);
      EXPECT_EQ(one.field.get(ones), value & all);
    }
  }
}

TEST(StatusSlots, AWordWithTheInputSignalledIsNegative) {
  EXPECT_LT(kStatusInputEvent.put(0, 1), 0);
  EXPECT_GE(kStatusInputEvent.put(-1, 0), 0);
}

}  // namespace
