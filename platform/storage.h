// Storage: mounts, free space, files and paths.
#pragma once

// State of the USB storage at /usb and of the share at /smb: 1 mounted, 0 not mounted.
// 0 on success; otherwise non-zero and `*state` is unchanged. Any thread.
int get_usb_mount_state(int* state);
int get_smb_mount_state(int* state);

// Returns the USED share of the file system at `path` in per cent, 0 to 100, rounded up; the name
// is historical. On failure returns 100: a file system that can't be asked takes no recording.
int get_free_space_percent(const char* path);

// Opens `path` with `flags`, creating missing folders first; files are made 0640, folders 0750.
// A path with a part ".." or a control character is refused and logs 2 "unsafe path refused: %s".
// Returns the descriptor (closed on exec), otherwise -1 with `errno`. Any thread.
int open2(const char* path, int flags);

// Copies `source` into `destination` and sets the slashes at its ends. `how` is made of bits: 1 no
// leading slash, 2 exactly one, 4 no trailing slash, 8 exactly one; so 10 gives "/usb/", 9 "pics/",
// 5 "cam". An empty source stays empty. Never writes past `capacity`, terminator included.
// On failure (too long, a part "..", a control character) the destination is empty, returns -1 and
// logs 2 "unsafe path refused: %s" or 2 "path too long: %s"; otherwise returns the length.
int slash(const char* source, char* destination, int capacity, int how);

// Below, `folder` and `path` begin with a slash. Parts ".." and control characters are refused as
// by open2(). Any thread.

// Finds the oldest of the recordings in `folder` by name: among its folders named by eight digits
// (days), or where there are none, among its files named by six digits, an optional "-" and number,
// and the extension "avi" or "raw" (times of day). Other names don't count, nor do symbolic links.
// Writes its whole path. 0 on success; otherwise -1 with `errno`, ENOENT when there is none.
int get_oldest_name(const char* folder, char* name, int size);

// Writes the folder that `path` lies in, without a slash at its end.
// 0 on success; otherwise -1: there is no folder or it does not fit.
int get_folder(const char* path, char* folder, int size);

// Returns true iff there is such a folder.
bool test_dir(const char* path);

// Makes a folder and those above it, 0750. Below "/smb" nothing is made unless something is mounted
// there (ENODEV). 0 on success, also when it exists; otherwise -1 with `errno`.
int mkdir2(const char* path);
