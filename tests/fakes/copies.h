// Counts what the program copies. Linked only where a test asks for it.
#pragma once

#include <cstddef>

// Returns how many bytes the project's own objects copied so far in pieces of at least kCopyCounts:
// by memcpy() or memmove(), which is what the compiler makes of std::copy and assignments of large
// objects, too. The fake platform's own copies don't count. Any thread.
long copiedBytes();

// Texts and records are smaller than that, pictures larger.
constexpr std::size_t kCopyCounts = 256;
