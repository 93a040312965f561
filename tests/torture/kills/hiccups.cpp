#include "tests/torture/kills/hiccups.h"

#include <dirent.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "tests/torture/kills/processes.h"

namespace {

constexpr double kTickMs = 5;
constexpr double kUsualMs = 2;  // of lateness, which nobody need explain
constexpr double kKeptMs = 60000;

}  // namespace

Hiccups::Hiccups() : thread_([this] { keepTime(); }) {}

Hiccups::~Hiccups() {
  over_ = true;
  thread_.join();
}

void Hiccups::keepTime() {
  while (!over_) {
    const double begun = nowMs();
    sleepMs(kTickMs);
    const double now = nowMs();
    const double late = now - begun - kTickMs;
    if (late < kUsualMs) continue;
    const std::lock_guard<std::mutex> guard(mutex_);
    late_.erase(late_.begin(), std::find_if(late_.begin(), late_.end(), [now](const Late& one) {
                  return now - one.at < kKeptMs;
                }));
    late_.push_back({now, late});
  }
}

double Hiccups::since(double begun) const {
  const std::lock_guard<std::mutex> guard(mutex_);
  double sum = 0;
  for (const Late& one : late_)
    if (one.at > begun) sum += std::min(one.ms, one.at - begun);
  return sum;
}

Waits waitedForProcessor(pid_t process) {
  const std::string tasks = "/proc/" + std::to_string(process) + "/task";
  DIR* const folder = opendir(tasks.c_str());
  if (folder == nullptr) return {};
  Waits waits;
  while (const dirent* const entry = readdir(folder)) {
    if (entry->d_name[0] == '.') continue;
    const std::string path = tasks + "/" + entry->d_name + "/schedstat";
    std::FILE* const file = std::fopen(path.c_str(), "re");
    if (file == nullptr) continue;
    unsigned long long ran = 0, waited = 0;
    if (std::fscanf(file, "%llu %llu", &ran, &waited) == 2)
      waits[std::atoi(entry->d_name)] = static_cast<double>(waited) / 1e6;
    std::fclose(file);
  }
  closedir(folder);
  return waits;
}

double longestWait(pid_t process, const Waits& before) {
  double most = 0;
  for (const auto& [thread, waited] : waitedForProcessor(process)) {
    const auto known = before.find(thread);
    most = std::max(most, waited - (known != before.end() ? known->second : 0));
  }
  return most;
}
