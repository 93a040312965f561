// Files of a continuous recording: AVI, or the bare stream.
#pragma once

#include <cstdint>

class AviFile;

constexpr int kAviNameBytes = 256;

// One recording file after the other. The caller sets what is to be written; the functions below
// tell what came of it. Bound to one thread at a time.
struct AVI_HANDLE {
  char type = 0;                  // frame type of the next chunk: see platform/frame_type.h
  char header[20] = {};           // the MPEG-4 stream header; the file that is opened next has it
  std::int32_t rate = 0;          // frames per second x 1000, for the file when it is closed
  std::int64_t size = 0;          // bytes of the open file so far
  bool open = false;              // a file is open
  char name[kAviNameBytes] = "";  // of the open file, or of the last one: another than asked for
                                  // when that was taken
  AviFile* file = nullptr;        // owned: from aviCreate() to aviRelease()
  int fd = -1;                    // of a raw file
};

// All: 0 or more on success, -1 with `errno` otherwise. A file that exists is never touched:
// opening takes the next free name, "-1", "-2" and so on ahead of the extension. Files are 0640.
// Below "/smb" nothing is opened unless something is mounted there (ENODEV), also when it goes away
// meanwhile.

// Prepares the handle for AVI files: makes its buffer. aviRelease() closes a file that is open and
// frees it; may be called twice.
int aviCreate(AVI_HANDLE* handle);
int aviRelease(AVI_HANDLE* handle);

// Opens a file. Its headers are complete once a second of recording has been written, and it can be
// played from then on whatever happens; see docs/recordings.md for the layout.
int aviOpen(AVI_HANDLE* handle, const char* name);

// Writes one chunk of the type in the handle: 'I', 'P' and 'J' begin a picture, 'i' and 'p' go on
// with it and end up in the same chunk of the file. A picture of another kind than the first
// (MPEG-4 or JPEG) is EINVAL. After an error (ENOSPC) the file is as before the picture and can be
// closed or written to again. Nothing is kept of `data`.
int aviWrite(AVI_HANDLE* handle, const char* data, long length);

// Completes the headers and indexes, with `rate`, and closes the file. The handle has no open file
// afterwards, whatever is returned. Closing without an open file is 0.
int aviClose(AVI_HANDLE* handle);

// The same for the bare chunks, one behind the other. No preparation is needed.
int rawOpen(AVI_HANDLE* handle, const char* name);
int rawWrite(AVI_HANDLE* handle, const char* data, long length);
int rawClose(AVI_HANDLE* handle);
