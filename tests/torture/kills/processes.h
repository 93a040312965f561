// Processes of a trial, and its clock.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

// Milliseconds of the monotonic clock.
double nowMs();
void sleepMs(double ms);

// Starts a program, which dies with this process. `said`: the file that gets its words, at the end.
// `preload`: a library to be loaded first, or nothing. Returns its process id.
pid_t start(const std::vector<std::string>& command, const std::string& said,
            const std::string& preload = "");

// Returns true iff the child has ended, `*status` being as wait() gives it. Waits `ms` at most.
bool ended(pid_t child, double ms, int* status);

// Kills a child and waits for its end. Returns its status: it may have ended before by itself.
int killChild(pid_t child);

// Runs a program to its end. Returns true iff it ended with 0.
bool run(const std::vector<std::string>& command, const std::string& said);

std::string contentOf(const std::string& path);
void writeContent(const std::string& path, const std::string& content);
