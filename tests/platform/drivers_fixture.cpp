#include "tests/platform/drivers_fixture.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "board/drivers/protocol.h"

int NotingDevice::ioctl(unsigned request, std::vector<char>* argument) {
  const std::lock_guard<std::mutex> lock(mutex_);
  calls_.push_back({request, *argument});
  if (!left_.empty()) *argument = left_;
  return result_;
}

int NotingDevice::read(std::size_t limit, std::vector<char>* data) {
  std::unique_lock<std::mutex> lock(mutex_);
  limit_ = limit;
  ++blocked_;
  changed_.wait(lock, [this] { return ended_ || !chunks_.empty(); });
  --blocked_;
  if (chunks_.empty()) return 0;
  std::string& chunk = chunks_.front();
  const std::size_t size = std::min(limit, chunk.size());
  data->assign(chunk.begin(), chunk.begin() + static_cast<long>(size));
  chunk.erase(0, size);
  if (chunk.empty()) chunks_.erase(chunks_.begin());
  return static_cast<int>(size);
}

void NotingDevice::closed() {
  const std::lock_guard<std::mutex> lock(mutex_);
  ++timesClosed_;
}

void NotingDevice::answers(int result, std::vector<char> left) {
  const std::lock_guard<std::mutex> lock(mutex_);
  result_ = result;
  left_ = std::move(left);
}

void NotingDevice::delivers(const std::string& chunk) {
  const std::lock_guard<std::mutex> lock(mutex_);
  chunks_.push_back(chunk);
  changed_.notify_all();
}

void NotingDevice::end() {
  const std::lock_guard<std::mutex> lock(mutex_);
  ended_ = true;
  changed_.notify_all();
}

NotingDevice::Call NotingDevice::last() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return calls_.empty() ? Call{} : calls_.back();
}

std::size_t NotingDevice::calls() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return calls_.size();
}

std::size_t NotingDevice::lastLimit() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return limit_;
}

int NotingDevice::blocked() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return blocked_;
}

int NotingDevice::timesClosed() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return timesClosed_;
}

Drivers::Drivers() {
  std::filesystem::create_directories(board_.path("/run/camera"));
  std::filesystem::create_directories(board_.path("/var/flash"));
  setenv("VS_BOARD", board_.path("").c_str(), 1);
  if (!trace_.open(board_.path("/trace"))) std::abort();
  server_ = std::make_unique<NodeServer>(
      std::vector<NodeServer::Chip>{{kEncoderPath, Node::kEncoder, &faultyEncoder_},
                                    {kSensorPath, Node::kSensor, &faultySensor_}},
      &trace_);
  std::string error;
  if (!server_->start(socketPath(), &error)) std::abort();
}

Drivers::~Drivers() { stopHardware(); }

void Drivers::stopHardware() {
  faults_.end();
  encoder_.end();
  sensor_.end();
  server_.reset();
}

std::string Drivers::socketPath() const { return board_.path(kHardwareSocket); }

std::vector<std::string> Drivers::traced() const {
  std::ifstream file(board_.path("/trace"));
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) lines.push_back(line);
  return lines;
}

namespace {

// The file of a sanitizer's runtime, empty when there is none in this program.
std::string sanitizerRuntime() {
  Dl_info about{};
  for (const char* name : {"__asan_init", "__tsan_init"}) {
    void* const address = dlsym(RTLD_DEFAULT, name);
    if (address != nullptr && dladdr(address, &about) != 0) return about.dli_fname;
  }
  return "";
}

}  // namespace

// Starts over with the drivers loaded ahead of the C library, as board/enter does it.
int main(int argc, char** argv) {
  if (std::getenv("VS_DRIVERS_LOADED") == nullptr) {
    const std::string runtime = sanitizerRuntime();
    setenv("LD_PRELOAD", ((runtime.empty() ? "" : runtime + ":") + VS_DRIVERS).c_str(), 1);
    setenv("VS_DRIVERS_LOADED", "1", 1);
    execv("/proc/self/exe", argv);
    std::abort();
  }
  unsetenv("VS_DRIVERS_LOADED");
  testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}
