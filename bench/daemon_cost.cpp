// What the whole daemon costs with a picture file as its camera, against the least that any program
// must do for the same frames: read the file into memory and copy it once, at the same pace.
//
//   bench_daemon_cost BOARD PID PICTURE SECONDS
//
// Prints one line per figure. BOARD is the folder of a running board, PID its daemon.
#include <fcntl.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "bench/table.h"
#include "core/status_slots.h"
#include "platform/linux/root.h"
#include "platform/stream_buffer.h"

namespace {

double now() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// Processor time of a clock in seconds.
double processorTime(clockid_t clock) {
  timespec t{};
  clock_gettime(clock, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

struct Rate {
  double perFrame;  // processor seconds
  double framesPerSecond;
};

Rate measureDaemon(pid_t pid, double seconds) {
  clockid_t clock = 0;
  if (clock_getcpuclockid(pid, &clock) != 0) {
    std::fprintf(stderr, "no process %d\n", static_cast<int>(pid));
    std::exit(1);
  }
  const int firstFrame = sbGetUserdata(sbVideo(), kSlotFrameCount);
  const double firstCpu = processorTime(clock);
  const double start = now();
  usleep(static_cast<useconds_t>(seconds * 1e6));
  const int frames = sbGetUserdata(sbVideo(), kSlotFrameCount) - firstFrame;
  const double elapsed = now() - start;
  if (frames < 1) {
    std::fprintf(stderr, "the daemon captured no frame in %.1f s\n", elapsed);
    std::exit(1);
  }
  return {(processorTime(clock) - firstCpu) / frames, frames / elapsed};
}

// Reads the picture and copies it once, a frame each `period` seconds, for as many frames.
Rate measureLimit(const char* picture, double period, int frames) {
  const int fd = open(picture, O_RDONLY | O_CLOEXEC);
  std::vector<char> read(256 * 1024), copy(256 * 1024);
  const double firstCpu = processorTime(CLOCK_PROCESS_CPUTIME_ID);
  const double start = now();
  for (int i = 0; i < frames; ++i) {
    lseek(fd, 0, SEEK_SET);
    const ssize_t n = ::read(fd, read.data(), read.size());
    if (n < 1) {
      std::fprintf(stderr, "can't read %s\n", picture);
      std::exit(1);
    }
    std::memcpy(copy.data(), read.data(), static_cast<std::size_t>(n));
    asm volatile("" : : "r"(copy.data()) : "memory");  // the copy must not be optimised away
    if (period > 0) usleep(static_cast<useconds_t>(period * 1e6));
  }
  const double cpu = processorTime(CLOCK_PROCESS_CPUTIME_ID) - firstCpu;
  close(fd);
  return {cpu / frames, frames / (now() - start)};
}

// Resident memory of a process without what it shares as stream buffers, in KiB.
long residentBesidesBuffers(pid_t pid) {
  std::ifstream maps("/proc/" + std::to_string(pid) + "/smaps");
  long total = 0;
  bool counted = false;
  for (std::string line; std::getline(maps, line);) {
    long kib = 0;
    if (std::sscanf(line.c_str(), "Rss: %ld kB", &kib) == 1) {
      if (counted) total += kib;
    } else if (line.find('-') != std::string::npos && line.find(':') != std::string::npos &&
               line.find(" kB") == std::string::npos && line.compare(0, 7, "VmFlags") != 0) {
      counted = line.find("/camera/") == std::string::npos;
    }
  }
  return total;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::fprintf(stderr, "usage: bench_daemon_cost BOARD PID PICTURE SECONDS\n");
    return 2;
  }
  setPlatformRoot(argv[1]);
  const pid_t pid = std::atoi(argv[2]);
  const double seconds = std::atof(argv[4]);
  const Rate daemon = measureDaemon(pid, seconds);
  const Rate paced = measureLimit(argv[3], 1 / daemon.framesPerSecond,
                                  static_cast<int>(seconds * daemon.framesPerSecond));
  const Rate flatOut = measureLimit(argv[3], 0, 2000);
  std::printf("%-58s %8.1f us at %.1f frames/s\n", "daemon, processor time per frame",
              daemon.perFrame * 1e6, daemon.framesPerSecond);
  std::printf("%-58s %8.1f us\n", "read and copy once, same pace", paced.perFrame * 1e6);
  std::printf("%-58s %8.1f us\n", "read and copy once, flat out", flatOut.perFrame * 1e6);
  std::printf("%-58s %8.2f (reach: at most 2)\n", "daemon against read and copy, same pace",
              daemon.perFrame / paced.perFrame);
  const long resident = residentBesidesBuffers(pid);
  std::printf("%-58s %8ld KiB (reach: at most 4096)\n", "resident memory besides the buffers",
              resident);
  tableLine("file source of 100 kB, processor time a picture",
            tableValue(daemon.perFrame * 1e6, "us"),
            "read and copy once at the same pace, " + tableValue(paced.perFrame * 1e6, "us"),
            daemon.perFrame / paced.perFrame, "at most 2");
  tableLine("file source, resident memory besides the buffers",
            tableValue(static_cast<double>(resident), "KiB"), "4096 KiB",
            static_cast<double>(resident) / 4096, "at most 1");
  return 0;
}
