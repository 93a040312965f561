// File systems of a test's own, as far as the kernel permits them.
#pragma once

#include <functional>

#include "tests/platform/support.h"

// Runs `body` in a child process that has mounts of its own, with a file system of 64 KiB in memory
// at `point`; its result is the child's exit status. Skips where that is not permitted.
void onSmallDisk(const TempRoot& root, const char* point, const std::function<int()>& body);

// What `body` returns: in the child a failed expectation must show in the exit status.
int verdict();
