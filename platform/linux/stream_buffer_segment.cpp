#include "platform/linux/stream_buffer_segment.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/linux/futex.h"
#include "platform/linux/root.h"
#include "platform/linux/stream_buffer_points.h"
#include "platform/timer.h"

namespace sb {
namespace {

constexpr mode_t kFileMode = 0660;
constexpr const char* kOtherSize = "the file has another size";
constexpr const char* kNoMapping = "it can't be mapped";
constexpr std::uint32_t kLayoutPage = 4096;  // at least; systems with larger pages use theirs

// Checks what the head says against itself, the file and this program, and takes the copy that is
// used from now on. Returns null, or what is wrong.
const char* readGeometry(const Head& head, off_t fileSize, Segment* segment) {
  if (head.magic != kMagic) return "it is no stream buffer of this system";
  if (head.version != kVersion) return "it has another version";
  const std::uint32_t frames = head.frames;
  const std::uint32_t frameSize = head.frameSize;
  if (!frameCountFits(frames) || !frameSizeFits(frameSize)) return "its geometry is out of range";
  const Geometry g = makeGeometry(frames, frameSize, pageSize());
  if (head.leases != kLeases || head.slots != kSlots || head.headBytes != g.headBytes ||
      head.dataOffset != g.dataOffset || head.stride != g.stride ||
      head.totalBytes != g.totalBytes) {
    return "its sizes contradict each other";
  }
  if (fileSize != static_cast<off_t>(g.totalBytes)) return kOtherSize;
  segment->epoch = head.epoch;
  if (segment->epoch == 0) return "it has no epoch";
  segment->geometry = g;
  return nullptr;
}

// The head is mapped writable, the frames read-only, in one piece.
const char* mapSegment(int fd, Segment* segment) {
  struct stat status;
  if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return "it is no regular file";
  if (!trustedOwner(status.st_uid)) return "it belongs to somebody else";
  if (status.st_size < static_cast<off_t>(sizeof(Head)) || status.st_size > UINT32_MAX / 2) {
    return kOtherSize;
  }
  const auto size = static_cast<std::size_t>(status.st_size);
  Mapping* const mapping = Mapping::make(fd, size, PROT_READ);
  if (mapping == nullptr) return kNoMapping;
  unsigned char* const base = mapping->base();
  const char* wrong = readGeometry(*reinterpret_cast<const Head*>(base), status.st_size, segment);
  if (wrong == nullptr &&
      mprotect(base, segment->geometry.dataOffset, PROT_READ | PROT_WRITE) != 0) {
    wrong = kNoMapping;
  }
  if (wrong != nullptr) {
    Mapping::giveBack(mapping);
    return wrong;
  }
  segment->fd = fd;
  segment->device = status.st_dev;
  segment->inode = status.st_ino;
  segment->mapping = mapping;
  segment->base = base;
  return nullptr;
}

std::string folderOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

std::string privatePrefix(const std::string& path) {
  return "." + path.substr(path.rfind('/') + 1) + ".";
}

bool lockWhole(int fd) {
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  return fcntl(fd, F_SETLK, &lock) == 0;
}

// A creator holds a lock on its private file for as long as it lives.
void removeLeftOvers(const std::string& path) {
  DIR* folder = opendir(folderOf(path).c_str());
  if (folder == nullptr) return;
  const std::string prefix = privatePrefix(path);
  while (const dirent* entry = readdir(folder)) {
    if (std::strncmp(entry->d_name, prefix.c_str(), prefix.size()) != 0) continue;
    const std::string name = folderOf(path) + "/" + entry->d_name;
    const int fd = open(name.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) continue;
    if (lockWhole(fd)) unlink(name.c_str());
    close(fd);
  }
  closedir(folder);
}

std::uint32_t newEpoch() {
  std::uint32_t epoch = 0;
  const bool random = getrandom(&epoch, sizeof(epoch), GRND_NONBLOCK) == sizeof(epoch);
  if (!random) epoch = monotonicMs() ^ static_cast<std::uint32_t>(getpid()) << 16;
  return epoch == 0 ? 1 : epoch;
}

// Stores the words of the head that never change. Returns true iff one was another.
bool storeConstants(Head& head, const Geometry& g, std::uint32_t epoch) {
  const struct {
    Word& word;
    std::uint32_t value;
  } constants[] = {{head.magic, kMagic},           {head.version, kVersion},
                   {head.headBytes, g.headBytes},  {head.totalBytes, g.totalBytes},
                   {head.frames, g.frames},        {head.frameSize, g.frameSize},
                   {head.stride, g.stride},        {head.leases, kLeases},
                   {head.slots, kSlots},           {head.epoch, epoch},
                   {head.dataOffset, g.dataOffset}};
  bool changed = false;
  for (const auto& constant : constants) {
    if (constant.word == constant.value) continue;
    constant.word = constant.value;
    changed = true;
  }
  return changed;
}

bool fillHead(int fd, const Geometry& g, const Relaxed<std::int32_t>* values) {
  void* base = mmap(nullptr, g.dataOffset, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (base == MAP_FAILED) return false;
  storeConstants(*static_cast<Head*>(base), g, newEpoch());
  // A new file is all zeros: each slot names the first cell of the first lease.
  Word* const cells = reinterpret_cast<Word*>(static_cast<unsigned char*>(base) + g.cellAt);
  for (std::uint32_t i = 0; values != nullptr && i < kSlots; ++i) {
    cells[2 * i] = static_cast<std::uint32_t>(values[i].load());
  }
  munmap(base, g.dataOffset);
  return true;
}

}  // namespace

bool trustedOwner(uid_t uid) {
  if (uid == 0 || uid == geteuid()) return true;
  struct stat root;
  return !platformRoot().empty() && stat(platformRoot().c_str(), &root) == 0 && root.st_uid == uid;
}

std::uint32_t pageSize() {
  return std::max(kLayoutPage, static_cast<std::uint32_t>(sysconf(_SC_PAGESIZE)));
}

OpenResult openSegment(const std::string& path, Segment* segment, const char** reason) {
  // Nothing on the way may block or lead elsewhere: not a pipe, not a link.
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0 && errno == ENOENT) return OpenResult::kMissing;
  if (fd < 0) {
    *reason = std::strerror(errno);
    return OpenResult::kRefused;
  }
  *reason = mapSegment(fd, segment);
  if (*reason == nullptr) return OpenResult::kOpened;
  close(fd);
  return OpenResult::kRefused;
}

// Where the kernel can, all pages are entered at once, so that the first round of frames is as
// quick as the others.
bool makeWritable(const Segment& segment) {
  unsigned char* frames = segment.frame(0);
  const std::size_t size = segment.geometry.totalBytes - segment.geometry.dataOffset;
  if (mprotect(frames, size, PROT_READ | PROT_WRITE) != 0) return false;
#ifdef MADV_POPULATE_WRITE
  madvise(frames, size, MADV_POPULATE_WRITE);
#endif
  return true;
}

// The space is allocated here: a page that can't be had later would kill whoever touches it.
std::string buildSegment(const std::string& path, const Geometry& geometry,
                         const Relaxed<std::int32_t>* values) {
  removeLeftOvers(path);
  const std::string name =
      folderOf(path) + "/" + privatePrefix(path) + std::to_string(static_cast<long>(getpid()));
  unlink(name.c_str());  // ours: a predecessor had the same process id
  const int fd = open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) return {};
  reached(Point::kSegmentCreated);
  int error = lockWhole(fd) ? posix_fallocate(fd, 0, geometry.totalBytes) : EAGAIN;
  const gid_t group = cameraGroup();
  if (error == 0 && !fillHead(fd, geometry, values)) error = errno;
  if (error == 0 && group != static_cast<gid_t>(-1) && fchown(fd, static_cast<uid_t>(-1), group)) {
    error = errno == EPERM ? 0 : errno;  // a tester is not in the group
  }
  if (error == 0 && fchmod(fd, kFileMode) != 0) error = errno;
  reached(Point::kSegmentFilled);
  if (error != 0) unlink(name.c_str());
  close(fd);
  errno = error;
  return error == 0 ? name : std::string();
}

