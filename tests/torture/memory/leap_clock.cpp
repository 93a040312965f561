// A clock for a daemon that is to live a day in some minutes. It runs as the world's does while a
// thread of the process works, or waits for another process; whenever all threads wait for the
// clock, it leaps to the moment for which the first of them waits. So nothing is late that would
// not be late in the world: a slow machine makes the day longer, not the daemon late.
//
// To be preloaded. The file /tmp/clock of the board tells how far the clock is ahead
// (leap_clock.h).
#include "leap_clock.h"

#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "board/drivers/libc.h"

namespace {

constexpr char kFile[] = "/tmp/clock";
constexpr char kProgram[] = "video_svr";
constexpr char kCaptureThread[] = "KVX-video";
constexpr std::int64_t kNsPerS = 1000000000;
constexpr int kWaits = 64;    // at once
constexpr int kThreads = 64;  // at once
constexpr int kSleepers = 4;  // at once that wait for descriptors, or for nothing but the clock
constexpr nfds_t kFds = 8;

LeapClock* shared = nullptr;

// The C library's own. Looked up when this library is loaded, before its first thread.
int (*realGettime)(clockid_t, timespec*);
int (*realPpoll)(pollfd*, nfds_t, const timespec*, const sigset_t*);
int (*realPoll)(pollfd*, nfds_t, int);
int (*realTimedWait)(pthread_cond_t*, pthread_mutex_t*, const timespec*);
int (*realClockWait)(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*);
int (*realNanosleep)(clockid_t, int, const timespec*, timespec*);
int (*realCreate)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
pid_t (*realWaitpid)(pid_t, int*, int);
long (*realSyscall)(long, ...);

[[noreturn]] void giveUp(const char* why) {
  dprintf(STDERR_FILENO, "leap clock: %s\n", why);
  abort();
}

template <typename Function>
void find(Function& function, const char* name) {
  function = reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
  if (function == nullptr) giveUp(name);
}

__attribute__((constructor(101))) void findAll() {
  find(realGettime, "clock_gettime");
  find(realPpoll, "ppoll");
  find(realPoll, "poll");
  find(realTimedWait, "pthread_cond_timedwait");
  find(realClockWait, "pthread_cond_clockwait");
  find(realNanosleep, "clock_nanosleep");
  find(realCreate, "pthread_create");
  find(realWaitpid, "waitpid");
  find(realSyscall, "syscall");
}

std::int64_t inNs(const timespec& time) { return time.tv_sec * kNsPerS + time.tv_nsec; }

timespec fromNs(std::int64_t ns) {
  if (ns < 0) ns = 0;
  return timespec{static_cast<time_t>(ns / kNsPerS), static_cast<long>(ns % kNsPerS)};
}

std::int64_t realNow() {
  timespec now{};
  realGettime(CLOCK_MONOTONIC, &now);
  return inNs(now);
}

std::int64_t now() { return realNow() + shared->aheadNs; }

// Who waits for what, and until when. The pacemaker wakes whoever is due, again and again until he
// has gone.
struct Wait {
  std::int64_t until;    // of the monotonic clock; 0: nobody's
  pthread_cond_t* cond;  // or
  std::uint32_t* word;   // whose change is waited for in the kernel, or
  int fd;                // which is to become readable
};

pthread_mutex_t waitsLock = PTHREAD_MUTEX_INITIALIZER;
Wait waits[kWaits];
int sleepers[kSleepers];          // eventfds, -1 while in use
std::atomic<int> outside{0};      // threads that wait for another process
std::atomic<unsigned> births{0};  // of threads

class Waiting {
 public:
  Waiting(std::int64_t until, pthread_cond_t* cond, std::uint32_t* word) {
    pthread_mutex_lock(&waitsLock);
    for (int& one : sleepers) {
      if (cond != nullptr || word != nullptr || sleeper_ != nullptr || one < 0) continue;
      sleeper_ = &one;
      fd_ = one;
      one = -1;
    }
    for (Wait& one : waits) {
      if (wait_ != nullptr || one.until != 0) continue;
      wait_ = &one;
      one = Wait{until > 0 ? until : 1, cond, word, fd_};
    }
    pthread_mutex_unlock(&waitsLock);
    if (wait_ == nullptr || (cond == nullptr && word == nullptr && fd_ < 0))
      giveUp("more wait at once than its tables hold");
  }
  ~Waiting() {
    pthread_mutex_lock(&waitsLock);
    if (sleeper_ != nullptr) {
      std::uint64_t count = 0;
      if (read(fd_, &count, sizeof count) < 0) count = 0;  // nobody has woken it
      *sleeper_ = fd_;
    }
    wait_->until = 0;
    pthread_mutex_unlock(&waitsLock);
  }
  Waiting(const Waiting&) = delete;
  Waiting& operator=(const Waiting&) = delete;
  int fd() const { return fd_; }

