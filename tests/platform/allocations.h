// Counts the memory allocations of this program, those of the C library included.
#pragma once

// Allocations of all threads since the program started.
unsigned allocationCount();
