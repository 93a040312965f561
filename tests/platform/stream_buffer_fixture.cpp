#include "tests/platform/stream_buffer_fixture.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>

#include "platform/bytes.h"
#include "platform/linux/root.h"
#include "platform/linux/stream_buffer_streams.h"
#include "platform/log.h"
#include "platform/timer.h"

namespace {

std::mutex logMutex;
std::vector<std::string>& lines() {
  static auto* const all = new std::vector<std::string>;
  return *all;
}

sb::Point signalPoint = sb::Point::kCount;
int signalNumber = 0;
int signalCount = 0;
sb::Point callPoint = sb::Point::kCount;
std::function<void()>& callAction() {
  static auto* const action = new std::function<void()>;
  return *action;
}

void pointReached(sb::Point point) {
  if (point == callPoint && callAction()) callAction()();
  if (point == signalPoint && --signalCount == 0) raise(signalNumber);
}

std::uint32_t mix(std::uint32_t value) {
  value = (value ^ value >> 16) * 0x45d9f3bU;
  return value ^ value >> 16;
}

}  // namespace

// The tests look at what the stream buffer logs.
int logEx(int level, const char* format, ...) {
  char text[1000];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  const std::lock_guard<std::mutex> guard(logMutex);
  lines().push_back(std::to_string(level) + " " + text);
  return -1;
}

void free_log() {}

std::vector<std::string> loggedLines() {
  const std::lock_guard<std::mutex> guard(logMutex);
  return lines();
}

Child::Child(const std::function<int()>& body) {
  std::fflush(nullptr);
  pid_ = fork();
  if (pid_ != 0) return;
  const int status = body();
  std::fflush(nullptr);
  _exit(testing::Test::HasFailure() ? 99 : status);
}

Child::~Child() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  wait();
}

void Child::kill(int signal) const { ::kill(pid_, signal); }

void Child::stop() const {
  ::kill(pid_, SIGSTOP);
  awaitStop();
}

bool Child::awaitStop() const {
  int status = 0;
  return waitpid(pid_, &status, WUNTRACED) == pid_ && WIFSTOPPED(status);
}

int Child::wait() {
  int status = 0;
  if (pid_ <= 0 || waitpid(pid_, &status, 0) != pid_) return -1000;
  pid_ = 0;
  return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

bool eventually(const std::function<bool()>& condition) {
  const std::uint32_t start = monotonicMs();
  while (!condition()) {
    if (monotonicMs() - start > 20000) return false;
    usleep(500);
  }
  return true;
}

SharedWords::SharedWords()
    : words_(static_cast<std::atomic<std::uint32_t>*>(
          mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}

SharedWords::~SharedWords() { munmap(words_, 4096); }

void signalAt(sb::Point point, int signal, int count) {
  signalPoint = point;
  signalNumber = signal;
  signalCount = count;
  sb::onPoint = pointReached;
}

void callAt(sb::Point point, std::function<void()> action) {
  callPoint = point;
  callAction() = std::move(action);
  sb::onPoint = pointReached;
}

std::string pointName(sb::Point point) {
  static const char* const names[] = {
      "SegmentCreated", "SegmentFilled", "SegmentRetired", "SegmentReplaced", "LeaseTaken",
      "FrameEmptied",   "FrameReserved", "FrameNumbered",  "LatestMoved",     "PinSet",
      "Pinned",         "PinCleared",    "CellWritten",    "SlotSet",         "MarkRead",
      "MarkCleared",    "Reaped"};
  static_assert(sizeof(names) / sizeof(names[0]) == static_cast<std::size_t>(sb::Point::kCount));
  return names[static_cast<int>(point)];
}

int fromEnvironment(const char* name, int fallback) {
  const char* value = std::getenv(name);
  return value == nullptr ? fallback : std::atoi(value);
}

StreamBuffer::StreamBuffer() {
  char name[] = "/dev/shm/vs_buffer_XXXXXX";
  root_ = mkdtemp(name);
  std::filesystem::create_directories(root_ + "/dev/shm");
  setPlatformRoot(root_);
  sb::forgetStreams();
  lines().clear();
}

StreamBuffer::~StreamBuffer() {
  sb::onPoint = nullptr;
  callPoint = signalPoint = sb::Point::kCount;
  std::error_code error;
  std::filesystem::remove_all(root_, error);
}

bool StreamBuffer::own(sb::FrameSizes video) {
  sb::BufferSizes sizes;
  sizes.video = video;
  sizes.video2 = kSmall;
  return sb::ownSegments(sizes);
}

std::string StreamBuffer::path(const char* name) const { return root_ + "/dev/shm/camera/" + name; }

// Every word of the payload depends on the seed, so that two halves of different frames show.
bool StreamBuffer::writeFrame(SB_HANDLE* buffer, std::uint32_t seed, long wait,
                              std::uint32_t length) {
  TAutoFrame frame(buffer, 0, nullptr, nullptr, wait);
  if (!frame) return false;
  auto* payload = reinterpret_cast<unsigned char*>(frame->payload);
  for (std::uint32_t i = 0; i + 4 <= length; i += 4) storeLe32(payload + i, mix(seed + i));
  storeLe32(frame->seconds, seed);
  storeLe32(frame->length, length);
  storeLe32(frame->number, seed);
  return true;
}

std::uint32_t StreamBuffer::seedOf(const SB_FRAME* frame) {
  const std::uint32_t seed = loadLe32(frame->seconds);
  const std::uint32_t length = loadLe32(frame->length);
  const auto* payload = reinterpret_cast<const unsigned char*>(frame->payload);
  bool whole = loadLe32(frame->number) == seed;
  for (std::uint32_t i = 0; whole && i + 4 <= length; i += 4) {
    whole = loadLe32(payload + i) == mix(seed + i);
  }
  EXPECT_TRUE(whole) << "torn frame " << seed;
  return whole ? seed : 0;
}

std::uint32_t StreamBuffer::readFrame(SB_HANDLE* buffer, Place* place, long wait, long age) {
  const TAutoFrame frame(buffer, age, &place->number, &place->epoch, wait);
  return frame ? seedOf(frame.get()) : 0;
}
