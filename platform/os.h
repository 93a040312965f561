// The operating system as the daemon uses it. On Linux these are the system's own calls with the
// additions told here; in unit tests they are a fake with a virtual clock.
#pragma once

#include <fcntl.h>
#include <cstddef>

namespace os {

// As their namesakes in POSIX, with `errno`. Descriptors are closed on exec, so that no command
// inherits them; read() and write() start over when a signal interrupts them. Any thread.
int open(const char* path, int flags);
long read(int fd, void* buffer, std::size_t size);
long write(int fd, const void* data, std::size_t size);
long lseek(int fd, long offset, int whence);
int ioctl(int fd, unsigned long request, void* argument);
int close(int fd);
int fcntl(int fd, int command, long argument);
int getpid();

// Removes the file `path`, which begins with a slash. Past its first part no symbolic link is
// followed (ELOOP), and parts ".." are refused (EACCES), as by open2(). Any thread.
int unlink(const char* path);

// Calls `handler` whenever the process gets `signal`, on the main thread; calls that it interrupts
// start over. Returns 0, or -1 with `errno` when there is no such signal. Thread: the main one.
int onSignal(int signal, void (*handler)(int));

// Pauses of the calling thread, on the monotonic clock: a step of the wall clock changes nothing.
// A pause ends early, with a non-zero result, when the body of the calling PThread was asked to
// stop from outside, and on the main thread when the process was asked to stop. Zero or less: no
// pause.
unsigned sleep(unsigned seconds);
int usleep(unsigned long microseconds);

// Runs `command` by the shell and waits for it. The command starts with an empty signal mask,
// default dispositions, no descriptor but 0 to 2, and the process's first file mode mask. SIGINT
// and SIGTERM still reach the daemon meanwhile. Nothing but plain words is run, see
// platform/linux/plain_command.h: other lines log 2 "unsafe command refused: %s" and fail with
// EACCES. Returns the exit status as waitpid() gives it, -1 when no shell could be started. Any
// thread.
int system(const char* command);

}  // namespace os
