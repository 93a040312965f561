// Records the main stream into files on the Samba share.
#include "record/smb_recorder.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include "capture/chunk_trailers.h"
#include "core/status_slots.h"
#include "platform/bytes.h"
#include "platform/event_log.h"
#include "platform/ini_file.h"
#include "platform/log.h"
#include "platform/media.h"
#include "platform/os.h"
#include "platform/storage.h"
#include "platform/stream_buffer.h"
#include "platform/timer.h"

namespace {

constexpr char kMountPoint[] = "/smb";
constexpr char kFolder[] = "camera";
constexpr char kSystemFile[] = "/etc/sys.conf";

constexpr int kMounted = 1;  // as getState() gives it

constexpr int kEventNotOpened = 523;
constexpr int kEventNotWritten = 524;
constexpr int kEventNotClosed = 525;
constexpr int kEventFull = 526;

constexpr int kDefaultMinutes = 25;
constexpr int kDefaultMiB = 640;
constexpr std::int64_t kMinuteS = 60;
constexpr std::int64_t kMiB = 1 << 20;

constexpr int kSettingMask = 0xff;    // of the status word
constexpr std::int32_t kRate = 1000;  // what a rate of one frame per second is
constexpr unsigned kRestS = 2;        // between two looks whether a rest is over

int setting(const char* key, int fallback) {
  return getIniInt(kSystemFile, "Samba", key, fallback);
}

std::int64_t limit(const char* key, int fallback) {
  const int value = setting(key, fallback);
  if (value > 0) return value;
  logEx(2, "%s: [Samba] %s is out of range: %d", kSystemFile, key, value);
  return fallback;
}

}  // namespace

TSmbRecorder::TSmbRecorder(const char* prefix)
    : TRecorder(nullptr, kMountPoint, kFolder, prefix),
      raw_(setting("Debug", 0) != 0),
      byLength_(setting("DivideBy", 0) != 0),
      recycle_(setting("Recycle", 1) != 0),
      maxSeconds_(limit("MaxLength", kDefaultMinutes) * kMinuteS),
      maxBytes_(limit("MaxSize", kDefaultMiB) * kMiB) {
  setPause(0);
  if (!raw_ && aviCreate(&file_) < 0) logEx(3, "aviCreate() fail");
}

// A body that its owner has forgotten must not outlive the file that it writes.
TSmbRecorder::~TSmbRecorder() {
  if (running()) TRecorder::stop(true);
  TSmbRecorder::onRelease();
  if (!raw_ && aviRelease(&file_) < 0) logEx(3, "aviRelease() fail");
}

bool TSmbRecorder::onInitial() { return true; }

bool TSmbRecorder::onRelease() {
  if (!file_.open || close()) return true;
  log_event(kEventNotClosed);
  return false;
}

bool TSmbRecorder::onPreview(const SB_FRAME& frame) {
  const bool gap = drop_.test(static_cast<std::int32_t>(loadLe32(frame.number)));
  time_.advance(frameTime(), monotonicMs());
  char header[sizeof header_] = "";
  std::memcpy(header, frame.userdata[0], kHeaderText);
  if (std::strcmp(header, header_) != 0) {
    std::memcpy(header_, header, sizeof header_);
    std::memset(file_.header, 0, sizeof file_.header);
    hex2bin(header_, file_.header, sizeof file_.header);
    if (!gap) finishPicture(frame);
    return onRelease();
  }
  // Intended: inputs, relays and access stand in the same byte and end the file too.
  const int setting = sbGetUserdata(sbVideo(), kSlotStatus) & kSettingMask;
  if (setting == setting_) return true;
  setting_ = setting;
  file_.rate = setting * (2 * kRate) + 2 * kRate;
  if (!gap) finishPicture(frame);
  return onRelease();
}

// A picture may begin in one frame and end in the next, which may be the one that ends the file.
void TSmbRecorder::finishPicture(const SB_FRAME& frame) {
  const long length = static_cast<std::int32_t>(loadLe32(frame.length));
  if (!file_.open || !TChunkReader::sound(frame.payload, length, largestPayload())) return;
  TChunkReader chunks(frame.payload, length, largestPayload());
  TChunk chunk;
  while (file_.open && chunks.next(&chunk)) {
    if (!goesOnWithPicture(chunk.type)) return;
    file_.type = chunk.type;
    if (!fits(chunk.type) || !write(chunk.data, chunk.length)) return;
  }
}

long TSmbRecorder::largestPayload() const {
  return sbGetFrameSize(handle()) - static_cast<long>(kFrameHeadBytes);
}

