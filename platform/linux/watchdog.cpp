#include "platform/linux/watchdog.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdint>

#include "platform/linux/thread_access.h"
#include "platform/log.h"

namespace {

// The process is gone 5 s after the signal at the latest. What is kept back is for the log line and
// for the kernel, which takes the memory and the files down.
constexpr std::int64_t kPatienceUs = 4500000;
constexpr suseconds_t kLogUs = 250000;

void* watch(void* argument) {
  pthread_setname_np(pthread_self(), "watchdog");
  pollfd stop{*static_cast<int*>(argument), POLLIN, 0};
  while (poll(&stop, 1, -1) != 1) {
  }
  ThreadAccess::pause(kPatienceUs);
  // Should a thread hang while it writes to the log, even this thread must not wait for it: the
  // timer's signal, at its default disposition, ends the process as well.
  sigset_t alarm;
  sigemptyset(&alarm);
  sigaddset(&alarm, SIGALRM);
  signal(SIGALRM, SIG_DFL);
  pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr);
  const itimerval limit{{0, 0}, {0, kLogUs}};
  setitimer(ITIMER_REAL, &limit, nullptr);
  char names[500];
  if (ThreadAccess::stuck(names, sizeof names) == 0)
    logEx(3, "shutdown took too long, ending: %s", "main thread");
  else
    logEx(3, "shutdown took too long, ending: %s", names);
  free_log();
  _exit(1);
}

}  // namespace

bool startWatchdog(int stopFd) {
  static int fd;
  fd = stopFd;
  return ThreadAccess::start(watch, &fd) == 0;
}
