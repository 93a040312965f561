// The lines of the table that scripts/bench prints at its end.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

// A value with its unit, as it stands in the table.
inline std::string tableValue(double value, const char* unit) {
  char text[64];
  std::snprintf(text, sizeof text, value < 100 ? "%.2f %s" : "%.0f %s", value, unit);
  return text;
}

// Adds a line to the file that VS_BENCH_TABLE names, if it names one. `limit`: what the figure is
// compared with, of the same run; `reach`: what the ratio is to be, "-" for none.
inline void tableLine(const std::string& what, const std::string& figure, const std::string& limit,
                      double ratio, const std::string& reach) {
  const char* const file = std::getenv("VS_BENCH_TABLE");
  if (file == nullptr || *file == '\0') return;
  char number[32];
  std::snprintf(number, sizeof number, "%.2f", ratio);
  const std::string line =
      what + '\t' + figure + '\t' + limit + '\t' + number + '\t' + reach + '\n';
  const int fd = open(file, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
  if (fd < 0 || write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
    std::fprintf(stderr, "can't write %s\n", file);
  if (fd >= 0) close(fd);
}
