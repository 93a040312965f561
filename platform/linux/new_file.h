// New files of recordings: names that are free, and the mark that somebody writes them.
#pragma once

#include "platform/linux/fd.h"

// Creates `path`, or where that exists the next free name, "-1", "-2" and so on ahead of the
// extension, for reading and writing. `name`, of `size` bytes, becomes the path taken. Missing
// folders are made; below "/smb" nothing is unless something is mounted there (ENODEV).
// On failure the descriptor isn't valid, `errno` tells why and `name` is unchanged. Any thread.
Fd createNewFile(const char* path, char* name, int size);

// Removes `path` if it still is the file that `fd` is. Any thread.
void removeFile(const char* path, int fd);

// Marks the file as being written, until the descriptor is closed or the process is gone; the mark
// is a lock far beyond the end of any file, so that on a share it keeps nobody from reading.
// Returns false with `errno` when that fails: EAGAIN when somebody else has it.
bool lockForWriting(int fd);
