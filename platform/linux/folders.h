// Folders of the platform's own files.
#pragma once

#include <string>

// Creates the folder `path` and those above it, as far as they are missing, with mode 0750.
// Returns true iff it is there; otherwise `errno` says why not. Any thread.
bool makeFolders(const std::string& path);
