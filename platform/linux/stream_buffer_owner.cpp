#include "platform/linux/stream_buffer_owner.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>

#include "platform/camera_config.h"
#include "platform/linux/root.h"
#include "platform/linux/stream_buffer_handle.h"
#include "platform/linux/stream_buffer_points.h"
#include "platform/linux/stream_buffer_streams.h"
#include "platform/log.h"
#include "platform/timer.h"

namespace sb {

IniReader readIni = nullptr;

namespace {

constexpr mode_t kFolderMode = 0750;  // the group attaches, and neither makes nor removes
constexpr std::uint32_t kRestoreMs = 10000;
constexpr std::uint32_t kTurnMs = 500;
constexpr useconds_t kTurnStepUs = 2000;
constexpr int kTries = 50;  // against creators that come at the same instant
// Against errors that come once: without its segments a camera gives no picture until its next
// start.
constexpr int kErrorTries = 3;

std::uint32_t configuredNumber(const std::string& key, std::uint32_t fallback,
                               bool (*fits)(std::uint32_t)) {
  if (readIni == nullptr) return fallback;
  const std::string file = rooted(kCameraConfig);
  const int value = readIni(file.c_str(), "Buffers", key.c_str(), static_cast<int>(fallback));
  if (value >= 0 && fits(static_cast<std::uint32_t>(value))) {
    return static_cast<std::uint32_t>(value);
  }
  logEx(2, "%s: [Buffers] %s is out of range: %d", file.c_str(), key.c_str(), value);
  return fallback;
}

FrameSizes configured(const std::string& stream, const FrameSizes& fallback) {
  FrameSizes sizes;
  sizes.frames = configuredNumber(stream + "Frames", fallback.frames, frameCountFits);
  sizes.frameSize = configuredNumber(stream + "FrameSize", fallback.frameSize, frameSizeFits);
  return sizes;
}

// What is owned, for restoreSegment().
BufferSizes owned;
struct Restored {
  bool ever = false;
  std::uint32_t ms = 0;  // monotonic, the last time
} restored[kStreams];

const FrameSizes& ownedSizes(int stream) {
  return stream == kVideo ? owned.video : stream == kVideo2 ? owned.video2 : owned.audio;
}

// Returns 0 or an error. A folder that is there already keeps its mode.
int makeFolder() {
  const std::string folder = rooted("/dev/shm/camera");
  if (mkdir(folder.c_str(), kFolderMode) == 0) {
    const gid_t group = cameraGroup();
    if (group != static_cast<gid_t>(-1) &&
        chown(folder.c_str(), static_cast<uid_t>(-1), group) != 0 && errno != EPERM) {
      return errno;
    }
    return chmod(folder.c_str(), kFolderMode) == 0 ? 0 : errno;
  }
  if (errno != EEXIST) return errno;
  struct stat status;
  if (lstat(folder.c_str(), &status) != 0) return errno;
  if (!S_ISDIR(status.st_mode)) return ENOTDIR;
  return trustedOwner(status.st_uid) ? 0 : EPERM;
}

// Creators come one after the other. A creator that is stopped meanwhile delays the others, but
// does not keep them: naming a segment is safe without this, only more tries are lost.
class Turn {
 public:
  Turn() : fd_(open(rooted("/dev/shm/camera").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    const std::uint32_t start = monotonicMs();
    while (flock(fd_, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK &&
           monotonicMs() - start < kTurnMs) {
      usleep(kTurnStepUs);
    }
  }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;
  ~Turn() { close(fd_); }

 private:
  int fd_;
};

bool sameSize(const SB_HANDLE& handle, const FrameSizes& sizes) {
  return handle.segment.geometry.frames == sizes.frames &&
         handle.segment.geometry.frameSize == sizes.frameSize;
}

Head& headOf(const Mapping& mapping) { return *reinterpret_cast<Head*>(mapping.base()); }

// The head of a segment that this program can't attach, such as one of another version; null when
// there is none.
Mapping* foreignHead(const char* path) {
  const int fd = open(path, O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0) return nullptr;
  Mapping* mapping = nullptr;
  struct stat status;
  if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode) &&
      status.st_size >= static_cast<off_t>(sizeof(Head))) {
    mapping = Mapping::make(fd, sizeof(Head), PROT_READ | PROT_WRITE);
  }
  close(fd);
  if (mapping == nullptr || headOf(*mapping).magic == kMagic) return mapping;
  Mapping::giveBack(mapping);
  return nullptr;
}

// One attempt. Returns 0 or an error.
// The old segment is retired before it loses its name, because its users may do no more than look
// at that word. A creator that dies in between leaves a segment that is used all the same and
// looked at more often, until the next creator.
int createOnce(int stream, const FrameSizes& sizes, const SB_HANDLE* last) {
  const char* path = streamPath(stream);
  struct stat status;
  const bool named = lstat(path, &status) == 0;
  const Attached found = attach(stream);
  if (found == Attached::kFull) return EUSERS;
  SB_HANDLE* old = found == Attached::kYes ? current[stream].load() : nullptr;
  if (found == Attached::kYes && old == nullptr) return EAGAIN;  // replaced this very moment
  if (old != nullptr && named && sameSize(*old, sizes)) {
    old->head.retired = 0;
    return 0;
  }
  Mapping* const foreign = old == nullptr ? foreignHead(path) : nullptr;
  Head* const oldHead = old != nullptr       ? &old->head
                        : foreign != nullptr ? &headOf(*foreign)
                                             : nullptr;
  const Geometry geometry = makeGeometry(sizes.frames, sizes.frameSize, pageSize());
  const std::string built =
      buildSegment(path, geometry, last != nullptr ? last->mine.values : nullptr);
  int error = built.empty() ? errno : 0;
  if (error == 0) {
    if (oldHead != nullptr) oldHead->retired = 1;
    reached(Point::kSegmentRetired);
    error = publishSegment(built, path, named ? status.st_ino : 0);
    reached(Point::kSegmentReplaced);
  }
  if (oldHead != nullptr) {
    if (error != 0) oldHead->retired = 0;
    wakeAll(*oldHead);
  }
  if (old != nullptr) {
    current[stream].store(nullptr);
  } else if (foreign != nullptr) {
    Mapping::giveBack(foreign);
  }
  if (error == 0 && attach(stream) != Attached::kYes) error = EAGAIN;
  return error;
}

// Another creator was faster, or took our file for one that was left over.
bool lostToAnother(int error) { return error == EEXIST || error == ENOENT || error == EAGAIN; }

// `last`: whose slots' values a segment that is made has at first; null: all 0.
bool ownSegment(int stream, const SB_HANDLE* last) {
  const FrameSizes& sizes = ownedSizes(stream);
  int error = EEXIST;
  int failures = 0;
  for (int i = 0; error != 0 && i < kTries && failures < kErrorTries; ++i) {
    error = createOnce(stream, sizes, last);
    if (error != 0 && !lostToAnother(error)) ++failures;
  }
  if (error != 0) logEx(3, "can't create buffer %s: %s", streamPath(stream), std::strerror(error));
  return error == 0;
}

}  // namespace

BufferSizes configuredSizes() {
  BufferSizes sizes;
  sizes.video = configured("Video", sizes.video);
  sizes.video2 = configured("Video2", sizes.video2);
  sizes.audio = configured("Audio", sizes.audio);
  return sizes;
}

bool ownSegments(const BufferSizes& sizes) {
  owned = sizes;
  for (Restored& before : restored) before = Restored();
  becomeOwner();  // also of what is made later only
  int error = makeFolder();
  for (int i = 1; error != 0 && i < kErrorTries; ++i) error = makeFolder();
  if (error != 0) {
    logEx(3, "can't create folder %s: %s", rooted("/dev/shm/camera").c_str(), std::strerror(error));
    return false;
  }
  const Turn turn;
  bool all = true;
  for (int stream = 0; stream < kStreams; ++stream) all = ownSegment(stream, nullptr) && all;
  return all;
}

void restoreSegment(int stream) {
  static std::mutex mutex;
  if (!owns()) return;
  const std::unique_lock<std::mutex> lock(mutex, std::try_to_lock);
  if (!lock.owns_lock()) return;
  Restored& before = restored[stream];
  const std::uint32_t now = monotonicMs();
  if (before.ever && now - before.ms < kRestoreMs) return;
  before = {true, now};
  makeFolder();
  const Turn turn;
  const SB_HANDLE* const last = lastHandle(stream);
  if (!ownSegment(stream, last) || last == nullptr) return;
  SB_HANDLE* const made = lastHandle(stream);
  if (made == last) return;  // the name was there again
  made->adoptValues(*last);
  logEx(2, "buffer %s was taken away by another process, made anew", streamPath(stream));
}

}  // namespace sb

void sbOwnSegments() { sb::ownSegments(sb::configuredSizes()); }
