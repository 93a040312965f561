// The drivers of the virtual board, as a library that is loaded before the C library: it answers
// the calls on the camera's device nodes and hands every other call on.
//
// Each function has its symbol by an asm label, since the C library's headers give some of these
// names other declarations or rename them (open64 for open). It must load into any program, so it
// needs nothing but the C library, and it is built without sanitizers.
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "board/drivers/connection.h"
#include "board/drivers/libc.h"
#include "board/drivers/open_nodes.h"
#include "board/drivers/requests.h"

namespace {

using Open = int(const char*, int, ...);
using OpenAt = int(int, const char*, int, ...);
using OpenChecked = int(const char*, int);
using OpenAtChecked = int(int, const char*, int);
using Read = ssize_t(int, void*, size_t);
using ReadChecked = ssize_t(int, void*, size_t, size_t);
using Control = int(int, unsigned long, ...);
using FileControl = int(int, int, ...);
using Close = int(int);
using Dup = int(int);
using Dup2 = int(int, int);
using Dup3 = int(int, int, int);

Real<Open> realOpen("open");
Real<Open> realOpen64("open64");
Real<OpenAt> realOpenat("openat");
Real<OpenAt> realOpenat64("openat64");
Real<OpenChecked> realOpenChecked("__open_2");
Real<OpenChecked> realOpen64Checked("__open64_2");
Real<OpenAtChecked> realOpenatChecked("__openat_2");
Real<OpenAtChecked> realOpenat64Checked("__openat64_2");
Real<Read> realRead("read");
Real<ReadChecked> realReadChecked("__read_chk");
Real<Control> realControl("ioctl");
Real<FileControl> realFileControl("fcntl");
Real<FileControl> realFileControl64("fcntl64");
Real<Close> realClose("close");
Real<Dup> realDup("dup");
Real<Dup2> realDup2("dup2");
Real<Dup3> realDup3("dup3");

// Flags that F_SETFL changes.
constexpr int kChangeable = O_APPEND | O_ASYNC | O_DIRECT | O_NOATIME | O_NONBLOCK;

class Turn {
 public:
  explicit Turn(OpenNode* node) : node_(node) { pthread_mutex_lock(&node_->turn); }
  ~Turn() { pthread_mutex_unlock(&node_->turn); }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

 private:
  OpenNode* node_;
};

bool isOneOf(const char* path, const char* one, const char* other) {
  return std::strcmp(path, one) == 0 || std::strcmp(path, other) == 0;
}

int openNode(const char* path, int flags) {
  const int fd = connectNode(path, (flags & O_CLOEXEC) != 0);
  if (fd < 0) return -1;
  if (addNode(fd, flags & ~(O_CLOEXEC | O_CREAT | O_EXCL | O_NOCTTY | O_TRUNC))) return fd;
  const int error = errno;
  realClose(fd);
  errno = error;
  return -1;
}

// Answers an open of any kind. `real`: opens the path that it is given by the C library's call.
template <typename RealOpen>
int answerOpen(const char* path, int flags, RealOpen real) {
  if (path == nullptr || std::strncmp(path, "/dev/", 5) != 0) return real(path);
  const bool isFlash = std::strcmp(path, kFlashPath) == 0;
  if (!isFlash && !isOneOf(path, kEncoderPath, kSensorPath)) return real(path);
  if ((flags & O_ACCMODE) != O_RDONLY) {
    errno = EACCES;
    return -1;
  }
  if (!isFlash) return openNode(path, flags);
  char file[PATH_MAX];
  return real(onBoard(kFlashFile, file));
}

bool needsMode(int flags) { return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE; }

int answerFileControl(Real<FileControl>* real, int fd, int command, void* argument) {
  OpenNode* const node = findNode(fd);
  if (node == nullptr) return (*real)(fd, command, argument);
  const int value = static_cast<int>(reinterpret_cast<long>(argument));
  switch (command) {
    case F_DUPFD:
    case F_DUPFD_CLOEXEC: {
      const int copy = (*real)(fd, command, argument);
      if (copy >= 0) addDescriptor(copy, node);
      return copy;
    }
    case F_GETFL:
      return node->flags;
    case F_GETOWN:
      return node->owner;
    case F_SETFL:
      node->flags = (node->flags & ~kChangeable) | (value & kChangeable);
      break;
    case F_SETOWN:
      node->owner = value;
      break;
    default:
      return (*real)(fd, command, argument);
  }
  // On the socket itself O_ASYNC would raise SIGIO for every byte of a reply.
  const Turn turn(node);
  setNodeOwner(fd, (node->flags & O_ASYNC) != 0 ? node->owner.load() : 0);
  return 0;
}

// Enters the descriptor that a call of the dup family has made of `fd`.
int answerDup(int fd, int copy) {
  if (copy < 0 || copy == fd) return copy;
  OpenNode* const node = findNode(fd);
  if (node != nullptr) {
    addDescriptor(copy, node);
  } else {
    forgetDescriptor(copy);
  }
  return copy;
}

// Ahead of main(): what a signal handler may need is looked up, and what the process runs loads
// nothing.
__attribute__((constructor)) void begin() {
  realRead.find();
  realReadChecked.find();
  realControl.find();
  realFileControl.find();
  realFileControl64.find();
  realClose.find();
  realOpen.find();
  realOpen64.find();
  realDup.find();
  realDup2.find();
  unsetenv("LD_PRELOAD");
}

}  // namespace

