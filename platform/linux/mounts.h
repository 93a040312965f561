// What is mounted where.
#pragma once

// Looks for `mountPoint` in `mountinfo`, a file in the form of /proc/self/mountinfo.
// Returns 1 if something is mounted there, 0 if not, -1 when the file can't be read. Any thread.
int mountState(const char* mountinfo, const char* mountPoint);