 private:
  Wait* wait_ = nullptr;
  int* sleeper_ = nullptr;
  int fd_ = -1;
};

struct Outside {
  Outside() { ++outside; }
  ~Outside() { --outside; }
};

// --- the pacemaker
// ----------------------------------------------------------------------------------

pid_t pacemaker = 0;
int states[kThreads];  // files that tell what a thread does
int stateCount = 0;
unsigned statesAt = ~0u;  // `births` when they were opened

void openStates() {
  while (stateCount > 0) close(states[--stateCount]);
  statesAt = births;
  DIR* const folder = opendir("/proc/self/task");
  if (folder == nullptr) return;
  while (const dirent* const entry = readdir(folder)) {
    char path[64];
    if (*entry->d_name == '.' || atoi(entry->d_name) == pacemaker) continue;
    snprintf(path, sizeof path, "/proc/self/task/%.20s/stat", entry->d_name);
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd >= 0 && stateCount < kThreads) states[stateCount++] = fd;
  }
  closedir(folder);
}

// Returns true iff no thread works. One that has gone is no matter, and is forgotten.
bool allSleep() {
  if (statesAt != births) openStates();
  if (outside > 0) return false;
  for (int i = 0; i < stateCount; ++i) {
    char text[128];
    const ssize_t length = pread(states[i], text, sizeof text - 1, 0);
    if (length < 0) {
      close(states[i]);
      states[i--] = states[--stateCount];
      continue;
    }
    text[length] = '\0';
    const char* const name = strrchr(text, ')');
    if (name != nullptr && name[2] != 'S') return false;
  }
  return true;
}

