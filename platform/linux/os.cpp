#include "platform/os.h"

#include <signal.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <string>

#include "platform/linux/plain_command.h"
#include "platform/linux/safe_path.h"
#include "platform/linux/thread_access.h"
#include "platform/log.h"

namespace {

constexpr std::int64_t kUsPerSecond = 1000000;

// Starts a system call over as long as signals interrupt it.
template <typename Call>
auto retry(Call call) {
  auto result = call();
  while (result == -1 && errno == EINTR) result = call();
  return result;
}

// What a process that makes files for the camera's group alone was started with. Its commands,
// which belong to the system, have it, too. Read while there is no other thread.
const mode_t startMask = [] {
  const mode_t mask = umask(0);
  umask(mask);
  return mask;
}();

// Starts `/bin/sh -c command`. Returns its process id, -1 when it could not be started.
pid_t startShell(const char* command) {
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_t actions;
  if (posix_spawnattr_init(&attributes) != 0) return -1;
  posix_spawn_file_actions_init(&actions);
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &all);  // an ignored SIGPIPE would outlive exec
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  // Ours close on exec; this is for what libraries have opened.
  posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
  char mask[16];
  std::snprintf(mask, sizeof mask, "umask %03o; ", static_cast<unsigned>(startMask));
  const std::string line = std::string(mask) + command;
  const char* const arguments[] = {"sh", "-c", line.c_str(), nullptr};
  pid_t child = -1;
  const int error = posix_spawn(&child, "/bin/sh", &actions, &attributes,
                                const_cast<char* const*>(arguments), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  if (error == 0) return child;
  errno = error;
  return -1;
}

}  // namespace

namespace os {

int open(const char* path, int flags) {
  return retry([=] { return ::open(path, flags | O_CLOEXEC, kFileMode); });
}

long read(int fd, void* buffer, std::size_t size) {
  return retry([=] { return ::read(fd, buffer, size); });
}

long write(int fd, const void* data, std::size_t size) {
  return retry([=] { return ::write(fd, data, size); });
}

long lseek(int fd, long offset, int whence) {
  const off_t position = ::lseek(fd, offset, whence);
  if (position <= std::numeric_limits<long>::max()) return static_cast<long>(position);
  errno = EOVERFLOW;
  return -1;
}

int ioctl(int fd, unsigned long request, void* argument) { return ::ioctl(fd, request, argument); }

int close(int fd) { return ::close(fd); }

int unlink(const char* path) {
  char name[NAME_MAX + 1];
  const Fd folder = openFolderOf(path, Walk::kLook, name);
  return folder.valid() ? unlinkat(folder.get(), name, 0) : -1;
}

int fcntl(int fd, int command, long argument) { return ::fcntl(fd, command, argument); }

int getpid() { return ::getpid(); }

int onSignal(int signal, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  if (sigaction(signal, &action, nullptr) != 0) return -1;
  // What the parent of the process had blocked must not make it deaf.
  sigset_t wanted;
  sigemptyset(&wanted);
  sigaddset(&wanted, signal);
  pthread_sigmask(SIG_UNBLOCK, &wanted, nullptr);
  return 0;
}

unsigned sleep(unsigned seconds) {
  const std::int64_t left = ThreadAccess::pause(seconds * kUsPerSecond);
  return static_cast<unsigned>((left + kUsPerSecond - 1) / kUsPerSecond);
}

int usleep(unsigned long microseconds) {
  constexpr std::uint64_t kLongestUs = std::uint64_t{1} << 60;  // still a sum with the clock
  const std::uint64_t us = std::min<std::uint64_t>(microseconds, kLongestUs);
  if (ThreadAccess::pause(static_cast<std::int64_t>(us)) == 0) return 0;
  errno = EINTR;
  return -1;
}

// The one place where the daemon starts commands: whoever has made the line, it is looked at here.
int system(const char* command) {
  if (!isPlainCommand(command)) {
    logEx(2, "unsafe command refused: %s", command);
    errno = EACCES;
    return -1;
  }
  const pid_t child = startShell(command);
  if (child < 0) return -1;
  int status = -1;
  return retry([&] { return waitpid(child, &status, 0); }) == child ? status : -1;
}

}  // namespace os
