#include "capture/devices/mpg430.h"

#include <csignal>
#include <cstdint>
#include <cstring>

#include "capture/chunk_trailer.h"
#include "platform/application.h"
#include "platform/log.h"
#include "platform/media.h"
#include "platform/mpg430.h"
#include "platform/os.h"
#include "platform/stream_buffer.h"
#include "platform/timer.h"
#include "record/avi_writer.h"

namespace {

constexpr int kChunksPerFrame = 3;
// A read later than this after the first one fills the frame's last chunk: readers see no picture
// later than about two pictures' time at 30 per second.
constexpr long kFrameMs = 61;
// Inputs need this long to settle on another signal.
constexpr unsigned kSourceSettleS = 1;
// Between a start that the driver refused and the next one.
constexpr std::uint32_t kStartAgainMs = 1000;

constexpr char kPictureStart[] = {0, 0, 1, static_cast<char>(0xB6)};
// Behind the start code, in the two highest bits: how the picture is coded, 0 being a key picture.
constexpr long kCodingTypeAt = 4;
constexpr unsigned char kCodingTypeMask = 0xC0;

constexpr int kColourCentre = 127;
constexpr unsigned kColourScale = 256;

// Intended: cut to 16 bits, so that 255 less nothing wraps to the lowest value. Unsigned, because
// any number may come from a status slot.
std::int16_t colour(int value, int centre) {
  const unsigned scaled =
      (static_cast<unsigned>(value) - static_cast<unsigned>(centre)) * kColourScale;
  return static_cast<std::int16_t>(static_cast<std::uint16_t>(scaled));
}

}  // namespace

const int TMpg430::tabWidth[kResolutions] = {352, 720, 720, 352, 720, 720, 176, 640, 320, 0, 160};
const int TMpg430::tabHeight[kResolutions] = {288, 288, 576, 240, 240, 480, 144, 480, 240, 0, 120};

Relaxed<bool> TMpg430::fHeadr = false;
Relaxed<bool> TMpg430::fImage = false;
char TMpg430::header[kHeaderText] = "";
char TMpg430::lastType = kTypePredicted;
bool TMpg430::startIsDue = false;
std::uint32_t TMpg430::refusedMs = 0;

static_assert(sizeof TMpg430::header == 2 * kMpg430HeaderBytes + 1, "two digits a byte");
static_assert(TAviWriter::kHeaderBytes == kMpg430HeaderBytes, "the writer gets it as it is");

TMpg430::TMpg430(bool start) : TCamera("/dev/mpg430") {
  if (start) enableStream(1);
  package_ = kChunksPerFrame;
  // The handler first: the signal's default would end the process.
  os::onSignal(SIGIO, onTVModeChanged);
  os::fcntl(fd_, F_SETOWN, os::getpid());
  const int flags = os::fcntl(fd_, F_GETFL, 0);
  if (flags >= 0) os::fcntl(fd_, F_SETFL, flags | O_ASYNC);
}

TMpg430::~TMpg430() { enableStream(0); }

// In signal context: nothing but this one store, which is lock-free.
void TMpg430::onTVModeChanged(int /*signal*/) { fHeadr = true; }

void TMpg430::enableStream(int on) {
  // Not the virtual one: constructor and destructor come here.
  const int result =
      TCamera::ioctl(static_cast<int>(kMpg430StreamStart), &on, "MPG430_STREAM_START");
  startIsDue = on != 0 && result < 0 && fd_ >= 0;
  refusedMs = monotonicMs();
  fHeadr = true;
  aviWriter()->cut();
}

void TMpg430::startAgain() {
  if (startIsDue && monotonicMs() - refusedMs >= kStartAgainMs) enableStream(1);
}

int TMpg430::request(unsigned request, void* argument, const char* name) {
  return ioctl(static_cast<int>(request), argument, name);
}

int TMpg430::setSource(int input) {
  const int result = request(kMpg430VideoSource, &input, "MPG430_VIDEO_SOURCE");
  if (result < 0) return result;
  TCamera::setSource(input);
  os::sleep(kSourceSettleS);
  fHeadr = true;
  return 0;
}

int TMpg430::setCompression(int quantiser) {
  const int result = request(kMpg430Mpeg4Qa, &quantiser, "MPG430_MPEG4_QA");
  return result < 0 ? result : TCamera::setCompression(quantiser);
}

int TMpg430::setFramerate(int rate) {
  const int result = request(kMpg430SetFrate, &rate, "MPG430_SET_FRATE");
  return result < 0 ? result : TCamera::setFramerate(rate);
}

int TMpg430::setIpratio(int ratio) {
  const int result = request(kMpg430SetIpvalue, &ratio, "MPG430_SET_IPVALUE");
  return result < 0 ? result : TCamera::setIpratio(ratio);
}

void TMpg430::setResolution(int index) {
  if (request(kMpg430SetMode, &index, "MPG430_SET_MODE") < 0) return;
  TCamera::setResolution(index);
  fHeadr = true;
}

void TMpg430::setContrast(int contrast) {
  TCamera::setContrast(contrast);
  fImage = true;
}

