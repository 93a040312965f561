// The calls that fail, as a library that is loaded before the C library and before the drivers of
// the virtual board: each hands on what is not to fail now.
//
// Each function has its symbol by an asm label, since the C library's headers give some of these
// names other declarations or rename them. It must load into any program, so it needs the C library
// alone, and it is built without sanitizers.
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <linux/futex.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "board/drivers/libc.h"
#include "tests/torture/calls/injector.h"

namespace {

constexpr Faults operator|(Faults faults, Fault fault) { return faults | bit(fault); }
constexpr Faults operator|(Fault one, Fault other) { return bit(one) | bit(other); }

constexpr Faults kFile = Fault::kIo | Fault::kInterrupted;
constexpr Faults kReading = kFile | Fault::kShort | Fault::kEnd;
constexpr Faults kWriting = kFile | Fault::kNoSpace | Fault::kShort;
constexpr Faults kFolder = Fault::kIo | Fault::kNoSpace | Fault::kNoAccess;
constexpr Faults kRemoval = Fault::kIo | Fault::kNoAccess | Fault::kReadOnly;
constexpr Faults kLook = Fault::kIo | Fault::kNoMemory | Fault::kNoAccess;
constexpr Faults kDescriptor = Fault::kTooManyFiles | Fault::kNoMemory;
constexpr Faults kWaiting = Fault::kInterrupted | Fault::kNoMemory;

Faults opening(int flags) {
  const Faults faults = kFile | Fault::kTooManyFiles | Fault::kNoMemory | Fault::kNoAccess;
  if ((flags & O_CREAT) != 0) return faults | Fault::kNoSpace | Fault::kReadOnly;
  return faults;
}

bool needsMode(int flags) { return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE; }

// Hands a call on, or lets it fail as calls do that return -1 and an errno.
template <typename Call>
auto answer(const char* name, Faults possible, Call call) -> decltype(call()) {
  const Fault fault = choose(name, possible);
  if (fault == Fault::kCount) return call();
  errno = errorOf(fault);
  return static_cast<decltype(call())>(-1);
}

// The same for calls that return what they have found, or null.
template <typename Call>
auto answerPointer(const char* name, Faults possible, Call call) -> decltype(call()) {
  const Fault fault = choose(name, possible);
  if (fault == Fault::kCount) return call();
  errno = errorOf(fault);
  return nullptr;
}

// The same for calls that return the error.
template <typename Call>
int answerError(const char* name, Faults possible, Call call) {
  const Fault fault = choose(name, possible);
  return fault == Fault::kCount ? call() : errorOf(fault);
}

// The same for calls that move bytes: `call` is given how many at the most.
template <typename Call>
ssize_t answerTransfer(const char* name, Faults possible, size_t size, Call call) {
  if (size < 2) possible &= ~bit(Fault::kShort);
  const Fault fault = choose(name, possible);
  if (fault == Fault::kCount) return call(size);
  if (fault == Fault::kEnd) return 0;
  if (fault == Fault::kShort) return call(size / 2);
  errno = errorOf(fault);
  return -1;
}

// What a socket's read and write can meet: a datagram is whole or isn't there.
struct Traffic {
  Faults in;
  Faults out;
};
Traffic trafficOf(int fd) {
  int type = 0;
  socklen_t size = sizeof type;
  if (syscall(SYS_getsockopt, fd, SOL_SOCKET, SO_TYPE, &type, &size) != 0)
    return {kReading, kWriting};
  if (type != SOCK_STREAM)
    return {Fault::kInterrupted | Fault::kNoMemory | bit(Fault::kAgain),
            Fault::kInterrupted | Fault::kNoBuffers | bit(Fault::kAgain) | Fault::kRefused};
  return {Fault::kInterrupted | Fault::kReset | bit(Fault::kAgain) | Fault::kShort | Fault::kEnd,
          Fault::kInterrupted | Fault::kReset | bit(Fault::kAgain) | Fault::kShort |
              Fault::kBrokenPipe};
}
Traffic trafficKeepingErrno(int fd) {
  const int error = errno;
  const Traffic traffic = trafficOf(fd);
  errno = error;
  return traffic;
}

// What is in a file descriptor's operation that a driver, or a file system's locks, can refuse.
Faults controlling(int command) {
  switch (command) {
    case F_SETLK:
    case F_OFD_SETLK:
      return Fault::kAgain | Fault::kNoLocks;
    case F_GETLK:
      return bit(Fault::kNoLocks);
    case F_DUPFD:
    case F_DUPFD_CLOEXEC:
      return bit(Fault::kTooManyFiles);
    case F_SETFL:
      return bit(Fault::kNoMemory);
    default:
      return 0;
  }
}

// The first `count` of `parts` with half of their bytes.
int halve(const iovec* parts, int count, iovec* half) {
  constexpr int kMost = 64;
  size_t size = 0;
  for (int i = 0; i < count; ++i) size += parts[i].iov_len;
  size_t left = size / 2;
  int used = 0;
  for (; used < count && used < kMost && left > 0; ++used) {
    half[used] = parts[used];
    if (half[used].iov_len > left) half[used].iov_len = left;
    left -= half[used].iov_len;
  }
  return used;
}

// `call` is given the parts to be moved.
template <typename Call>
ssize_t answerParts(const char* name, Faults possible, const iovec* parts, int count, Call call) {
  const Fault fault = choose(name, possible);
  if (fault == Fault::kCount) return call(parts, count);
  if (fault == Fault::kEnd) return 0;
  if (fault == Fault::kShort) {
    iovec half[64];
    const int used = halve(parts, count, half);
    return used > 0 ? call(half, used) : call(parts, count);
  }
  errno = errorOf(fault);
  return -1;
}

// Ahead of main(): what the process runs does not load this.
__attribute__((constructor)) void begin() {
  openTable();
  unsetenv("LD_PRELOAD");
}

}  // namespace

