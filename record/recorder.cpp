// The capture loop that all recorders share.
#include "record/recorder.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <limits>

#include "capture/camera.h"
#include "platform/bytes.h"
#include "platform/log.h"
#include "platform/media.h"
#include "platform/os.h"
#include "platform/storage.h"
#include "platform/stream_buffer.h"
#include "record/avi_writer.h"
#include "record/jpg_writer.h"

namespace {

// How far back a recorder without a place in the stream joins. Frames from before the start are
// passed over, so this only has to cover what happens between the start and the first look.
constexpr long kJoinMs = 1000;
constexpr long kFrameWaitMs = 10;
constexpr unsigned long kPollUs = 10000;    // between two looks for a frame
constexpr unsigned long kWarmUpUs = 30000;  // lets the writers notice their new client
constexpr unsigned kPauseS = 1;
constexpr unsigned kReleaseS = 1;

// What slash() is to do at the ends of a text.
constexpr int kMountPointSlashes = 10;  // "/usb/"
constexpr int kFolderSlashes = 9;       // "pics/"
constexpr int kPrefixSlashes = 5;       // "cam"

bool isJpeg(const char* data) {
  return static_cast<unsigned char>(data[0]) == 0xFF && static_cast<unsigned char>(data[1]) == 0xD8;
}

void setPart(const char* text, char* part, int capacity, int how) {
  part[0] = '\0';
  if (text != nullptr && text[0] != '\0') slash(text, part, capacity, how);
}

std::int32_t saturated(long seconds) {
  constexpr long kMax = std::numeric_limits<std::int32_t>::max();
  return static_cast<std::int32_t>(std::min(std::max(seconds, 0L), kMax));
}

}  // namespace

TRecorder::TRecorder(TCamera* camera, const char* mountPoint, const char* folder,
                     const char* prefix)
    : PThread("pthread"),
      pause_(kPauseS),
      camera_(camera),
      bufferLength_(TWriter::getFrameSize(sbVideo2())) {
  setMPoint(mountPoint);
  setFolder(folder);
  setPrefix(prefix);
  if (bufferLength_ < 1)
    logEx(1, "Video2 buflen is %ld, avibuf is not allocated", bufferLength_);
  else
    buffer_ = std::make_unique<char[]>(static_cast<std::size_t>(bufferLength_));
}

// Ends a body that its owner has forgotten while there still is something to work on.
TRecorder::~TRecorder() {
  if (running()) PThread::stop(true);
}

void TRecorder::setMPoint(const char* text) {
  setPart(text, mountPoint_, sizeof mountPoint_, kMountPointSlashes);
}

void TRecorder::setFolder(const char* text) {
  setPart(text, folder_, sizeof folder_, kFolderSlashes);
}

void TRecorder::setPrefix(const char* text) {
  setPart(text, prefix_, sizeof prefix_, kPrefixSlashes);
}

SB_HANDLE* TRecorder::getHandle() {
  if (camera_ == nullptr) {
    logEx(3, "TRecorder::getHandle() IPE");
    return sbVideo2();
  }
  const int mode = camera_->getMode();
  return mode == 1 || mode == 3 ? sbVideo() : sbVideo2();
}

// The request is written, and the thread started, under one lock: a body that sees the request can
// rely on it that its start has been called.
void TRecorder::start(long seconds) {
  SB_HANDLE* const handle = getHandle();
  std::lock_guard<std::mutex> guard(mutex_);
  stopped_ = false;
  if (handle != request_.handle) {
    PThread::stop(false);
    request_.handle = handle;
  }
  request_.seconds = saturated(seconds);
  request_.start = TInstant::now();
  ++request_.count;
  run();
}

bool TRecorder::takeRequest() {
  TRequest request;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    if (request_.count == taken_) return false;
    request = request_;
  }
  taken_ = request.count;
  duration_ = request.seconds;
  startTime_ = request.start.wall;
  time_.begin(request.start);
  if (request.handle != handle_) {
    handle_ = request.handle;
    number_ = 0;
    epoch_ = 0;
  }
  return true;
}

