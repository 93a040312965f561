// Reading and writing at places of a file, to the last byte.
#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstddef>

// Writes all of `parts`, which are used up, at `at`. Returns the number of bytes written: fewer
// than asked for iff a write failed, with `errno`.
off_t writeAt(int fd, iovec* parts, int count, off_t at);
// The same for one part. Returns true iff all was written.
bool writeAt(int fd, const void* data, std::size_t size, off_t at);

// Returns the number of bytes read, fewer than `size` at the end of the file; -1 with `errno`.
long readAt(int fd, void* data, std::size_t size, off_t at);

// Makes the file `size` bytes long. Returns false with `errno` when that fails.
bool resizeFile(int fd, off_t size);

// Keeps `errno` over calls that clean up.
class ErrnoKeeper {
 public:
  ErrnoKeeper() : error_(errno) {}
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;
  ~ErrnoKeeper() { errno = error_; }

 private:
  int error_;
};
