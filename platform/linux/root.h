// Where the camera's file tree begins: "/" on a camera, a folder for tools that look into a board.
#pragma once

#include <cstddef>
#include <string>

// The prefix of every absolute path that the platform opens; empty on a camera.
const std::string& platformRoot();

// Sets the prefix, once, before any other call of the platform. Main thread.
void setPlatformRoot(std::string root);

// Returns `path` below the prefix.
std::string rooted(const char* path);

// The same without allocating: writes it into `buffer`. Returns false iff it is longer than
// `size` - 1.
bool rooted(const char* path, char* buffer, std::size_t size);