void TRecorder::execute() {
  takeRequest();
  if (!onInitial()) {
    endUnlessStartedAgain();
    return;
  }
  while (running()) {
    if (!pass()) {
      endUnlessStartedAgain();
      break;
    }
  }
  onRelease();
}

// A start that came in after the body last looked found it running and did nothing more. One that
// comes in after leave() is the thread's own care. What the owner has stopped stays stopped.
void TRecorder::endUnlessStartedAgain() {
  leave();
  std::lock_guard<std::mutex> guard(mutex_);
  if (request_.count != taken_ && !stopped_) run();
}

bool TRecorder::stop(bool wait) {
  {
    std::lock_guard<std::mutex> guard(mutex_);
    stopped_ = true;
  }
  return PThread::stop(wait);
}

// One look for a frame. Returns false when the recording is to end.
bool TRecorder::pass() {
  takeRequest();
  {
    TAutoFrame frame(handle_, kJoinMs, &number_, &epoch_, kFrameWaitMs);
    time_.look(TInstant::now());
    if (frame && isNew(*frame.get())) {
      if (!store(*frame.get()) || over()) return false;
      if (pause_ > 0) os::sleep(pause_);
    }
  }
  os::usleep(kPollUs);
  return true;
}

// Returns true iff the frame was taken after the start and is sound, and notes its time and length.
// The length is another process's word and may change meanwhile, so it is read this once.
bool TRecorder::isNew(const SB_FRAME& frame) {
  const long length = static_cast<std::int32_t>(loadLe32(frame.length));
  if (length < 1 || length > sbGetFrameSize(handle_) - static_cast<long>(kFrameHeadBytes))
    return false;
  const TDateTime time(loadLe32(frame.seconds), loadLe32(frame.microseconds));
  std::int64_t seconds = 0;
  if (!time_.since(time, &seconds)) return false;
  frameTime_ = time;
  frameLength_ = length;
  return true;
}

bool TRecorder::store(SB_FRAME& frame) {
  if (!onPreview(frame)) return false;
  if (!onSetname(frameTime_, getExtention(frame.payload))) return false;
  const long converted = onTranscode(frame.payload, frameLength_);
  return converted > 0 ? onCapture(buffer_.get(), converted)
                       : onCapture(frame.payload, frameLength_);
}

// Returns true iff the frame that was stored last reached the end of the recording. A start that
// came in meanwhile counts: the frame is older than it, and so does not answer it.
bool TRecorder::over() {
  if (takeRequest()) time_.look(TInstant::now());
  std::int64_t seconds = 0;
  return time_.since(frameTime_, &seconds) && seconds >= duration_;
}

bool TRecorder::onInitial() {
  aviWriter()->addRef(this);
  jpgWriter()->addRef(this);
  os::usleep(kWarmUpUs);
  return true;
}

bool TRecorder::onRelease() {
  aviWriter()->delRef(this);
  jpgWriter()->delRef(this);
  os::sleep(kReleaseS);
  return true;
}

bool TRecorder::onPreview(const SB_FRAME& /*frame*/) { return true; }

long TRecorder::onTranscode(char* data, long length) {
  if (isJpeg(data)) return 0;
  const long converted = buffer_ != nullptr ? i2avi(data, length, buffer_.get(), bufferLength_) : 0;
  if (converted < 1) logEx(3, "TRecorder::onTranscode() i2avi() fail");
  return converted;
}

const char* TRecorder::getExtention(const char* data) { return isJpeg(data) ? "jpg" : "avi"; }

bool TRecorder::onSetname(const TDateTime& time, const char* extension) {
  short year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  time.decode(year, month, day, hour, minute, second);
  return setName("%s%s%04d%02d%02d/%s%02d%02d%02d.%s", mountPoint_, folder_, year, month, day,
                 prefix_, hour, minute, second, extension);
}

bool TRecorder::setName(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(fileName_, sizeof fileName_, format, arguments);
  va_end(arguments);
  if (length >= 0 && length < kNameBytes) return true;
  logEx(2, "recording name longer than %d bytes: %s", kNameBytes - 1, fileName_);
  return false;
}
