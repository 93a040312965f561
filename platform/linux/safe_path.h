// Paths of recordings, walked so that they can't lead out of the storage, nor into the empty mount
// point of a share that has gone.
#pragma once

#include <sys/types.h>

#include <climits>

#include "platform/linux/fd.h"

constexpr mode_t kFileMode = 0640;
constexpr mode_t kFolderMode = 0750;

// Returns true iff `path` has neither a part ".." nor a control character.
bool isSafePath(const char* path);

// Returns -1 with EACCES. Logs 2 "unsafe path refused: %s", control characters shown as "?".
int refusePath(const char* path);

enum class Walk {
  kLook,  // a folder that is missing is ENOENT
  kMake,  // it is made; below "/smb" everything is ENODEV unless something is mounted there
};

// Opens the folder `path`, which begins with a slash, for use with the calls ending in "at". Past
// its first part no symbolic link is followed (ELOOP): a storage that somebody plugs in must not
// lead elsewhere. What is opened stays below the mount that was found: when it goes away meanwhile,
// nothing reaches the mount point's own folder.
// On failure the descriptor isn't valid and `errno` tells why; EACCES for what isSafePath() or the
// leading slash forbids. Logs 2 "unsafe path refused: %s". Any thread.
Fd openFolder(const char* path, Walk walk);

// The same for the folder that `path` lies in. `name` becomes the last part, empty where `path`
// ends with a slash.
Fd openFolderOf(const char* path, Walk walk, char (&name)[NAME_MAX + 1]);
