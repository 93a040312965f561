#include "platform/application.h"

#include <dirent.h>
#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "platform/linux/stream_buffer_owner.h"
#include "platform/linux/thread_access.h"
#include "platform/linux/watchdog.h"
#include "platform/log.h"

int TApplication::argc = 0;
char** TApplication::argv = nullptr;
Relaxed<bool> TApplication::stopped;

namespace {

constexpr mode_t kMask = 027;  // the camera's group reads what the daemon makes, nobody else does

TApplication* theApplication = nullptr;
int stopFd = -1;  // an eventfd, readable from the signal on and never emptied

void onStopSignal(int) {
  const int before = errno;
  TApplication::stopped = true;
  const std::uint64_t one = 1;
  if (write(stopFd, &one, sizeof one) < 0) {
    // The counter is full: it is readable all the more.
  }
  errno = before;
}

void handle(int signal, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;  // pauses end by the eventfd; nothing else is to fail
  sigemptyset(&action.sa_mask);
  sigaction(signal, &action, nullptr);
}

// What the parent blocked or ignored must not make the daemon deaf, or its commands' ends
// invisible.
void armSignals() {
  handle(SIGPIPE, SIG_IGN);
  handle(SIGCHLD, SIG_DFL);
  handle(SIGTERM, onStopSignal);
  handle(SIGINT, onStopSignal);
  sigset_t needed;
  sigemptyset(&needed);
  for (const int signal : {SIGTERM, SIGINT, SIGCHLD}) sigaddset(&needed, signal);
  pthread_sigmask(SIG_UNBLOCK, &needed, nullptr);
}

// A process that was started without standard descriptors must not take the next file or device
// that it opens for its standard error, nor hand it to commands.
void fillStandardDescriptors() {
  int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
  for (; fd >= 0 && fd <= STDERR_FILENO; fd = open("/dev/null", O_RDWR | O_CLOEXEC))
    fcntl(fd, F_SETFD, 0);  // commands have them too
  if (fd >= 0) close(fd);
}

// One heap for all threads. With one for each few of them, as is the C library's way, every rebuild
// of the events hands them out anew, and each grows to what the largest of its users ever needed.
// Threads allocate too seldom to get into each other's way. Who starts the process may have it
// otherwise.
void shareHeap() {
  if (std::getenv("MALLOC_ARENA_MAX") == nullptr) mallopt(M_ARENA_MAX, 1);
}

// Of this process; 0 when that can't be told.
long threads() {
  DIR* const all = opendir("/proc/self/task");
  if (all == nullptr) return 0;
  long count = 0;
  while (const dirent* const one = readdir(all)) count += one->d_name[0] != '.';
  closedir(all);
  return count;
}

// A thread whose body has returned is on its way out, and libraries free what they keep for it. The
// end of the process frees what they keep for all: the two must not meet.
void awaitThreads(long others) {
  constexpr int kLooks = 100;
  constexpr int kLookMs = 1;
  for (int looks = 0; looks < kLooks && threads() > others; ++looks) poll(nullptr, 0, kLookMs);
}

int runHooks(TApplication& application) {
  if (!application.onInitial()) return 1;
  const bool ran = application.onRunning();
  const bool released = application.onRelease();
  return ran && released ? 0 : 1;
}

}  // namespace

TApplication::TApplication() { theApplication = this; }

TApplication::~TApplication() {
  if (theApplication == this) theApplication = nullptr;
}

bool TApplication::onInitial() { return true; }

bool TApplication::onRelease() { return true; }

int TApplication::main(int count, char** values) {
  argc = count;
  argv = values;
  if (theApplication == nullptr) {
    logEx(3, "no application object");
    return 1;
  }
  shareHeap();
  fillStandardDescriptors();
  umask(kMask);  // whatever it was started with
  stopFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (stopFd < 0 || !startWatchdog(stopFd)) {
    logEx(3, "can't watch over the shutdown: %s", std::strerror(errno));
    return 1;
  }
  const long others = threads();
  ThreadAccess::adoptMain(stopFd);
  armSignals();
  // Without arguments a daemon only shows its usage; that must not leave shared memory behind.
  if (count > 1) sbOwnSegments();
  const int status = runHooks(*theApplication);
  if (ThreadAccess::endAll()) {
    awaitThreads(others);
    return status;
  }
  // Static objects must not be destroyed under the bodies that are still at work.
  std::fflush(stdout);
  free_log();
  _exit(status);
}
