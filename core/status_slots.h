// The status slots of the stream buffer "video": their numbers, and the bit fields of the two words
// among them. Other processes read and write them; docs/stream-buffer.md explains the buffer.
#pragma once

#include <cstdint>

// Slot numbers. A slot is a 32-bit value with a written-since-tested mark; -1 stands for "unset",
// and a setting written as -1 can't be told from one that was not written.
enum TStatusSlot : int {
  kSlotFrameCount = 0,  // capture thread: +1 per frame

  // Settings: the capture thread publishes its own at the start, later anybody may write; it tests
  // them between two frames and hands what was written to the camera.
  kSlotSource = 1,
  kSlotMode = 2,  // the compression type, applied as the streaming mode
  kSlotExposure = 3,
  kSlotFramerate = 4,
  kSlotCompression = 5,
  kSlotIpratio = 6,
  kSlotFlicker = 7,
  kSlotBrightness = 8,
  kSlotContrast = 9,
  kSlotSaturation = 10,
  kSlotHue = 11,
  kSlotFlip = 12,
  kSlotMirror = 13,
  kSlotTimestamp = 14,  // main loop: the clock was checked; the value means nothing
  kSlotOverlay = 15,
  kSlotMotionDetection = 16,
  kSlotWhiteBalance = 17,
  kSlotNoiseReduction = 18,
  kSlotBacklight = 19,
  kSlotResolution = 20,
  kSlotShutter = 21,  // the maximum exposure, applied as the shutter limit
  kSlotPackage = 22,  // applied when 1 or more

  kSlotConfigChanged = 23,  // anybody: above 0 makes the main loop rebuild the events
  kSlotStatus = 24,         // bit fields, see below
  kSlotWebTrigger1 = 25,    // anybody: 25 fires the first web event
  kSlotWebTrigger2 = 26,    // anybody: 26 fires the second web event
  kSlotFormat = 28,         // bit fields, see below
};
constexpr int kFirstSettingSlot = kSlotSource;
constexpr int kLastSettingSlot = kSlotPackage;

// A field of `bits` bits from bit `shift` up in a 32-bit status word.
struct TBitField {
  int shift;
  int bits;

  constexpr std::uint32_t mask() const { return (0xffffffffu >> (32 - bits)) << shift; }
  // Returns the field of `word`, unsigned.
  constexpr int get(int word) const {
    return static_cast<int>((static_cast<std::uint32_t>(word) & mask()) >> shift);
  }
  // Returns `word` with the field replaced by the low bits of `value`.
  constexpr int put(int word, int value) const {
    return static_cast<int>((static_cast<std::uint32_t>(word) & ~mask()) |
                            ((static_cast<std::uint32_t>(value) << shift) & mask()));
  }
};

// Slot 24. Each field has one writer, so that two read-modify-writes at the same instant lose one
// refresh at the most, which the next one repairs.
constexpr TBitField kStatusInput{0, 1};        // trigger polling: digital input active
constexpr TBitField kStatusOutput1{1, 1};      // trigger polling: first relay on
constexpr TBitField kStatusOutput2{2, 1};      // trigger polling: second relay on
constexpr TBitField kStatusMode{3, 2};         // camera: streaming mode
constexpr TBitField kStatusAccess{5, 3};       // access handler: TAccessMode
constexpr TBitField kStatusFramerate{8, 8};    // camera: frame rate, low byte
constexpr TBitField kStatusUnused{16, 6};      // trigger polling clears them
constexpr TBitField kStatusIpratio{22, 8};     // camera: I/P ratio - kIpratioOffset
constexpr TBitField kStatusPrivacy{30, 1};     // trigger polling: privacy mode on
constexpr TBitField kStatusInputEvent{31, 1};  // trigger polling: the input has signalled

constexpr int kIpratioOffset = 3;  // readers add it back

// What kStatusAccess holds.
enum TAccessMode : int { kAccessNone = 0, kAccessOff = 1, kAccessOn = 2 };

// Slot 28. Bits 16 to 31 carry nothing and are kept.
constexpr TBitField kFormatResolution{0, 8};   // camera: resolution, low byte
constexpr TBitField kFormatCompression{8, 8};  // camera: compression, low byte

static_assert(kStatusInput.mask() == 0x00000001 && kStatusOutput1.mask() == 0x00000002 &&
                  kStatusOutput2.mask() == 0x00000004 && kStatusMode.mask() == 0x00000018 &&
                  kStatusAccess.mask() == 0x000000e0 && kStatusFramerate.mask() == 0x0000ff00 &&
                  kStatusUnused.mask() == 0x003f0000 && kStatusIpratio.mask() == 0x3fc00000 &&
                  kStatusPrivacy.mask() == 0x40000000 && kStatusInputEvent.mask() == 0x80000000 &&
                  kFormatResolution.mask() == 0x000000ff && kFormatCompression.mask() == 0x0000ff00,
              "other processes read these words");
