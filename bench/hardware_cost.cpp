// What the daemon of a camera costs beyond what its drivers cost anybody: its processor time
// against that of `cat`, which reads the same kind of pictures from the same drivers on a board of
// its own during the same seconds. The hardware is a process of its own on both boards and counts
// on neither side.
//
//   bench_hardware_cost WHAT BOARD PID SECONDS NODE=PID... hardware=PID...
//
// WHAT names the case in the table; one that begins with a blank does work that cat does not do,
// and has no limit. BOARD is the folder of a running board, PID its daemon; each NODE, "encoder" or
// "sensor", has the cat that reads it; "hardware" is what delivers to either. Prints two lines.
#include <dirent.h>
#include <sched.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "bench/table.h"
#include "capture/chunk_trailer.h"
#include "core/status_slots.h"
#include "platform/bytes.h"
#include "platform/linux/root.h"
#include "platform/stream_buffer.h"

namespace {

constexpr char kCaptureThread[] = "KVX-video";
constexpr useconds_t kLookUs =
    20000;  // so often are new frames counted: no frame is lost until then
constexpr useconds_t kSettleUs = 1000000;
constexpr long kMode2 = 2;

[[noreturn]] void fail(const std::string& text) {
  std::fprintf(stderr, "bench_hardware_cost: %s\n", text.c_str());
  std::exit(1);
}

double now() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// Processor time of a whole process in seconds: user and system, all threads that it had and has.
double processorTime(pid_t pid) {
  clockid_t clock = 0;
  timespec t{};
  if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &t) != 0)
    fail("no process " + std::to_string(pid));
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// Calls back with the id and the name of each thread of a process.
template <typename Callback>
void eachThread(pid_t pid, Callback callback) {
  const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
  DIR* const folder = opendir(tasks.c_str());
  if (folder == nullptr) fail("no process " + std::to_string(pid));
  while (const dirent* const entry = readdir(folder)) {
    std::string name;
    if (std::getline(std::ifstream(tasks + '/' + entry->d_name + "/comm"), name))
      callback(entry->d_name, name);
  }
  closedir(folder);
}

// Processor time of its capture thread; 0 when the kernel does not tell.
double captureTime(pid_t pid) {
  double nanoseconds = 0;
  eachThread(pid, [&](const std::string& id, const std::string& name) {
    if (name != kCaptureThread) return;
    std::ifstream("/proc/" + std::to_string(pid) + "/task/" + id + "/schedstat") >> nanoseconds;
  });
  return nanoseconds * 1e-9;
}

// Puts a process on the processor on which this one began. What is compared shares one with its
// hardware, as on a camera: most of the time goes into waking up, and that costs several times as
// much from another processor, so that chance would decide.
void putTogether(pid_t pid) {
  static const int processor = sched_getcpu();
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(static_cast<std::size_t>(processor), &one);
  eachThread(pid, [&](const std::string& id, const std::string&) {
    sched_setaffinity(std::atoi(id.c_str()), sizeof one, &one);
  });
}

// Pictures of one node.
struct Pictures {
  double count = 0;
  double chunks = 0;  // each is what one read gave
  double bytes = 0;
};

struct Cat {
  pid_t pid = 0;
  bool isSensor = false;
  double firstTime = 0;
  double firstWrites = 0;
  double firstBytes = 0;
  double time = 0;
  Pictures read;
};

// What a cat has written so far, to a place that takes everything at once: each write is one read
// of the driver, whose replies the kernel does not count as reads.
void written(pid_t pid, double* writes, double* bytes) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/io");
  std::string key;
  bool found = false;
  for (double value = 0; file >> key >> value;) {
    if (key == "syscw:") *writes = value;
    if (key == "wchar:") *bytes = value;
    found = true;
  }
  if (!found) fail("can't read what process " + std::to_string(pid) + " has written");
}

// Counts the frames that the daemon makes.
class Stream {
 public:
  struct Count {
    double frames = 0;
    Pictures encoder;
    Pictures sensor;  // those in the stream
  };

  // Counts what is new.
  void look() {
    while (const TAutoFrame frame{sbVideo(), 0, &number_, &epoch_, 0}) add(*frame.get());
  }
  void reset() { count_ = Count(); }
  const Count& count() const { return count_; }

 private:
  void add(const SB_FRAME& frame) {
    const long room = sbGetFrameSize(sbVideo()) - static_cast<long>(kFrameHeadBytes);
    ++count_.frames;
    for (long at = room - kTrailerBytes; at > 0; at -= kTrailerBytes) {
      TChunkTrailer trailer{};
      std::memcpy(&trailer, frame.payload + at, sizeof trailer);
      Pictures& pictures = trailer.type == kTypeJpeg ? count_.sensor : count_.encoder;
      if (trailer.type == kTypeKey || trailer.type == kTypePredicted || trailer.type == kTypeJpeg)
        ++pictures.count;
      ++pictures.chunks;
      pictures.bytes += loadLe32(trailer.length);
      if (trailer.more != kTrailerMore) break;
    }
  }

  std::int32_t number_ = 0;
  std::int32_t epoch_ = 0;
  Count count_;
};

