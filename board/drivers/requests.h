// The requests that the drivers of the virtual board answer, with the kind of their arguments.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/mpg430.h"
#include "platform/overlay.h"
#include "platform/vicam.h"

enum class Argument {
  kWord,     // int32, in and out
  kHeader,   // out: kMpg430HeaderBytes
  kColour,   // in: TMpg430Colour
  kPicture,  // in and out: TVideoPicture
  kWindow,   // in: TVideoWindow
  kText,     // in: terminated, at most kTextMax characters are looked at
  kImage,    // in: TOverlayImage and its pixels, as many as the head tells
};
constexpr std::size_t kTextMax = 256;

// Returns how many bytes an argument has; 0 when it tells that itself.
constexpr std::size_t argumentSize(Argument kind) {
  switch (kind) {
    case Argument::kWord:
      return sizeof(std::int32_t);
    case Argument::kHeader:
      return kMpg430HeaderBytes;
    case Argument::kColour:
      return sizeof(TMpg430Colour);
    case Argument::kPicture:
      return sizeof(TVideoPicture);
    case Argument::kWindow:
      return sizeof(TVideoWindow);
    case Argument::kText:
    case Argument::kImage:
      break;
  }
  return 0;
}

// Returns true iff what the hardware leaves in the argument is for the caller.
constexpr bool argumentComesBack(Argument kind) {
  return kind == Argument::kWord || kind == Argument::kHeader || kind == Argument::kPicture;
}

enum class Node { kEncoder, kSensor };
constexpr char kEncoderPath[] = "/dev/mpg430";
constexpr char kSensorPath[] = "/dev/video0";
constexpr char kFlashPath[] = "/dev/mtdblock2";
// The flash is a file of the board: what the preload library opens instead of the node.
constexpr char kFlashFile[] = "/var/flash/mtdblock2";

struct Request {
  const char* name;  // as boardctl and traces call it
  unsigned number;
  Node node;
  Argument argument;
};

