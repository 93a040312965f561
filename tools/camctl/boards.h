// Which camera camctl talks to.
#pragma once

#include <sys/types.h>
#include <string>
#include <vector>

// Returns the process that writes the stream buffer "video" of the camera whose file tree begins at
// `root` ("" for this machine's own); 0 when none does; -1 with `errno` when that can't be asked. A
// buffer that a killed camera left behind counts for nothing: what is asked for is a lock that the
// kernel drops at any death.
// Must not be called once the process has attached that buffer: closing a second descriptor of the
// file would drop the process's own locks.
pid_t cameraAt(const std::string& root);

// The roots of all cameras that run and that this user may know of: this machine's own and the
// boards in the user's registry.
std::vector<std::string> runningCameras();
