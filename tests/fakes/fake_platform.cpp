// Recording of calls and scripted failures.
#include "tests/fakes/fake_platform.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/application.h"

thread_local int FakeScope::depth_ = 0;

namespace {
std::atomic<FakePlatform*> g_newest{nullptr};

bool begins(const std::string& text, const std::string& beginning) {
  return text.compare(0, beginning.size(), beginning) == 0;
}
}  // namespace

FakePlatform::FakePlatform() : before_(g_newest.exchange(this)) { TApplication::stopped = false; }

FakePlatform::~FakePlatform() { g_newest = before_; }

FakePlatform& FakePlatform::the() {
  FakePlatform* newest = g_newest;
  if (newest == nullptr) {
    // Never freed: static destructors of the daemon's singletons may still come here.
    static FakePlatform* spare = new FakePlatform;
    newest = spare;
  }
  return *newest;
}

void FakePlatform::record(const std::string& call) {
  FakeScope scope;
  // Nobody looks: no lock either, so that a stress test orders nothing that the daemon does not.
  if (!keepCalls_ && !watched_) return;
  std::function<void(const std::string&)> callback;
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (keepCalls_) calls_.push_back(call);
    callback = onCall_;
  }
  if (callback) callback(call);
}

std::vector<std::string> FakePlatform::calls() const {
  std::lock_guard<std::mutex> guard(lock_);
  return calls_;
}

std::vector<std::string> FakePlatform::takeCalls() {
  std::lock_guard<std::mutex> guard(lock_);
  pausesUs_.clear();
  return std::exchange(calls_, {});
}

std::vector<std::string> FakePlatform::callsWith(const std::string& beginning) const {
  std::lock_guard<std::mutex> guard(lock_);
  std::vector<std::string> result;
  for (const std::string& call : calls_)
    if (begins(call, beginning)) result.push_back(call);
  return result;
}

long FakePlatform::count(const std::string& beginning) const {
  return static_cast<long>(callsWith(beginning).size());
}

long FakePlatform::logged(const std::string& text) const {
  std::lock_guard<std::mutex> guard(lock_);
  constexpr std::size_t kHead = 6;  // "log 3 "
  return std::count_if(calls_.begin(), calls_.end(), [&](const std::string& call) {
    return begins(call, "log ") && call.size() >= kHead &&
           call.compare(kHead, call.npos, text) == 0;
  });
}

bool FakePlatform::called(const std::string& call) const {
  std::lock_guard<std::mutex> guard(lock_);
  return std::find(calls_.begin(), calls_.end(), call) != calls_.end();
}

void FakePlatform::onCall(std::function<void(const std::string&)> callback) {
  std::lock_guard<std::mutex> guard(lock_);
  onCall_ = std::move(callback);
  watched_ = static_cast<bool>(onCall_);
}

std::vector<long> FakePlatform::pausesUs() const {
  std::lock_guard<std::mutex> guard(lock_);
  return pausesUs_;
}

long FakePlatform::asked(const std::string& function) const {
  long times = 0;
  for (const Asked& one : asked_) {
    const char* const name = one.function;
    if (name != nullptr && function == name) times += one.times;
  }
  return times;
}

void FakePlatform::fails(const std::string& function, long times) {
  std::lock_guard<std::mutex> guard(lock_);
  failures_[function] = {times, EIO};
  anyFailure_ = true;
}

void FakePlatform::failsWith(const std::string& function, int error) {
  std::lock_guard<std::mutex> guard(lock_);
  failures_[function] = {-1, error};
  anyFailure_ = true;
}

void FakePlatform::works(const std::string& function) {
  std::lock_guard<std::mutex> guard(lock_);
  failures_.erase(function);
  anyFailure_ = !failures_.empty();
}

