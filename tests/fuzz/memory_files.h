// Files in memory in the place of real ones: the calls of the C library, redirected by the linker,
// work on them for paths below kMemory, and pass on all others. One thread.
#pragma once

#include <cstdint>
#include <string>

namespace memory_files {

constexpr char kMemory[] = "/memory/";

// Makes or replaces the file at `path`, which begins with kMemory.
void put(const std::string& path, const std::string& bytes);
std::string content(const std::string& path);

// No file gets longer than so many bytes: what would is ENOSPC.
void limit(std::int64_t bytes);

// Removes all files. Ends the process when one is still open.
void clear();

}  // namespace memory_files
