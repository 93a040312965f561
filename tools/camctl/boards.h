// Which camera camctl talks to.
#pragma once

#include <sys/types.h>
#include <functional>
#include <string>
#include <vector>

// Returns the daemon among the processes that have locks on a stream buffer's file: the writer, or
// else, as long as it writes nothing, a user of the buffer with the daemon's name. 0: none.
// `ownerOf`: returns the process that has the lock of one byte, 0: none. What a killed camera left
// behind counts for nothing: the kernel drops locks at any death.
pid_t daemonAmong(const std::function<pid_t(int byte)>& ownerOf);

// Returns the daemon of the camera whose file tree begins at `root` ("" for this machine's own); 0
// when none runs; -1 with `errno` when that can't be asked.
// Must not be called once the process has attached the buffer "video": closing a second descriptor
// of the file would drop the process's own locks.
pid_t cameraAt(const std::string& root);

// The roots of all cameras that run and that this user may know of: this machine's own and the
// boards in the user's registry.
std::vector<std::string> runningCameras();