// Two functions may share a name's address or have it twice; asked() adds up by text.
void FakePlatform::countAsked(const char* function) {
  std::size_t at = reinterpret_cast<std::uintptr_t>(function) / 4 % asked_.size();
  for (;;) {
    const char* name = asked_[at].function.load(std::memory_order_relaxed);
    if (name == nullptr) asked_[at].function.compare_exchange_strong(name, function);
    if (name == nullptr || name == function) break;
    at = (at + 1) % asked_.size();
  }
  asked_[at].times.fetch_add(1, std::memory_order_relaxed);
}

bool FakePlatform::failing(const char* function) {
  countAsked(function);
  if (!anyFailure_.load(std::memory_order_relaxed)) return false;
  FakeScope scope;
  std::lock_guard<std::mutex> guard(lock_);
  const auto found = failures_.find(function);
  if (found == failures_.end()) return false;
  errno = found->second.error;
  if (found->second.times > 0 && --found->second.times == 0) failures_.erase(found);
  return true;
}

void FakePlatform::config(const std::string& key, const std::string& value) {
  std::lock_guard<std::mutex> guard(lock_);
  config_[key] = value;
}

bool FakePlatform::findConfig(const char* key, std::string* value) const {
  std::lock_guard<std::mutex> guard(lock_);
  const auto found = config_.find(key);
  if (found == config_.end()) return false;
  *value = found->second;
  return true;
}

void FakePlatform::postMessage(const TMessage& message) {
  std::lock_guard<std::mutex> guard(lock_);
  messages_.push_back(message);
  anyMessage_ = true;
}

void FakePlatform::postMessageOfType(int type) {
  TMessage message{};
  message.type = type;
  postMessage(message);
}

bool FakePlatform::takeMessage(TMessage* message) {
  if (!anyMessage_.load(std::memory_order_relaxed)) return false;
  std::lock_guard<std::mutex> guard(lock_);
  if (messages_.empty()) return false;
  *message = messages_.front();
  messages_.pop_front();
  anyMessage_ = !messages_.empty();
  return true;
}

void FakePlatform::onCommand(std::function<int(const std::string&)> callback) {
  std::lock_guard<std::mutex> guard(lock_);
  onCommand_ = std::move(callback);
}

int FakePlatform::command(const std::string& command) {
  record("system(" + command + ")");
  if (failing("os::system")) return -1;
  std::function<int(const std::string&)> callback;
  {
    std::lock_guard<std::mutex> guard(lock_);
    callback = onCommand_;
  }
  return callback ? callback(command) : 0;
}

void FakePlatform::onIoctl(std::function<int(int, unsigned long, void*)> callback) {
  std::lock_guard<std::mutex> guard(lock_);
  onIoctl_ = std::move(callback);
}

int FakePlatform::ioctl(int fd, unsigned long request, void* argument) {
  if (failing("os::ioctl")) return -1;
  std::function<int(int, unsigned long, void*)> callback;
  {
    std::lock_guard<std::mutex> guard(lock_);
    callback = onIoctl_;
  }
  if (callback) return callback(fd, request, argument);
  errno = ENOTTY;  // as a plain file answers
  return -1;
}

void FakePlatform::onRead(std::function<long(int, char*, std::size_t)> callback) {
  std::lock_guard<std::mutex> guard(lock_);
  onRead_ = std::make_shared<const std::function<long(int, char*, std::size_t)>>(callback);
}

long FakePlatform::read(int fd, void* buffer, std::size_t size) {
  if (failing("os::read")) return -1;
  std::shared_ptr<const std::function<long(int, char*, std::size_t)>> callback;
  {
    std::lock_guard<std::mutex> guard(lock_);
    callback = onRead_;
  }
  return callback ? (*callback)(fd, static_cast<char*>(buffer), size)
                  : files.read(fd, buffer, size);
}

void FakePlatform::threadStuck(const std::string& name) {
  std::lock_guard<std::mutex> guard(lock_);
  stuck_.push_back(name);
}

bool FakePlatform::stuck(const std::string& name) const {
  std::lock_guard<std::mutex> guard(lock_);
  return std::find(stuck_.begin(), stuck_.end(), name) != stuck_.end();
}