extern "C" {

int vsOpen(const char* path, int flags, ...) ANSWERS("open");
int vsOpen64(const char* path, int flags, ...) ANSWERS("open64");
int vsOpenat(int folder, const char* path, int flags, ...) ANSWERS("openat");
int vsOpenat64(int folder, const char* path, int flags, ...) ANSWERS("openat64");
int vsOpenChecked(const char* path, int flags) ANSWERS("__open_2");
int vsOpen64Checked(const char* path, int flags) ANSWERS("__open64_2");
int vsOpenatChecked(int folder, const char* path, int flags) ANSWERS("__openat_2");
int vsOpenat64Checked(int folder, const char* path, int flags) ANSWERS("__openat64_2");
ssize_t vsRead(int fd, void* buffer, size_t size) ANSWERS("read");
ssize_t vsReadChecked(int fd, void* buffer, size_t size, size_t room) ANSWERS("__read_chk");
int vsControl(int fd, unsigned long request, ...) ANSWERS("ioctl");
int vsFileControl(int fd, int command, ...) ANSWERS("fcntl");
int vsFileControl64(int fd, int command, ...) ANSWERS("fcntl64");
int vsClose(int fd) ANSWERS("close");
int vsDup(int fd) ANSWERS("dup");
int vsDup2(int fd, int wanted) ANSWERS("dup2");
int vsDup3(int fd, int wanted, int flags) ANSWERS("dup3");

int vsOpen(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const unsigned mode = needsMode(flags) ? va_arg(rest, unsigned) : 0;
  va_end(rest);
  return answerOpen(path, flags, [=](const char* at) { return realOpen(at, flags, mode); });
}

int vsOpen64(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const unsigned mode = needsMode(flags) ? va_arg(rest, unsigned) : 0;
  va_end(rest);
  return answerOpen(path, flags, [=](const char* at) { return realOpen64(at, flags, mode); });
}

int vsOpenat(int folder, const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const unsigned mode = needsMode(flags) ? va_arg(rest, unsigned) : 0;
  va_end(rest);
  return answerOpen(path, flags,
                    [=](const char* at) { return realOpenat(folder, at, flags, mode); });
}

int vsOpenat64(int folder, const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const unsigned mode = needsMode(flags) ? va_arg(rest, unsigned) : 0;
  va_end(rest);
  return answerOpen(path, flags,
                    [=](const char* at) { return realOpenat64(folder, at, flags, mode); });
}

int vsOpenChecked(const char* path, int flags) {
  return answerOpen(path, flags, [=](const char* at) { return realOpenChecked(at, flags); });
}

int vsOpen64Checked(const char* path, int flags) {
  return answerOpen(path, flags, [=](const char* at) { return realOpen64Checked(at, flags); });
}

int vsOpenatChecked(int folder, const char* path, int flags) {
  return answerOpen(path, flags,
                    [=](const char* at) { return realOpenatChecked(folder, at, flags); });
}

int vsOpenat64Checked(int folder, const char* path, int flags) {
  return answerOpen(path, flags,
                    [=](const char* at) { return realOpenat64Checked(folder, at, flags); });
}

ssize_t vsRead(int fd, void* buffer, size_t size) {
  OpenNode* const node = findNode(fd);
  if (node == nullptr) return realRead(fd, buffer, size);
  const Turn turn(node);
  return readNode(fd, buffer, size);
}

ssize_t vsReadChecked(int fd, void* buffer, size_t size, size_t room) {
  OpenNode* const node = findNode(fd);
  if (node == nullptr) return realReadChecked(fd, buffer, size, room);
  if (size > room) std::abort();
  const Turn turn(node);
  return readNode(fd, buffer, size);
}

int vsControl(int fd, unsigned long request, ...) {
  va_list rest;
  va_start(rest, request);
  void* const argument = va_arg(rest, void*);
  va_end(rest);
  OpenNode* const node = findNode(fd);
  if (node == nullptr) return realControl(fd, request, argument);
  const Turn turn(node);
  // Requests have 32 bits; a caller that keeps them in an int has extended the sign.
  return controlNode(fd, static_cast<unsigned>(request), argument);
}

int vsFileControl(int fd, int command, ...) {
  va_list rest;
  va_start(rest, command);
  void* const argument = va_arg(rest, void*);
  va_end(rest);
  return answerFileControl(&realFileControl, fd, command, argument);
}

int vsFileControl64(int fd, int command, ...) {
  va_list rest;
  va_start(rest, command);
  void* const argument = va_arg(rest, void*);
  va_end(rest);
  return answerFileControl(&realFileControl64, fd, command, argument);
}

int vsClose(int fd) {
  forgetDescriptor(fd);
  return realClose(fd);
}

int vsDup(int fd) { return answerDup(fd, realDup(fd)); }

int vsDup2(int fd, int wanted) { return answerDup(fd, realDup2(fd, wanted)); }

int vsDup3(int fd, int wanted, int flags) { return answerDup(fd, realDup3(fd, wanted, flags)); }

}  // extern "C"
