#include "tests/torture/kills/processes.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>

double nowMs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

void sleepMs(double ms) {
  if (ms <= 0) return;
  timespec pause{};
  pause.tv_sec = static_cast<time_t>(ms / 1e3);
  pause.tv_nsec = static_cast<long>((ms - static_cast<double>(pause.tv_sec) * 1e3) * 1e6);
  nanosleep(&pause, nullptr);
}

pid_t start(const std::vector<std::string>& command, const std::string& said,
            const std::string& preload) {
  // All that allocates happens ahead of the fork: other threads may hold the lock of the heap.
  std::vector<char*> arguments;
  for (const std::string& one : command) arguments.push_back(const_cast<char*>(one.c_str()));
  arguments.push_back(nullptr);
  std::vector<std::string> texts = {"PATH=/sbin:/usr/sbin:/bin:/usr/bin", "HOME=/home", "TZ=UTC",
                                    "VS_LOG=stderr"};
  if (!preload.empty()) texts.push_back("LD_PRELOAD=" + preload);
  std::vector<char*> environment;
  for (std::string& one : texts) environment.push_back(one.data());
  environment.push_back(nullptr);
  const pid_t child = fork();
  if (child != 0) return child;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  const int log = open(said.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  dup2(null, STDIN_FILENO);
  dup2(log < 0 ? null : log, STDOUT_FILENO);
  dup2(log < 0 ? null : log, STDERR_FILENO);
  execve(arguments[0], arguments.data(), environment.data());
  _exit(127);
}

bool ended(pid_t child, double ms, int* status) {
  const double limit = nowMs() + ms;
  for (;;) {
    if (waitpid(child, status, WNOHANG) == child) return true;
    if (nowMs() >= limit) return false;
    sleepMs(1);
  }
}

int killChild(pid_t child) {
  int status = 0;
  kill(child, SIGKILL);
  waitpid(child, &status, 0);
  return status;
}

bool run(const std::vector<std::string>& command, const std::string& said) {
  const pid_t child = start(command, said);
  int status = 0;
  return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void writeContent(const std::string& path, const std::string& content) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << content;
}
