// The name by which this process is known to the log and to the messaging service.
#pragma once

#include <cerrno>

// Returns the file name under which the program was started. Any thread.
inline const char* processName() { return program_invocation_short_name; }
