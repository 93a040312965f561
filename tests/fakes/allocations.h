// Counts what the program takes from the heap. Linked only where a test asks for it.
#pragma once

// Returns how often memory was allocated so far, by operator new or by malloc(), calloc() or
// realloc() from the project's own objects. The fake platform's own allocations don't count.
// Any thread.
long allocations();