bool wrongSize(const Segment& segment) {
  struct stat status;
  return fstat(segment.fd, &status) == 0 &&
         status.st_size != static_cast<off_t>(segment.geometry.totalBytes);
}

bool restoreSize(const Segment& segment) {
  const auto size = static_cast<off_t>(segment.geometry.totalBytes);
  if (ftruncate(segment.fd, size) != 0) return false;
  errno = posix_fallocate(segment.fd, 0, size);
  return errno == 0;
}

bool restoreHead(const Segment& segment) {
  return storeConstants(segment.head(), segment.geometry, segment.epoch);
}

int publishSegment(const std::string& built, const std::string& path, ino_t old) {
  int error = 0;
  struct stat status;
  if (old == 0) {
    error = link(built.c_str(), path.c_str()) == 0 ? 0 : errno;
  } else if (lstat(path.c_str(), &status) != 0 || status.st_ino != old) {
    error = EEXIST;
  } else if (rename(built.c_str(), path.c_str()) == 0) {
    return 0;
  } else {
    error = errno;
  }
  unlink(built.c_str());
  return error;
}

void wakeAll(Head& head) {
  futexWake(head.latest);
  futexWake(head.freed);
}

// Not through the system's name services: a static program has none.
gid_t cameraGroup() {
  gid_t found = static_cast<gid_t>(-1);
  std::FILE* file = std::fopen(rooted("/etc/group").c_str(), "re");
  if (file == nullptr) return found;
  while (const group* entry = fgetgrent(file)) {
    if (std::strcmp(entry->gr_name, "camera") == 0) found = entry->gr_gid;
  }
  std::fclose(file);
  return found;
}

}  // namespace sb
