#include "platform/log.h"

#include <cstdarg>
#include <cstdio>

int logEx(int level, const char* format, ...) {
  char line[1001];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  std::fprintf(stderr, "<%d> %s\n", level, line);
  return -1;
}

void free_log() {}
