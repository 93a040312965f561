// The camera that this process is attached to.
#pragma once

// Returns true iff the camera's daemon still runs.
bool cameraRuns();

// For a command that is stuck without frames: says why on standard error and returns the exit code,
// kExitNoCamera or kExitNoPicture.
int sayNoPicture();
// The same for one that waits for `wanted` while there are frames of another kind.
int sayNoPicture(const char* wanted);