// Wakes who is due. Returns the earliest moment for which somebody waits, 0 when someone was woken.
std::int64_t wakeDue() {
  std::int64_t first = INT64_MAX;
  const std::int64_t time = now();
  pthread_mutex_lock(&waitsLock);
  for (const Wait& one : waits) {
    if (one.until == 0) continue;
    if (one.until > time) {
      if (one.until < first) first = one.until;
      continue;
    }
    first = 0;
    const std::uint64_t count = 1;
    if (one.cond != nullptr) {
      pthread_cond_broadcast(one.cond);
    } else if (one.word != nullptr) {
      realSyscall(SYS_futex, one.word, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
    } else if (write(one.fd, &count, sizeof count) < 0) {
      // It is readable all the more.
    }
  }
  pthread_mutex_unlock(&waitsLock);
  return first;
}

void* beat(void*) {
  pacemaker = gettid();
  prctl(PR_SET_NAME, "pacemaker");
  prctl(PR_SET_TIMERSLACK, 1);
  for (;;) {
    // Who waits is asked when nobody works, for a wait that comes up meanwhile may be the first;
    // and whether nobody works is asked twice, because the threads are not looked at in one moment.
    const bool mayLeap = wakeDue() != 0 && shared->leaping != 0 && allSleep();
    const std::int64_t first = mayLeap ? wakeDue() : 0;
    if (first != 0 && first != INT64_MAX && allSleep()) {
      const std::int64_t ahead = first - realNow();
      if (ahead > shared->aheadNs) shared->aheadNs = ahead;
      shared->leaps = shared->leaps + 1;
      continue;
    }
    const timespec pause{0, 100000};
    realPpoll(nullptr, 0, &pause, nullptr);
  }
  return nullptr;
}

__attribute__((constructor)) void begin() {
  if (strcmp(program_invocation_short_name, kProgram) != 0) return;  // a command of the daemon's
  const char* const wanted = getenv("VS_LEAP");
  if (wanted == nullptr || strcmp(wanted, "1") != 0) return;
  const int fd = open(kFile, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  void* memory = MAP_FAILED;
  if (fd >= 0 && ftruncate(fd, sizeof(LeapClock)) == 0)
    memory = mmap(nullptr, sizeof(LeapClock), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (memory == MAP_FAILED) giveUp(kFile);
  close(fd);
  for (int& one : sleepers) one = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  shared = static_cast<LeapClock*>(memory);
  shared->leaping = 1;
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  pthread_t thread;
  if (realCreate(&thread, nullptr, &beat, nullptr) != 0) giveUp("no thread");
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// Notes how long the capture thread was without a pause.
void noteGap() {
  thread_local std::int64_t last = 0;
  thread_local bool known = false;
  thread_local bool captures = false;
  if (!known) {
    char name[16] = "";
    prctl(PR_GET_NAME, name);
    captures = strcmp(name, kCaptureThread) == 0;
    known = captures;
  }
  if (!captures) return;
  const std::int64_t time = now();
  if (last != 0 && time - last > shared->longestGapNs) shared->longestGapNs = time - last;
  last = time;
}

// Waits for the condition until `until` of the daemon's monotonic clock. The world's clock comes as
// late as that at the latest, or the pacemaker wakes.
int await(pthread_cond_t* cond, pthread_mutex_t* mutex, std::int64_t until) {
  noteGap();
  const Waiting waiting(until, cond, nullptr);
  const timespec limit = fromNs(until - shared->aheadNs);
  const int result = realClockWait(cond, mutex, CLOCK_MONOTONIC, &limit);
  return now() >= until ? ETIMEDOUT : result == ETIMEDOUT ? 0 : result;
}

// Waits for descriptors for `ns` of the daemon's clock.
int await(pollfd* fds, nfds_t count, std::int64_t ns, const sigset_t* mask) {
  const std::int64_t until = now() + ns;
  const Waiting waiting(until, nullptr, nullptr);
  pollfd all[kFds + 1];
  if (count > kFds) giveUp("more descriptors than its tables hold");
  if (count > 0) memcpy(all, fds, count * sizeof *fds);
  all[count] = pollfd{waiting.fd(), POLLIN, 0};
  const timespec limit = fromNs(ns);
  int result = realPpoll(all, count + 1, &limit, mask);
  if (result < 0) return result;
  if (count > 0) memcpy(fds, all, count * sizeof *fds);
  return result - (all[count].revents != 0 ? 1 : 0);
}

}  // namespace

extern "C" {

int leapGettime(clockid_t clock, timespec* time) ANSWERS("clock_gettime");
time_t leapTime(time_t* time) ANSWERS("time");
int leapGettimeofday(timeval* time, void* zone) ANSWERS("gettimeofday");
int leapTimedWait(pthread_cond_t* cond, pthread_mutex_t* mutex, const timespec* limit)
    ANSWERS("pthread_cond_timedwait");
int leapClockWait(pthread_cond_t* cond, pthread_mutex_t* mutex, clockid_t clock,
                  const timespec* limit) ANSWERS("pthread_cond_clockwait");
int leapPpoll(pollfd* fds, nfds_t count, const timespec* limit, const sigset_t* mask)
    ANSWERS("ppoll");
int leapPoll(pollfd* fds, nfds_t count, int ms) ANSWERS("poll");
int leapNanosleep(clockid_t clock, int flags, const timespec* time, timespec* left)
    ANSWERS("clock_nanosleep");
int leapCreate(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
               void* argument) ANSWERS("pthread_create");
pid_t leapWaitpid(pid_t pid, int* status, int options) ANSWERS("waitpid");
long leapSyscall(long number, ...) ANSWERS("syscall");

// The coarse clocks stay the world's: files are dated by it, and compared with them.
int leapGettime(clockid_t clock, timespec* time) {
  if (realGettime == nullptr) findAll();  // another library's beginning
  const int result = realGettime(clock, time);
  if (shared == nullptr || result != 0) return result;
  if (clock == CLOCK_MONOTONIC || clock == CLOCK_REALTIME || clock == CLOCK_BOOTTIME)
    *time = fromNs(inNs(*time) + shared->aheadNs);
  return result;
}

time_t leapTime(time_t* time) {
  timespec now{};
  leapGettime(CLOCK_REALTIME, &now);
  if (time != nullptr) *time = now.tv_sec;
  return now.tv_sec;
}

int leapGettimeofday(timeval* time, void*) {
  timespec now{};
  leapGettime(CLOCK_REALTIME, &now);
  *time = timeval{now.tv_sec, now.tv_nsec / 1000};
  return 0;
}

// The conditions of the daemon's own follow the monotonic clock.
int leapTimedWait(pthread_cond_t* cond, pthread_mutex_t* mutex, const timespec* limit) {
  if (shared == nullptr) return realTimedWait(cond, mutex, limit);
  return await(cond, mutex, inNs(*limit));
}

int leapClockWait(pthread_cond_t* cond, pthread_mutex_t* mutex, clockid_t clock,
                  const timespec* limit) {
  if (shared == nullptr || clock != CLOCK_MONOTONIC)
    return realClockWait(cond, mutex, clock, limit);
  return await(cond, mutex, inNs(*limit));
}

int leapPpoll(pollfd* fds, nfds_t count, const timespec* limit, const sigset_t* mask) {
  if (shared == nullptr || limit == nullptr) return realPpoll(fds, count, limit, mask);
  return await(fds, count, inNs(*limit), mask);
}

// So wait those who want something of a server, and the main thread, which waits for the clock, or
// for the signal to end. The watchdog, who waits for ever, is no matter.
int leapPoll(pollfd* fds, nfds_t count, int ms) {
  if (ms < 0) return realPoll(fds, count, ms);
  if (shared != nullptr && ms > 0 && gettid() == getpid())
    return await(fds, count, ms * (kNsPerS / 1000), nullptr);
  const Outside here;
  return realPoll(fds, count, ms);
}

int leapNanosleep(clockid_t clock, int flags, const timespec* time, timespec* left) {
  if (shared == nullptr || clock != CLOCK_MONOTONIC) return realNanosleep(clock, flags, time, left);
  const std::int64_t ns = inNs(*time) - ((flags & TIMER_ABSTIME) != 0 ? now() : 0);
  return await(nullptr, 0, ns, nullptr) < 0 ? errno : 0;
}

int leapCreate(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
               void* argument) {
  const int result = realCreate(thread, attributes, body, argument);
  ++births;
  return result;
}

pid_t leapWaitpid(pid_t pid, int* status, int options) {
  const Outside here;
  return realWaitpid(pid, status, options);
}

// Waiting for a word has no name in the C library.
long leapSyscall(long number, ...) {
  va_list list;
  va_start(list, number);
  long a[6];
  for (long& one : a) one = va_arg(list, long);
  va_end(list);
  const auto* const limit = reinterpret_cast<const timespec*>(a[3]);
  if (realSyscall == nullptr) findAll();
  if (shared == nullptr || number != SYS_futex || a[1] != FUTEX_WAIT || limit == nullptr)
    return realSyscall(number, a[0], a[1], a[2], a[3], a[4], a[5]);
  noteGap();
  const Waiting waiting(now() + inNs(*limit), nullptr, reinterpret_cast<std::uint32_t*>(a[0]));
  return realSyscall(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}
}
