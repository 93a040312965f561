// How long the daemon takes from its start to the first picture that a reader has, and from the
// signal to its end, against a process that does nothing and has the same libraries.
//
//   bench_start_stop ROUNDS NOTHING DAEMON [ARGUMENT...]
//
// Runs in a board, where nothing else runs. NOTHING ends at once, or with an argument when it gets
// a signal. DAEMON is started with a picture file as its camera, which pauses for 20 ms over each
// picture. Each start finds no stream buffer, as the first one after power comes on.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/table.h"
#include "platform/stream_buffer.h"

namespace {

constexpr double kPictureMs = 20;  // the picture file's own pause
constexpr useconds_t kLookUs = 200;
constexpr useconds_t kAtWorkUs = 300000;
constexpr double kPatienceMs = 10000;

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "bench_start_stop: %s\n", what.c_str());
  std::exit(1);
}

double nowMs() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) * 1e-6;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

double worst(const std::vector<double>& values) {
  return *std::max_element(values.begin(), values.end());
}

pid_t startProcess(char** words) {
  pid_t pid = 0;
  if (posix_spawn(&pid, words[0], nullptr, nullptr, words, environ) != 0)
    fail(std::string("can't start ") + words[0]);
  return pid;
}

void awaitEnd(pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, 0) != pid || (!WIFEXITED(status) && WTERMSIG(status) != SIGTERM))
    fail("a process has not ended in order");
}

// Waits for a process to end at SIGTERM. Returns how long that took.
double stop(pid_t pid) {
  const double begin = nowMs();
  kill(pid, SIGTERM);
  awaitEnd(pid);
  return nowMs() - begin;
}

// A process of its own, which has not seen the buffers of earlier rounds, waits for a picture.
double firstPicture(double begin) {
  int ends[2];
  if (pipe(ends) != 0) fail("no pipe");
  const pid_t watcher = fork();
  if (watcher == 0) {
    std::int32_t number = 0;
    std::int32_t epoch = 0;
    while (nowMs() < begin + kPatienceMs) {
      const TAutoFrame frame(sbVideo(), 60000, &number, &epoch, 1000);
      const double end = nowMs();
      if (frame) _exit(write(ends[1], &end, sizeof end) == sizeof end ? 0 : 1);
      usleep(kLookUs);
    }
    _exit(1);
  }
  close(ends[1]);
  double end = 0;
  if (read(ends[0], &end, sizeof end) != sizeof end) fail("no picture comes");
  close(ends[0]);
  awaitEnd(watcher);
  return end - begin;
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 3 ? std::atoi(argv[1]) : 0;
  if (rounds < 1) {
    std::fputs("usage: bench_start_stop ROUNDS NOTHING DAEMON [ARGUMENT...]\n", stderr);
    return 2;
  }
  char wait[] = "wait";
  char* nothing[] = {argv[2], nullptr};
  char* waiting[] = {argv[2], wait, nullptr};
  std::vector<double> started, stopped, nothingRun, nothingStopped;
  for (int i = 0; i < rounds; ++i) {
    std::filesystem::remove_all("/dev/shm/camera");
    const double begin = nowMs();
    const pid_t daemon = startProcess(argv + 3);
    started.push_back(firstPicture(begin));
    usleep(kAtWorkUs);
    stopped.push_back(stop(daemon));
    const double other = nowMs();
    awaitEnd(startProcess(nothing));
    nothingRun.push_back(nowMs() - other);
    const pid_t waiter = startProcess(waiting);
    usleep(kAtWorkUs);
    nothingStopped.push_back(stop(waiter));
  }
  const double least = median(nothingRun) + kPictureMs;
  const double end = median(nothingStopped);
  std::printf("%-58s %8.1f ms median, %.1f ms at most\n", "start to first picture", median(started),
              worst(started));
  std::printf("%-58s %8.1f ms; ratio %.2f\n",
              "a process of the same libraries, and the 20 ms pause", least,
              median(started) / least);
  std::printf("%-58s %8.1f ms median, %.1f ms at most (reach: 5000)\n", "stop to exit",
              median(stopped), worst(stopped));
  std::printf("%-58s %8.1f ms\n", "a process that waits for the signal", end);
  tableLine("start to first picture, file source",
            tableValue(median(started), "ms") + ", at most " + tableValue(worst(started), "ms"),
            "a process of the same libraries and the 20 ms pause, " + tableValue(least, "ms"),
            median(started) / least, "at most 1000 ms");
  tableLine("stop to exit, file source",
            tableValue(median(stopped), "ms") + ", at most " + tableValue(worst(stopped), "ms"),
            "a process that waits for the signal, " + tableValue(end, "ms"), median(stopped) / end,
            "at most 5000 ms");
  return worst(stopped) < 5000 ? 0 : 1;
}