constexpr Request kRequests[] = {
    {"MPG430_SET_MODE", kMpg430SetMode, Node::kEncoder, Argument::kWord},
    {"MPG430_SET_FRATE", kMpg430SetFrate, Node::kEncoder, Argument::kWord},
    {"MPG430_STREAM_START", kMpg430StreamStart, Node::kEncoder, Argument::kWord},
    {"MPG430_GET_IMGHEADER", kMpg430GetImgheader, Node::kEncoder, Argument::kHeader},
    {"MPG430_MPEG4_QA", kMpg430Mpeg4Qa, Node::kEncoder, Argument::kWord},
    {"MPG430_VIDEO_SOURCE", kMpg430VideoSource, Node::kEncoder, Argument::kWord},
    {"MPG430_VIDEO_SETCOLOR", kMpg430VideoSetcolor, Node::kEncoder, Argument::kColour},
    {"MPG430_SET_IPVALUE", kMpg430SetIpvalue, Node::kEncoder, Argument::kWord},
    {"SET_FRAMERATEID", kVicamSetFramerateId, Node::kSensor, Argument::kWord},
    {"SET_BACKLIGHT", kVicamSetBacklight, Node::kSensor, Argument::kWord},
    {"SET_BALANCE", kVicamSetBalance, Node::kSensor, Argument::kWord},
    {"SET_EXPOSURE", kVicamSetExposure, Node::kSensor, Argument::kWord},
    {"SET_NOISEFILTER", kVicamSetNoisefilter, Node::kSensor, Argument::kWord},
    {"SET_MAXSHUTTER", kVicamSetMaxshutter, Node::kSensor, Argument::kWord},
    {"SET_COMP_RATE", kVicamSetCompRate, Node::kSensor, Argument::kWord},
    {"SET_FLICKER_MODE", kVicamSetFlickerMode, Node::kSensor, Argument::kWord},
    {"SET_FLIP", kVicamSetFlip, Node::kSensor, Argument::kWord},
    {"SET_MIRROR", kVicamSetMirror, Node::kSensor, Argument::kWord},
    {"SET_GPOSD_IMG", kVicamSetGposdImg, Node::kSensor, Argument::kImage},
    {"SET_GPOSD_ENABLE", kVicamSetGposdEnable, Node::kSensor, Argument::kWord},
    {"SET_GPOSD_TRANSP", kVicamSetGposdTransp, Node::kSensor, Argument::kWord},
    {"SET_GPOSD_XPOS", kVicamSetGposdXpos, Node::kSensor, Argument::kWord},
    {"SET_GPOSD_YPOS", kVicamSetGposdYpos, Node::kSensor, Argument::kWord},
    {"SET_MDOSD_ENABLE", kVicamSetMdosdEnable, Node::kSensor, Argument::kWord},
    {"SET_MDOSD_TRANSP", kVicamSetMdosdTransp, Node::kSensor, Argument::kWord},
    {"SET_MDOSD_COLOR", kVicamSetMdosdColor, Node::kSensor, Argument::kWord},
    {"SET_MDOSD_XPOS", kVicamSetMdosdXpos, Node::kSensor, Argument::kWord},
    {"SET_MDOSD_YPOS", kVicamSetMdosdYpos, Node::kSensor, Argument::kWord},
    {"SET_MDOSD_STRING", kVicamSetMdosdString, Node::kSensor, Argument::kText},
    {"SET_DTOSD_ENABLE", kVicamSetDtosdEnable, Node::kSensor, Argument::kWord},
    {"SET_DTOSD_TRANSP", kVicamSetDtosdTransp, Node::kSensor, Argument::kWord},
    {"SET_DTOSD_COLOR", kVicamSetDtosdColor, Node::kSensor, Argument::kWord},
    {"SET_DTOSD_XPOS", kVicamSetDtosdXpos, Node::kSensor, Argument::kWord},
    {"SET_DTOSD_YPOS", kVicamSetDtosdYpos, Node::kSensor, Argument::kWord},
    {"SET_DTOSD_STRING", kVicamSetDtosdString, Node::kSensor, Argument::kText},
    {"SET_MDWND1_ENABLE", kVicamSetMdwnd1Enable, Node::kSensor, Argument::kWord},
    {"SET_MDWND1_XPOS", kVicamSetMdwnd1Xpos, Node::kSensor, Argument::kWord},
    {"SET_MDWND1_YPOS", kVicamSetMdwnd1Ypos, Node::kSensor, Argument::kWord},
    {"SET_MDWND1_WIDTH", kVicamSetMdwnd1Width, Node::kSensor, Argument::kWord},
    {"SET_MDWND1_HEIGHT", kVicamSetMdwnd1Height, Node::kSensor, Argument::kWord},
    {"SET_MDWND1_THRESHOLD", kVicamSetMdwnd1Threshold, Node::kSensor, Argument::kWord},
    {"GET_MDWND1_STATUS", kVicamGetMdwnd1Status, Node::kSensor, Argument::kWord},
    {"SET_MDWND2_ENABLE", kVicamSetMdwnd2Enable, Node::kSensor, Argument::kWord},
    {"SET_MDWND2_XPOS", kVicamSetMdwnd2Xpos, Node::kSensor, Argument::kWord},
    {"SET_MDWND2_YPOS", kVicamSetMdwnd2Ypos, Node::kSensor, Argument::kWord},
    {"SET_MDWND2_WIDTH", kVicamSetMdwnd2Width, Node::kSensor, Argument::kWord},
    {"SET_MDWND2_HEIGHT", kVicamSetMdwnd2Height, Node::kSensor, Argument::kWord},
    {"SET_MDWND2_THRESHOLD", kVicamSetMdwnd2Threshold, Node::kSensor, Argument::kWord},
    {"GET_MDWND2_STATUS", kVicamGetMdwnd2Status, Node::kSensor, Argument::kWord},
    {"VIDIOCGPICT", kVidiocgpict, Node::kSensor, Argument::kPicture},
    {"VIDIOCSPICT", kVidiocspict, Node::kSensor, Argument::kPicture},
    {"VIDIOCSWIN", kVidiocswin, Node::kSensor, Argument::kWindow},
};

// Returns the request of that number, null when the drivers know none.
constexpr const Request* findRequest(unsigned number) {
  for (const Request& request : kRequests)
    if (request.number == number) return &request;
  return nullptr;
}
