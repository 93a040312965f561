// Interface of the driver of the sensor camera, the device node "/dev/video0": requests of its own
// and a few of Video4Linux 1. A read gives one JPEG picture.
#pragma once

#include <cstdint>

// Requests. `argument` points to an int32, if not told otherwise; the driver leaves in it what it
// has set.

// The picture.
constexpr unsigned kVicamSetFramerateId = 0x40045727;  // pictures/s
constexpr unsigned kVicamSetBacklight = 0x4004572C;
constexpr unsigned kVicamSetBalance = 0x4004572E;
constexpr unsigned kVicamSetExposure = 0x4004572F;
constexpr unsigned kVicamSetNoisefilter = 0x40045730;
constexpr unsigned kVicamSetMaxshutter = 0x40045731;
constexpr unsigned kVicamSetCompRate = 0x400456D1;  // JPEG quality in per cent
constexpr unsigned kVicamSetFlickerMode = 0x800476CB;
constexpr unsigned kVicamSetFlip = 0x800476CC;
constexpr unsigned kVicamSetMirror = 0x800476CD;

// The overlays: graphic, motion text, date and time.
constexpr unsigned kVicamSetGposdImg = 0x4004572B;  // TOverlayImage and its pixels
constexpr unsigned kVicamSetGposdEnable = 0x400456F0;
constexpr unsigned kVicamSetGposdTransp = 0x400456F1;
constexpr unsigned kVicamSetGposdXpos = 0x400456F2;
constexpr unsigned kVicamSetGposdYpos = 0x400456F3;
constexpr unsigned kVicamSetMdosdEnable = 0x400456E4;
constexpr unsigned kVicamSetMdosdTransp = 0x400456E5;
constexpr unsigned kVicamSetMdosdColor = 0x400456E6;
constexpr unsigned kVicamSetMdosdXpos = 0x400456E7;
constexpr unsigned kVicamSetMdosdYpos = 0x400456E8;
constexpr unsigned kVicamSetMdosdString = 0x400456E9;  // text
constexpr unsigned kVicamSetDtosdEnable = 0x400456D8;
constexpr unsigned kVicamSetDtosdTransp = 0x400456D9;
constexpr unsigned kVicamSetDtosdColor = 0x400456DA;
constexpr unsigned kVicamSetDtosdXpos = 0x400456DB;
constexpr unsigned kVicamSetDtosdYpos = 0x400456DC;
constexpr unsigned kVicamSetDtosdString = 0x400456DD;  // text

// The motion windows. The level, 0 to 100, is the result of the status request.
constexpr unsigned kVicamSetMdwnd1Enable = 0x400456FE;
constexpr unsigned kVicamSetMdwnd1Xpos = 0x400456FF;
constexpr unsigned kVicamSetMdwnd1Ypos = 0x40045700;
constexpr unsigned kVicamSetMdwnd1Width = 0x40045701;
constexpr unsigned kVicamSetMdwnd1Height = 0x40045702;
constexpr unsigned kVicamSetMdwnd1Threshold = 0x40045703;
constexpr unsigned kVicamGetMdwnd1Status = 0x40045704;
constexpr unsigned kVicamSetMdwnd2Enable = 0x4004570B;
constexpr unsigned kVicamSetMdwnd2Xpos = 0x4004570C;
constexpr unsigned kVicamSetMdwnd2Ypos = 0x4004570D;
constexpr unsigned kVicamSetMdwnd2Width = 0x4004570E;
constexpr unsigned kVicamSetMdwnd2Height = 0x4004570F;
constexpr unsigned kVicamSetMdwnd2Threshold = 0x40045710;
constexpr unsigned kVicamGetMdwnd2Status = 0x40045711;

// Video4Linux 1. Its records as 32-bit kernels have them: the pointer to the clips has 4 bytes.
constexpr unsigned kVidiocgpict = 0x400E7606;  // TVideoPicture
constexpr unsigned kVidiocspict = 0x800E7607;  // TVideoPicture
constexpr unsigned kVidiocswin = 0x8020760A;   // TVideoWindow

struct TVideoPicture {
  std::uint16_t brightness;
  std::uint16_t hue;
  std::uint16_t colour;
  std::uint16_t contrast;
  std::uint16_t whiteness;
  std::uint16_t depth;
  std::uint16_t palette;
};
static_assert(sizeof(TVideoPicture) == 14, "the driver reads this record");

struct TVideoWindow {
  std::uint32_t x;
  std::uint32_t y;
  std::uint32_t width;
  std::uint32_t height;
  std::uint32_t chromakey;
  std::uint32_t flags;
  std::uint32_t clips;
  std::int32_t clipcount;
};
static_assert(sizeof(TVideoWindow) == 32, "the driver reads this record");
