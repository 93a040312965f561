#include "board/hardware/faults.h"

#include "board/hardware/trace.h"

namespace {

std::string nameOf(Node node) { return node == Node::kEncoder ? "encoder" : "sensor"; }

std::string nameOf(ChunkFault kind) {
  switch (kind) {
    case ChunkFault::kShort:
      return "short";
    case ChunkFault::kLate:
      return "late";
    case ChunkFault::kTorn:
      return "torn";
    case ChunkFault::kEmpty:
      return "empty";
    case ChunkFault::kHeadless:
      return "headless";
  }
  return "";
}

constexpr char kLie[] = "lie";

}  // namespace

void Faults::add(const std::string& name, int value, int times) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!ended_) faults_[name] = {value, times};
}

std::optional<int> Faults::take(const std::string& name) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = faults_.find(name);
  if (found == faults_.end()) return std::nullopt;
  const int value = found->second.value;
  if (found->second.times != kForGood && --found->second.times <= 0) faults_.erase(found);
  return value;
}

void Faults::failRequest(const std::string& request, int error, int times) {
  add("fail " + request, error, times);
}

void Faults::failRead(Node node, int error, int times) {
  add("fail read-" + nameOf(node), error, times);
}

void Faults::spoilReads(Node node, ChunkFault kind, int value, int times) {
  add(nameOf(kind) + " " + nameOf(node), value, times);
}

void Faults::lieAboutHeader(int length) { add(kLie, length, kForGood); }

void Faults::hang(Node node) { add("hang " + nameOf(node), 0, kForGood); }

void Faults::goOn() {
  const std::lock_guard<std::mutex> lock(mutex_);
  faults_.erase("hang encoder");
  faults_.erase("hang sensor");
  changed_.notify_all();
}

void Faults::heal() {
  const std::lock_guard<std::mutex> lock(mutex_);
  faults_.clear();
  changed_.notify_all();
}

void Faults::end() {
  const std::lock_guard<std::mutex> lock(mutex_);
  ended_ = true;
  faults_.clear();
  changed_.notify_all();
}

std::string Faults::describe() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::string text;
  for (const auto& [name, fault] : faults_) {
    text += name;
    if (name.rfind("fail", 0) == 0) text += " " + errorName(fault.value);
    if (name == kLie || name.rfind("short", 0) == 0 || name.rfind("late", 0) == 0)
      text += " " + std::to_string(fault.value);
    if (fault.times != kForGood) text += ", " + std::to_string(fault.times) + " times";
    text += '\n';
  }
  return text;
}

int Faults::requestError(const char* request) {
  if (const auto error = take("fail " + std::string(request))) return *error;
  return take("fail *").value_or(0);
}

int Faults::readError(Node node) { return take("fail read-" + nameOf(node)).value_or(0); }

std::optional<int> Faults::readFault(Node node, ChunkFault kind) {
  return take(nameOf(kind) + " " + nameOf(node));
}

std::optional<int> Faults::headerLength() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = faults_.find(kLie);
  return found == faults_.end() ? std::nullopt : std::optional<int>(found->second.value);
}

void Faults::waitWhileHung(Node node) {
  const std::string name = "hang " + nameOf(node);
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [&] { return faults_.count(name) == 0; });
}

void Faults::pause(std::chrono::milliseconds time) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait_for(lock, time, [this] { return ended_; });
}
