// The system log: for the people who keep the camera running.
#pragma once

// Writes one line; `format` as for printf. `level`: 3 error, 2 warning, 1 notice. Lines go to
// syslog, and to standard error when that is a terminal or the environment says VS_LOG=stderr. A
// line that repeats without pause is folded into "repeated N times"; there is one such line a
// second, also when up to eight lines take turns. Lines end at 1000 characters. Returns -1.
// Allocates nothing. Any thread.
int logEx(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Writes out what is folded and closes the log; a later logEx() opens it again.
void free_log();