struct Daemon {
  double time = 0;
  double captureTime = 0;
  double seconds = 0;
  Pictures encoder;
  Pictures sensor;
};

Daemon measure(pid_t pid, double seconds, std::vector<Cat>* cats) {
  Stream stream;
  stream.look();
  stream.reset();
  for (Cat& cat : *cats) {
    cat.firstTime = processorTime(cat.pid);
    written(cat.pid, &cat.firstWrites, &cat.firstBytes);
  }
  const double firstCapture = captureTime(pid);
  const double firstTime = processorTime(pid);
  const double start = now();
  while (now() < start + seconds) {
    usleep(kLookUs);
    stream.look();
  }
  Daemon daemon;
  daemon.time = processorTime(pid) - firstTime;
  daemon.captureTime = captureTime(pid) - firstCapture;
  daemon.seconds = now() - start;
  daemon.encoder = stream.count().encoder;
  daemon.sensor = stream.count().sensor;
  for (Cat& cat : *cats) {
    cat.time = processorTime(cat.pid) - cat.firstTime;
    written(cat.pid, &cat.read.chunks, &cat.read.bytes);
    cat.read.chunks -= cat.firstWrites;
    cat.read.bytes -= cat.firstBytes;
    cat.read.count = cat.read.chunks;
    if (cat.read.chunks < 1) fail("a cat gets no pictures");
    if (!cat.isSensor) {
      // The same scene under the same settings comes in as many chunks a picture.
      if (daemon.encoder.chunks < 1) fail("the daemon gets no pictures of the encoder");
      cat.read.count *= daemon.encoder.count / daemon.encoder.chunks;
    } else if (kStatusMode.get(sbGetUserdata(sbVideo(), kSlotStatus)) == kMode2) {
      // One picture of the sensor is read for each frame; it does not appear in the stream.
      daemon.sensor.count = daemon.sensor.chunks = stream.count().frames;
      daemon.sensor.bytes = daemon.sensor.count * cat.read.bytes / cat.read.count;
    }
  }
  if (daemon.encoder.count + daemon.sensor.count < 1) fail("the daemon makes no frames");
  return daemon;
}

double rate(const Pictures& pictures, double seconds) { return pictures.count / seconds; }

void report(const char* what, const Daemon& daemon, const std::vector<Cat>& cats) {
  Pictures all = daemon.encoder;
  all.count += daemon.sensor.count;
  all.bytes += daemon.sensor.bytes;
  // What cat needs for the pictures that the daemon had.
  double samePictures = 0;
  double sameBytes = 0;
  for (const Cat& cat : cats) {
    const Pictures& had = cat.isSensor ? daemon.sensor : daemon.encoder;
    samePictures += had.count * cat.time / cat.read.count;
    sameBytes += had.bytes * cat.time / cat.read.bytes;
  }
  std::printf("%-58s %8.2f, per byte %.2f%s\n", what, daemon.time / samePictures,
              daemon.time / sameBytes, what[0] == ' ' ? "" : " (reach: at most 2)");
  std::string name = what;
  name.erase(0, name.find_first_not_of(' '));
  if (const std::size_t cat = name.find(" against cat"); cat != std::string::npos) name.resize(cat);
  tableLine(name + ", processor time a picture", tableValue(daemon.time / all.count * 1e6, "us"),
            "cat of the same pictures, " + tableValue(samePictures / all.count * 1e6, "us"),
            daemon.time / samePictures, what[0] == ' ' ? "-" : "at most 2");
  std::printf("  %.1f us at %.1f pictures/s of %.1f kB", daemon.time / all.count * 1e6,
              rate(all, daemon.seconds), all.bytes / all.count * 1e-3);
  if (daemon.captureTime > 0)
    std::printf(" (capture thread %.1f: %.2f)", daemon.captureTime / all.count * 1e6,
                daemon.captureTime / samePictures);
  for (const Cat& cat : cats)
    std::printf("; cat of the %s %.1f us at %.1f", cat.isSensor ? "sensor" : "encoder",
                cat.time / cat.read.count * 1e6, rate(cat.read, daemon.seconds));
  std::printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 6) {
    std::fprintf(stderr,
                 "usage: bench_hardware_cost WHAT BOARD PID SECONDS NODE=PID... hardware=PID...\n");
    return 2;
  }
  setPlatformRoot(argv[2]);
  const pid_t pid = std::atoi(argv[3]);
  putTogether(pid);
  std::vector<Cat> cats;
  for (int i = 5; i < argc; ++i) {
    const std::string word = argv[i];
    const std::size_t at = word.find('=');
    const std::string name = word.substr(0, at);
    if (at == std::string::npos || (name != "encoder" && name != "sensor" && name != "hardware"))
      fail("what is " + word);
    Cat cat;
    cat.isSensor = name == "sensor";
    cat.pid = std::atoi(&word[at + 1]);
    putTogether(cat.pid);
    if (name != "hardware") cats.push_back(cat);
  }
  usleep(kSettleUs);
  const Daemon daemon = measure(pid, std::atof(argv[4]), &cats);
  report(argv[1], daemon, cats);
  return 0;
}
