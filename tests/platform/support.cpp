#include "tests/platform/support.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "platform/linux/root.h"
#include "platform/linux/unix_address.h"
#include "platform/log.h"

#ifdef __SANITIZE_THREAD__
// By default the sanitizer lets a process that ends go on for a second, for the sake of its
// threads.
extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() { return "atexit_sleep_ms=0"; }
#endif

namespace {
constexpr auto kPatience = std::chrono::seconds(20);
}  // namespace

std::string outputOf(const std::string& command) {
  std::string output;
  FILE* const pipe = popen((command + " 2>&1").c_str(), "re");
  if (pipe == nullptr) return "no shell";
  char block[4096];
  for (std::size_t n = 0; (n = std::fread(block, 1, sizeof block, pipe)) > 0;)
    output.append(block, n);
  const int status = pclose(pipe);
  return status == 0 ? output : output + " status " + std::to_string(status);
}

bool eventually(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

void atOnce(int callers, int times, const std::function<void(int, int)>& action) {
  std::atomic<int> ready{0};
  std::vector<std::thread> threads(static_cast<std::size_t>(callers));
  for (int caller = 0; caller < callers; ++caller) {
    threads[static_cast<std::size_t>(caller)] = std::thread([&, caller] {
      ++ready;
      while (ready < callers) std::this_thread::yield();
      for (int n = 0; n < times; ++n) action(caller, n);
    });
  }
  for (auto& thread : threads) thread.join();
}

TempRoot::TempRoot(const std::string& name) {
  char base[] = "/tmp/vs_platform.XXXXXX";
  if (mkdtemp(base) == nullptr) std::abort();
  base_ = base;
  root_ = base_ + "/" + name;
  std::filesystem::create_directories(root_);
  free_log();
  setPlatformRoot(root_);
}

TempRoot::~TempRoot() {
  free_log();
  setPlatformRoot("");
  std::error_code ignored;
  std::filesystem::remove_all(base_, ignored);
}

LogReader::LogReader(const TempRoot& root, When when)
    : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
  std::filesystem::create_directories(root.path("/dev"));
  UnixAddress address;
  if (!address.set(root.path("/dev/log").c_str()) || bind(fd_, address.get(), address.size()) != 0)
    std::abort();
  address.clear();
  if (when == kLogOpensAnew) free_log();
}

LogReader::~LogReader() { close(fd_); }

std::vector<std::string> LogReader::raw() {
  std::vector<std::string> lines;
  char line[4096];
  for (ssize_t length = 0; (length = recv(fd_, line, sizeof line, MSG_DONTWAIT)) >= 0;)
    lines.emplace_back(line, static_cast<std::size_t>(length));
  return lines;
}

std::vector<std::string> LogReader::lines() {
  std::vector<std::string> lines;
  for (const std::string& line : raw()) {
    // "<11>name[1]: text"; the priorities 11, 12 and 13 become the levels 3, 2 and 1.
    const int severity = std::atoi(line.c_str() + 1) & 7;
    const std::size_t text = line.find("]: ");
    lines.push_back(std::to_string(6 - severity) + " " +
                    (text == std::string::npos ? line : line.substr(text + 3)));
  }
  return lines;
}

bool LogReader::waitFor(const std::string& line) {
  return eventually([&] {
    for (const std::string& come : lines())
      if (come == line) return true;
    return false;
  });
}

Child::Child(const std::function<int()>& body) {
  int ends[2];
  if (pipe(ends) != 0) std::abort();
  std::fflush(nullptr);
  pid_ = fork();
  if (pid_ == 0) {
    dup2(ends[1], STDOUT_FILENO);
    dup2(ends[1], STDERR_FILENO);
    close(ends[0]);
    close(ends[1]);
    setenv("VS_LOG", "stderr", 1);
    free_log();
    std::exit(body());
  }
  close(ends[1]);
  fd_ = ends[0];
}

Child::~Child() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  close(fd_);
}

void Child::signal(int number) const { kill(pid_, number); }

bool Child::readMore(int timeoutMs) {
  pollfd readable{fd_, POLLIN, 0};
  if (poll(&readable, 1, timeoutMs) != 1) return false;
  char bytes[4096];
  const ssize_t length = read(fd_, bytes, sizeof bytes);
  if (length <= 0) return false;
  output_.append(bytes, static_cast<std::size_t>(length));
  return true;
}

bool Child::waitForOutput(const std::string& text) {
  while (output_.find(text) == std::string::npos)
    if (!readMore(20000)) return false;
  return true;
}

int Child::wait() {
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  while (readMore(0)) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

std::string TempRoot::script(const std::string& text) const {
  const std::string file = path("/script");
  writeFile(file, "#!/bin/sh\n" + text + "\n");
  EXPECT_EQ(chmod(file.c_str(), 0700), 0);
  return file;
}

bool emulated() { return readFile("/proc/self/comm").rfind("qemu-", 0) == 0; }
