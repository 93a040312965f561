#include "tests/fuzz/segment_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <vector>

#include "platform/linux/root.h"
#include "platform/linux/stream_buffer_layout.h"
#include "platform/linux/stream_buffer_points.h"

extern "C" void* __real_mmap64(void* at, size_t size, int how, int flags, int fd, off_t from);
extern "C" int __real_munmap(void* at, size_t size);

namespace {

constexpr std::size_t kPage = 4096;
constexpr std::size_t kGuard = 1 << 20;  // beside a mapping
const sb::Geometry kGeometry = sb::makeGeometry(2, 1024, kPage);
std::string root;
std::string path;
char* shared = nullptr;  // the file as the other process has it mapped
std::string sound;       // what it holds when nothing is wrong
int file = -1;
std::size_t length = 0;  // of the file
Input* patches = nullptr;

struct Mapped {
  char* at;
  std::size_t size;
  int fd;
};
std::vector<Mapped> mappings;

std::size_t rounded(std::size_t size) { return (size + kPage - 1) / kPage * kPage; }

std::string soundSegment() {
  std::string bytes(kGeometry.totalBytes, '\0');
  auto& head = *reinterpret_cast<sb::Head*>(bytes.data());
  head.magic = sb::kMagic;
  head.version = sb::kVersion;
  head.headBytes = kGeometry.headBytes;
  head.totalBytes = kGeometry.totalBytes;
  head.frames = kGeometry.frames;
  head.frameSize = kGeometry.frameSize;
  head.stride = kGeometry.stride;
  head.leases = sb::kLeases;
  head.slots = sb::kSlots;
  head.epoch = 1;
  head.dataOffset = kGeometry.dataOffset;
  head.latest = 7;
  auto* const words = reinterpret_cast<std::uint32_t*>(bytes.data());
  for (std::uint32_t i = 0; i < kGeometry.frames; ++i) {
    words[kGeometry.seqAt / 4 + i] = 6 + i;
    bytes[kGeometry.dataOffset + i * kGeometry.stride + 8] = 50;  // the payload's length
  }
  return bytes;
}

// Most patches hit the words at the beginning, where it matters. One cuts the file.
void patch(Input& input) {
  const unsigned where = input.byte();
  if (where == 0xff) {
    length = std::min<std::size_t>(length, input.byte() * 256);
    require(ftruncate(file, static_cast<off_t>(length)) == 0, "the file can be cut");
    return;
  }
  const std::uint32_t value = input.take<std::uint32_t>();
  std::uint32_t word = where;
  if (where >= 240)
    word = (kGeometry.dataOffset + (where % 2) * kGeometry.stride) / 4 + where / 2 % 8;
  if (where >= 160 && where < 240) word = input.word() % (kGeometry.headBytes / 4);
  if (rounded(length) < 4 * (word + 1)) return;  // there is no such page any more
  __atomic_store_n(reinterpret_cast<std::uint32_t*>(shared) + word, value, __ATOMIC_SEQ_CST);
}

void reached(sb::Point) {
  if (patches == nullptr || patches->left() == 0) return;
  for (unsigned count = patches->byte(); count > 0xe0; --count) patch(*patches);
}

}  // namespace

extern "C" {

// A shared mapping has nothing beside it, so that a byte too far is seen.
void* __wrap_mmap64(void* at, size_t size, int how, int flags, int fd, off_t from) {
  if (at != nullptr || (flags & MAP_SHARED) == 0)
    return __real_mmap64(at, size, how, flags, fd, from);
  const std::size_t whole = rounded(size) + 2 * kGuard;
  void* const room =
      __real_mmap64(nullptr, whole, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (room == MAP_FAILED) return room;
  char* const middle = static_cast<char*>(room) + kGuard;
  void* const result = __real_mmap64(middle, size, how, flags | MAP_FIXED, fd, from);
  if (result == MAP_FAILED) {
    __real_munmap(room, whole);
    return result;
  }
  mappings.push_back({middle, size, fd});
  return result;
}

int __wrap_munmap(void* at, size_t size) {
  for (std::size_t i = 0; i < mappings.size(); ++i) {
    if (mappings[i].at != at) continue;
    require(mappings[i].size == size, "what is unmapped was mapped");
    mappings.erase(mappings.begin() + static_cast<long>(i));
    return __real_munmap(static_cast<char*>(at) - kGuard, rounded(size) + 2 * kGuard);
  }
  return __real_munmap(at, size);
}

}  // extern "C"

void segment_file::prepare() {
  char name[] = "/dev/shm/vs_fuzz_XXXXXX";
  root = mkdtemp(name);
  setPlatformRoot(root);
  std::filesystem::create_directories(root + "/dev/shm/camera");
  path = root + "/dev/shm/camera/video";
  sound = soundSegment();
  std::atexit([] {
    std::error_code error;
    std::filesystem::remove_all(root, error);
  });
}

void segment_file::make(Input* input) {
  if (shared != nullptr) {
    __real_munmap(shared, rounded(sound.size()));
    close(file);
  }
  unlink(path.c_str());
  file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0660);
  require(file >= 0 && ftruncate(file, static_cast<off_t>(sound.size())) == 0, "there is room");
  shared = static_cast<char*>(
      __real_mmap64(nullptr, rounded(sound.size()), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
  require(shared != MAP_FAILED, "there is room");
  sound.copy(shared, sound.size());
  length = sound.size();
  const unsigned size = input->byte();
  for (unsigned count = input->byte() % 16; count > 0; --count) patch(*input);
  // A file of another length.
  if (size < 0xf0) return;
  length = (size % 16) * 2048;
  require(ftruncate(file, static_cast<off_t>(length)) == 0, "the file can be cut");
}

void segment_file::begin(Input* input) {
  patches = input;
  sb::onPoint = reached;
}

void segment_file::end() {
  patches = nullptr;
  sb::onPoint = nullptr;
}

void segment_file::unmapLeftOvers() {
  while (!mappings.empty()) {
    close(mappings.back().fd);
    munmap(mappings.back().at, mappings.back().size);
  }
}
