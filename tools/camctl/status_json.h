// camctl status --json: everything that the camera shares, for programs.
#pragma once

#include <string>

// Returns the state of the camera as one line of JSON; camctl.1 tells the members. `camera`: root
// of its file tree. `pid`: its process, 0: none runs.
std::string statusJson(const std::string& camera, int pid);
