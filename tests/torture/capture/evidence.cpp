#include "tests/torture/capture/evidence.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

constexpr std::uint32_t kKeptMs = 30'000;

std::vector<pid_t> threadsOf(pid_t process) {
  std::vector<pid_t> threads;
  std::error_code gone;
  const std::string folder = "/proc/" + std::to_string(process) + "/task";
  for (const auto& entry : std::filesystem::directory_iterator(folder, gone))
    threads.push_back(std::atoi(entry.path().filename().c_str()));
  return threads;
}

// us that the hypervisor ran others while this machine had work.
std::uint64_t stolenUs() {
  std::ifstream file("/proc/stat");
  std::string cpu;
  std::uint64_t ticks = 0;
  file >> cpu;
  for (int field = 0; field < 8; ++field) file >> ticks;
  return ticks * 1'000'000 / static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK));
}

}  // namespace

void Evidence::watchThread(pid_t process, const char* name) {
  for (const pid_t thread : threadsOf(process)) {
    std::ifstream file("/proc/" + std::to_string(process) + "/task/" + std::to_string(thread) +
                       "/comm");
    std::string known;
    if (std::getline(file, known) && known == name) threads_.emplace_back(process, thread);
  }
}

// What came on top since the last call.
std::uint64_t Evidence::waitedOf(pid_t process, pid_t thread) {
  std::ifstream file("/proc/" + std::to_string(process) + "/task/" + std::to_string(thread) +
                     "/schedstat");
  std::uint64_t ran = 0;
  std::uint64_t waitedNs = 0;
  if (!(file >> ran >> waitedNs)) return 0;
  const std::uint64_t now = waitedNs / 1000;
  const auto [at, isNew] = last_.emplace(thread, now);
  const std::uint64_t more = now - at->second;
  at->second = now;
  return more;
}

void Evidence::sample(std::uint32_t nowMs) {
  for (const auto& [process, thread] : threads_) waitedUs_ += waitedOf(process, thread);
  for (const pid_t process : processes_)
    for (const pid_t thread : threadsOf(process)) waitedUs_ += waitedOf(process, thread);
  const std::uint64_t stolen = stolenUs();
  if (!first_) waitedUs_ += stolen - stolen_;
  stolen_ = stolen;
  first_ = false;
  samples_.push_back({nowMs, waitedUs_});
  while (nowMs - samples_.front().atMs > kKeptMs) samples_.pop_front();
}

long Evidence::waitedMs(std::uint32_t fromMs) const {
  if (samples_.empty()) return 0;
  const Sample& last = samples_.back();
  std::uint64_t before = last.waitedUs;
  for (auto at = samples_.rbegin(); at != samples_.rend(); ++at) {
    before = at->waitedUs;
    if (static_cast<std::int32_t>(fromMs - at->atMs) >= 0) break;
  }
  return static_cast<long>((last.waitedUs - before) / 1000);
}