// The frame is judged as a whole before anything of it is written.
bool TSmbRecorder::onCapture(const char* data, long length) {
  if (length < 1) return true;
  const long largest = largestPayload();
  if (!TChunkReader::sound(data, length, largest)) {
    if (!unsound_) logEx(2, "frame without valid chunk trailers");
    unsound_ = true;
    return true;
  }
  unsound_ = false;
  TChunkReader chunks(data, length, largest);
  TChunk chunk;
  while (chunks.next(&chunk))
    if (!store(chunk)) return false;
  return true;
}

bool TSmbRecorder::store(const TChunk& chunk) {
  if (!onDevide(chunk.type)) return onDiskfull(false);
  file_.type = chunk.type;
  if (drop_.dropzone() || !file_.open || !fits(chunk.type)) return true;
  if (!write(chunk.data, chunk.length)) return onDiskfull(true);
  if (!goesOnWithPicture(chunk.type)) ++frames_;
  return true;
}

long TSmbRecorder::onTranscode(char* /*data*/, long /*length*/) { return 0; }

bool TSmbRecorder::onSetname(const TDateTime& time, const char* extension) {
  if (nameSecond_ == std::int64_t{time.seconds()}) return true;
  if (!TRecorder::onSetname(time, extension)) return false;
  nameSecond_ = time.seconds();
  return true;
}

const char* TSmbRecorder::getExtention(const char* /*data*/) { return raw_ ? "raw" : "avi"; }

SB_HANDLE* TSmbRecorder::getHandle() { return sbVideo(); }

// A file holds JPEG pictures or an MPEG-4 stream. While the camera changes from one to the other
// the status word may be ahead of the frames, so that the setting alone does not separate them.
bool TSmbRecorder::fits(char type) const { return (type == kTypeJpeg) == jpeg_; }

// Returns false when a file that this chunk is to begin can't be opened.
bool TSmbRecorder::onDevide(char type) {
  if (type != kTypeKey && type != kTypeJpeg) return true;
  drop_.resume();
  if (!file_.open || !fits(type)) return reopen(type);
  const bool over = byLength_ ? time_.seconds() - opened_ > maxSeconds_ : file_.size > maxBytes_;
  return !over || reopen(type);
}

// What could not be closed for want of room lets the next file be opened if there is room again:
// a share that recycles must not keep the recorder resting.
bool TSmbRecorder::reopen(char type) {
  if (!onRelease() && !(error_ == ENOSPC && rmOldest())) return false;
  if (getState() != kMounted) {
    error_ = ENODEV;
    return false;
  }
  std::memcpy(name_, fileName(), sizeof name_);
  if (!prepareAndOpen() && !(error_ == ENOSPC && rmOldest() && prepareAndOpen())) return false;
  opened_ = time_.seconds();
  frames_ = 0;
  jpeg_ = type == kTypeJpeg;
  return true;
}

// Opens the file, in a folder that is made if need be: on a full share either may find no room.
bool TSmbRecorder::prepareAndOpen() {
  char folder[kNameBytes];
  if (get_folder(name_, folder, sizeof folder) != 0) {
    error_ = EINVAL;
    return false;
  }
  if (!test_dir(folder) && mkdir2(folder) != 0) {
    error_ = errno;
    return false;
  }
  return open();
}

bool TSmbRecorder::open() {
  if ((raw_ ? rawOpen : aviOpen)(&file_, name_) < 0) {
    error_ = errno;
    return false;
  }
  std::memcpy(name_, file_.name, sizeof name_);
  return true;
}

// The chunk that found no room is lost, and with it the rest of its file: the next one begins with
// the next key frame.
bool TSmbRecorder::write(const char* data, long length) {
  if ((raw_ ? rawWrite : aviWrite)(&file_, data, length) >= 0) return true;
  error_ = errno;
  return error_ == ENOSPC && rmOldest() && onRelease();
}

bool TSmbRecorder::close() {
  file_.rate = measuredRate();
  if ((raw_ ? rawClose : aviClose)(&file_) >= 0) return true;
  error_ = errno;
  return false;
}

std::int32_t TSmbRecorder::measuredRate() const {
  const std::int64_t seconds = time_.seconds() - opened_;
  const double frames = frames_ * double{kRate};
  const double rate = seconds > 0 ? frames / static_cast<double>(seconds) : frames;
  return static_cast<std::int32_t>(
      std::min(rate, double{std::numeric_limits<std::int32_t>::max()}));
}

// Intended: a frame stays pinned during the rest, which costs the stream one of its frames.
bool TSmbRecorder::onDiskfull(bool writing) {
  if (error_ != ENOSPC) {
    log_event(writing ? kEventNotWritten : kEventNotOpened);
    return false;
  }
  log_event(kEventFull);
  logEx(2, "no room on the share: error %d", error_);
  onRelease();
  while (running()) os::sleep(kRestS);
  return false;
}