void TMpg430::setBrightness(int brightness) {
  TCamera::setBrightness(brightness);
  fImage = true;
}

void TMpg430::setHue(int hue) {
  TCamera::setHue(hue);
  fImage = true;
}

void TMpg430::setSaturation(int saturation) {
  TCamera::setSaturation(saturation);
  fImage = true;
}

int TMpg430::setImage() {
  TMpg430Colour record;
  record.brightness = colour(brightness_, 0);  // Intended: the only one that is not centred
  record.hue = colour(hue_, kColourCentre);
  record.saturation = colour(saturation_, kColourCentre);
  record.contrast = colour(contrast_, kColourCentre);
  return request(kMpg430VideoSetcolor, &record, "MPG430_VIDEO_SETCOLOR");
}

void TMpg430::getStreamHeader() {
  if (fHeadr) fetchHeader(false);
}

// `ofGathered`: the key frame that the AVI writer gathers was begun while the header was to be
// fetched.
void TMpg430::fetchHeader(bool ofGathered) {
  if (resolution_ < 0 || resolution_ >= kResolutions) logEx(3, "TMpg430::getStreamHeader() IPE");
  // Lowered before the driver is asked: a change while it answers raises the flag again. For a
  // gathered key frame it was lowered before that was read.
  if (!ofGathered) fHeadr = false;
  char bytes[kMpg430HeaderBytes] = {};
  if (request(kMpg430GetImgheader, bytes, "MPG430_GET_IMGHEADER") != kMpg430HeaderBytes)
    logEx(3, "unexpected mp4 header size");
  bin2hex(bytes, kMpg430HeaderBytes, header, sizeof header);
  aviWriter()->setHeader(bytes, ofGathered);
  if (ofGathered && fHeadr) aviWriter()->cut();  // this may be the header of the next key frame
}

void TMpg430::getUserdata(int which, char* text) {
  text[0] = '\0';
  if (which != 0) return;
  getStreamHeader();
  std::memcpy(text, header, sizeof header);
}

char TMpg430::getFrameType(const char* chunk, long length, char previous) {
  if (length > kCodingTypeAt && std::memcmp(chunk, kPictureStart, sizeof kPictureStart) == 0) {
    const auto coding = static_cast<unsigned char>(chunk[kCodingTypeAt]);
    return (coding & kCodingTypeMask) != 0 ? kTypePredicted : kTypeKey;
  }
  return previous == kTypeKey || previous == kTypeKeyMore ? kTypeKeyMore : kTypePredictedMore;
}

int TMpg430::getImage(char* frame, long size) {
  if (size != TWriter::getFrameSize(sbVideo())) logEx(3, "TMpg430::getImage() IPE");
  if (fImage) {
    setImage();
    fImage = false;
  }
  TDateTime start;
  start.set();
  long used = 0;
  long trailer = size - kTrailerBytes;
  int chunks = 0;
  while (used < trailer && !TApplication::stopped) {
    const int length = readChunk(frame + used, trailer - used);
    storeTrailer(frame + trailer, lastType, kTrailerMore, static_cast<std::uint32_t>(length));
    used += length;
    ++chunks;
    if (chunks >= package_ || (lastRead_ - start).getTotal(kFieldTotalMs) >= kFrameMs) break;
    trailer -= kTrailerBytes;
  }
  if (chunks > 0) markLastTrailer(frame + size - chunks * kTrailerBytes);
  return static_cast<int>(used);
}

// Reads one chunk of at most `length` bytes and hands it to the AVI writer. Returns its length.
// Intended: a failing read is repeated at once, whatever the reason and for as long as it takes.
int TMpg430::readChunk(char* chunk, long length) {
  for (;;) {
    // Lowered meanwhile, so that a further change during the read is seen too.
    const bool raised = fHeadr;
    if (raised) fHeadr = false;
    const long result = TCamera::getImage(chunk, length);
    if (result < 1) {
      if (raised) fHeadr = true;
      logEx(2, "read(MPG430) return %ld", result);
      startAgain();
      continue;
    }
    // A driver that claims more than it was asked for must not lead out of the frame.
    const long taken = result < length ? result : length;
    lastType = getFrameType(chunk, taken, lastType);
    passOn(chunk, taken, raised);
    return static_cast<int>(taken);
  }
}

// Hands the chunk to the AVI writer in mode 0. `raised`: fHeadr was set before the chunk was read,
// and was lowered for that; it is set again unless the header is fetched here.
//
// A key frame that comes while the flag is up belongs to the header that is still to be fetched; if
// the flag went up during the read, to that one or to another. The next picture publishes the key
// frame, which may be in this same frame, so that its header is due now.
void TMpg430::passOn(const char* chunk, long length, bool raised) {
  TAviWriter* const writer = aviWriter();
  const bool gathers = getMode() == 0;
  if (gathers)
    writer->write(chunk, length, *getTime(), lastType);
  else if (lastType != kTypePredictedMore)
    writer->cut();
  if (gathers && lastType == kTypeKey && (raised || fHeadr) && writer->getRef())
    fetchHeader(raised);
  else if (raised)
    fHeadr = true;
}