// A call that is handed on as it is. `how` hands on or fails; `name` is the symbol.
#define CALL(how, result, name, parameters, arguments, possible)             \
  result vs_##name parameters ANSWERS(#name);                                \
  result vs_##name parameters {                                              \
    static Real<result parameters> next(#name);                              \
    return how(#name, possible, [&]() -> result { return next arguments; }); \
  }

// The same for one whose third argument is the number of bytes.
#define TRANSFER(name, data, more, given, possible)                                   \
  ssize_t vs_##name(int fd, data buffer, size_t size more) ANSWERS(#name);            \
  ssize_t vs_##name(int fd, data buffer, size_t size more) {                          \
    static Real<ssize_t(int, data, size_t more)> next(#name);                         \
    return answerTransfer(#name, possible, size,                                      \
                          [&](size_t most) { return next(fd, buffer, most given); }); \
  }

#define COMMA ,

extern "C" {

// --- files --------------------------------------------------------------------------------------

#define OPEN(name)                                                                 \
  int vs_##name(const char* path, int flags, ...) ANSWERS(#name);                  \
  int vs_##name(const char* path, int flags, ...) {                                \
    static Real<int(const char*, int, ...)> next(#name);                           \
    va_list rest;                                                                  \
    va_start(rest, flags);                                                         \
    const unsigned mode = needsMode(flags) ? va_arg(rest, unsigned) : 0;           \
    va_end(rest);                                                                  \
    return answer(#name, opening(flags), [&] { return next(path, flags, mode); }); \
  }
#define OPENAT(name)                                                                       \
  int vs_##name(int folder, const char* path, int flags, ...) ANSWERS(#name);              \
  int vs_##name(int folder, const char* path, int flags, ...) {                            \
    static Real<int(int, const char*, int, ...)> next(#name);                              \
    va_list rest;                                                                          \
    va_start(rest, flags);                                                                 \
    const unsigned mode = needsMode(flags) ? va_arg(rest, unsigned) : 0;                   \
    va_end(rest);                                                                          \
    return answer(#name, opening(flags), [&] { return next(folder, path, flags, mode); }); \
  }
OPEN(open)
OPEN(open64)
OPENAT(openat)
OPENAT(openat64)
CALL(answer, int, __open_2, (const char* path, int flags), (path, flags), opening(flags))
CALL(answer, int, __open64_2, (const char* path, int flags), (path, flags), opening(flags))
CALL(answer, int, __openat_2, (int at, const char* path, int flags), (at, path, flags),
     opening(flags))
CALL(answer, int, __openat64_2, (int at, const char* path, int flags), (at, path, flags),
     opening(flags))
CALL(answerPointer, FILE*, fopen, (const char* path, const char* mode), (path, mode),
     opening(O_RDONLY))
CALL(answerPointer, FILE*, fopen64, (const char* path, const char* mode), (path, mode),
     opening(O_RDONLY))

TRANSFER(read, void*, , , trafficKeepingErrno(fd).in)
TRANSFER(__read_chk, void*, COMMA size_t room, COMMA room, trafficKeepingErrno(fd).in)
TRANSFER(write, const void*, , , trafficKeepingErrno(fd).out)
TRANSFER(pread64, void*, COMMA off64_t at, COMMA at, kReading)
TRANSFER(__pread64_chk, void*, COMMA off64_t at COMMA size_t room, COMMA at COMMA room, kReading)

ssize_t vs_pwritev64(int fd, const iovec* parts, int count, off64_t at) ANSWERS("pwritev64");
ssize_t vs_pwritev64(int fd, const iovec* parts, int count, off64_t at) {
  static Real<ssize_t(int, const iovec*, int, off64_t)> next("pwritev64");
  return answerParts("pwritev64", kWriting, parts, count,
                     [&](const iovec* some, int most) { return next(fd, some, most, at); });
}

// The descriptor is closed all the same, as the kernel does it.
int vs_close(int fd) ANSWERS("close");
int vs_close(int fd) {
  static Real<int(int)> next("close");
  const Fault fault = choose("close", kFile | Fault::kNoSpace);
  const int result = next(fd);
  if (fault == Fault::kCount || result != 0) return result;
  errno = errorOf(fault);
  return -1;
}

CALL(answer, off64_t, lseek64, (int fd, off64_t at, int how), (fd, at, how), bit(Fault::kIo))
CALL(answer, int, ftruncate64, (int fd, off64_t size), (fd, size), kFile | Fault::kNoSpace)
CALL(answerError, int, posix_fallocate64, (int fd, off64_t at, off64_t size), (fd, at, size),
     kFile | Fault::kNoSpace | Fault::kNotSupported)
CALL(answer, int, sync_file_range, (int fd, off64_t at, off64_t size, unsigned how),
     (fd, at, size, how), Fault::kIo | Fault::kNoSpace)
CALL(answer, int, fsync, (int fd), (fd), Fault::kIo | Fault::kNoSpace)
CALL(answer, int, flock, (int fd, int how), (fd, how),
     Fault::kInterrupted | Fault::kNoLocks | Fault::kAgain)

int vs_fcntl64(int fd, int command, ...) ANSWERS("fcntl64");
int vs_fcntl64(int fd, int command, ...) {
  static Real<int(int, int, ...)> next("fcntl64");
  va_list rest;
  va_start(rest, command);
  void* const argument = va_arg(rest, void*);
  va_end(rest);
  return answer("fcntl64", controlling(command), [&] { return next(fd, command, argument); });
}
int vs_fcntl(int fd, int command, ...) ANSWERS("fcntl");
int vs_fcntl(int fd, int command, ...) {
  static Real<int(int, int, ...)> next("fcntl");
  va_list rest;
  va_start(rest, command);
  void* const argument = va_arg(rest, void*);
  va_end(rest);
  return answer("fcntl", controlling(command), [&] { return next(fd, command, argument); });
}
int vs_ioctl(int fd, unsigned long request, ...) ANSWERS("ioctl");
int vs_ioctl(int fd, unsigned long request, ...) {
  static Real<int(int, unsigned long, ...)> next("ioctl");
  va_list rest;
  va_start(rest, request);
  void* const argument = va_arg(rest, void*);
  va_end(rest);
  return answer("ioctl", kFile | Fault::kNoMemory, [&] { return next(fd, request, argument); });
}

// --- names and folders --------------------------------------------------------------------------

CALL(answer, int, mkdir, (const char* path, mode_t mode), (path, mode), kFolder)
CALL(answer, int, mkdirat, (int at, const char* path, mode_t mode), (at, path, mode), kFolder)
CALL(answer, int, unlink, (const char* path), (path), kRemoval)
CALL(answer, int, unlinkat, (int at, const char* path, int flags), (at, path, flags), kRemoval)
CALL(answer, int, rename, (const char* from, const char* to), (from, to), kFolder)
CALL(answer, int, link, (const char* from, const char* to), (from, to), kFolder)
CALL(answer, int, chmod, (const char* path, mode_t mode), (path, mode), kRemoval)
CALL(answer, int, fchmod, (int fd, mode_t mode), (fd, mode), kRemoval)
CALL(answer, int, chown, (const char* path, uid_t owner, gid_t group), (path, owner, group),
     kRemoval)
CALL(answer, int, fchown, (int fd, uid_t owner, gid_t group), (fd, owner, group), kRemoval)
CALL(answer, int, stat, (const char* path, struct stat* found), (path, found), kLook)
CALL(answer, int, stat64, (const char* path, struct stat64* found), (path, found), kLook)
CALL(answer, int, lstat64, (const char* path, struct stat64* found), (path, found), kLook)
CALL(answer, int, fstat, (int fd, struct stat* found), (fd, found), bit(Fault::kIo))
CALL(answer, int, fstat64, (int fd, struct stat64* found), (fd, found), bit(Fault::kIo))
CALL(answer, int, fstatat64, (int at, const char* path, struct stat64* found, int flags),
     (at, path, found, flags), kLook)
CALL(answer, int, statvfs64, (const char* path, struct statvfs64* found), (path, found),
     kLook | Fault::kInterrupted)
CALL(answerPointer, DIR*, opendir, (const char* path), (path),
     kDescriptor | Fault::kIo | Fault::kNoAccess)
CALL(answerPointer, DIR*, fdopendir, (int fd), (fd), bit(Fault::kNoMemory))
CALL(answerPointer, struct dirent64*, readdir64, (DIR * folder), (folder), bit(Fault::kIo))
CALL(answerPointer, struct dirent*, readdir, (DIR * folder), (folder), bit(Fault::kIo))
CALL(answerPointer, struct group*, fgetgrent, (FILE * file), (file), bit(Fault::kIo))
CALL(answerPointer, char*, fgets, (char* line, int size, FILE* file), (line, size, file),
     bit(Fault::kIo))

// --- memory -------------------------------------------------------------------------------------

void* vs_mmap64(void* at, size_t size, int access, int how, int fd, off64_t from) ANSWERS("mmap64");
void* vs_mmap64(void* at, size_t size, int access, int how, int fd, off64_t from) {
  static Real<void*(void*, size_t, int, int, int, off64_t)> next("mmap64");
  const Fault fault = choose("mmap64", Fault::kNoMemory | Fault::kAgain);
  if (fault == Fault::kCount) return next(at, size, access, how, fd, from);
  errno = errorOf(fault);
  return MAP_FAILED;
}
CALL(answer, int, mprotect, (void* at, size_t size, int access), (at, size, access),
     Fault::kNoMemory | Fault::kNoAccess)
CALL(answer, int, madvise, (void* at, size_t size, int what), (at, size, what),
     Fault::kNoMemory | Fault::kAgain)

// --- threads, processes, waiting ----------------------------------------------------------------

CALL(answerError, int, pthread_create,
     (pthread_t * thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument),
     (thread, attributes, body, argument), bit(Fault::kAgain))
CALL(answerError, int, posix_spawn,
     (pid_t * child, const char* path, const posix_spawn_file_actions_t* actions,
      const posix_spawnattr_t* attributes, char* const* arguments, char* const* environment),
     (child, path, actions, attributes, arguments, environment),
     Fault::kAgain | Fault::kNoMemory | bit(Fault::kIo))
CALL(answerError, int, posix_spawn_file_actions_addclosefrom_np,
     (posix_spawn_file_actions_t * actions, int from), (actions, from), bit(Fault::kNoMemory))
CALL(answerError, int, clock_nanosleep,
     (clockid_t clock, int flags, const timespec* span, timespec* left), (clock, flags, span, left),
     bit(Fault::kInterrupted))
CALL(answer, int, usleep, (useconds_t span), (span), bit(Fault::kInterrupted))
CALL(answer, int, poll, (pollfd * fds, nfds_t count, int ms), (fds, count, ms), kWaiting)
CALL(answer, int, __poll_chk, (pollfd * fds, nfds_t count, int ms, size_t room),
     (fds, count, ms, room), kWaiting)
CALL(answer, int, ppoll, (pollfd * fds, nfds_t count, const timespec* span, const sigset_t* mask),
     (fds, count, span, mask), kWaiting)
CALL(answer, int, eventfd, (unsigned value, int flags), (value, flags), kDescriptor)
CALL(answer, int, pipe2, (int* fds, int flags), (fds, flags), bit(Fault::kTooManyFiles))
CALL(answer, ssize_t, getrandom, (void* buffer, size_t size, unsigned flags), (buffer, size, flags),
     Fault::kAgain | Fault::kInterrupted)

// No child that could be waited for: there is none afterwards either.
pid_t vs_waitpid(pid_t child, int* status, int options) ANSWERS("waitpid");
pid_t vs_waitpid(pid_t child, int* status, int options) {
  static Real<pid_t(pid_t, int*, int)> next("waitpid");
  const Fault fault = choose("waitpid", Fault::kInterrupted | Fault::kNoChild);
  if (fault == Fault::kCount) return next(child, status, options);
  if (fault == Fault::kNoChild) next(child, status, options);
  errno = errorOf(fault);
  return -1;
}

// Of the calls without a function only the waits on a word are the program's own.
long vs_syscall(long number, ...) ANSWERS("syscall");
long vs_syscall(long number, ...) {
  static Real<long(long, ...)> next("syscall");
  va_list rest;
  va_start(rest, number);
  long a[6];
  for (long& one : a) one = va_arg(rest, long);
  va_end(rest);
  const bool waits = number == SYS_futex && (a[1] & FUTEX_CMD_MASK) == FUTEX_WAIT;
  return answer("futex", waits ? Fault::kInterrupted | Fault::kAgain : Faults{0},
                [&] { return next(number, a[0], a[1], a[2], a[3], a[4], a[5]); });
}

// --- sockets ------------------------------------------------------------------------------------

CALL(answer, int, socket, (int family, int type, int protocol), (family, type, protocol),
     kDescriptor | Fault::kNoBuffers | Fault::kNoAccess)
CALL(answer, int, socketpair, (int family, int type, int protocol, int* fds),
     (family, type, protocol, fds), kDescriptor)
CALL(answer, int, bind, (int fd, const sockaddr* address, socklen_t size), (fd, address, size),
     Fault::kAddressInUse | Fault::kNoMemory | Fault::kNoAccess | bit(Fault::kNoSpace))
CALL(answer, int, listen, (int fd, int most), (fd, most), bit(Fault::kAddressInUse))
CALL(answer, int, connect, (int fd, const sockaddr* address, socklen_t size), (fd, address, size),
     Fault::kRefused | Fault::kUnreachable | bit(Fault::kTimedOut) | Fault::kAgain |
         Fault::kInterrupted)
CALL(answer, int, accept, (int fd, sockaddr* address, socklen_t* size), (fd, address, size),
     kDescriptor | Fault::kInterrupted | Fault::kAgain)
CALL(answer, int, getsockname, (int fd, sockaddr* address, socklen_t* size), (fd, address, size),
     bit(Fault::kNoBuffers))
CALL(answer, int, getpeername, (int fd, sockaddr* address, socklen_t* size), (fd, address, size),
     bit(Fault::kNoBuffers))
CALL(answer, int, setsockopt, (int fd, int level, int option, const void* value, socklen_t size),
     (fd, level, option, value, size), Fault::kNoMemory | Fault::kNoBuffers)
CALL(answer, int, getsockopt, (int fd, int level, int option, void* value, socklen_t* size),
     (fd, level, option, value, size), bit(Fault::kNoBuffers))
CALL(answer, ssize_t, sendmsg, (int fd, const msghdr* message, int flags), (fd, message, flags),
     trafficKeepingErrno(fd).out & ~bit(Fault::kShort))
CALL(answer, ssize_t, recvmsg, (int fd, msghdr* message, int flags), (fd, message, flags),
     trafficKeepingErrno(fd).in & ~(bit(Fault::kShort) | bit(Fault::kEnd)))
TRANSFER(send, const void*, COMMA int flags, COMMA flags, trafficKeepingErrno(fd).out)
TRANSFER(sendto, const void*, COMMA int flags COMMA const sockaddr* to COMMA socklen_t length,
         COMMA flags COMMA to COMMA length, trafficKeepingErrno(fd).out)
TRANSFER(recv, void*, COMMA int flags, COMMA flags, trafficKeepingErrno(fd).in)
TRANSFER(__recv_chk, void*, COMMA size_t room COMMA int flags, COMMA room COMMA flags,
         trafficKeepingErrno(fd).in)
TRANSFER(recvfrom, void*, COMMA int flags COMMA sockaddr* from COMMA socklen_t* length,
         COMMA flags COMMA from COMMA length, trafficKeepingErrno(fd).in)

int vs_getaddrinfo(const char* name, const char* service, const addrinfo* hints, addrinfo** found)
    ANSWERS("getaddrinfo");
int vs_getaddrinfo(const char* name, const char* service, const addrinfo* hints, addrinfo** found) {
  static Real<int(const char*, const char*, const addrinfo*, addrinfo**)> next("getaddrinfo");
  const Fault fault = choose("getaddrinfo", Fault::kNoMemory | Fault::kAgain);
  if (fault == Fault::kCount) return next(name, service, hints, found);
  return fault == Fault::kNoMemory ? EAI_MEMORY : EAI_AGAIN;
}

}  // extern "C"
