// What the stream buffer costs, each figure as a ratio to the least that any program must do for
// the same bytes, both taken in turns in one run.
//
//   bench_stream_buffer [KILLS]
//
// Prints one line per figure with its limit. KILLS: how many readers are killed, 300 by default.
#include <linux/futex.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "bench/table.h"
#include "platform/bytes.h"
#include "platform/linux/root.h"
#include "platform/linux/stream_buffer_owner.h"
#include "platform/stream_buffer.h"

namespace {

constexpr std::size_t kFrameBytes = 100'000;
constexpr std::uint32_t kFrames = 16;
constexpr std::uint32_t kFrameSize = 256 << 10;
constexpr int kMostReaders = 63;      // of 64 places one is the writer's own
constexpr long kTickNs = 11'111'111;  // three things in turns, each 30 times a second

std::uint64_t nowNs() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<std::uint64_t>(t.tv_sec) * 1'000'000'000U +
         static_cast<std::uint64_t>(t.tv_nsec);
}

double percentile(std::vector<double> values, double share) {
  if (values.empty()) return 0;
  const auto index = static_cast<std::size_t>(static_cast<double>(values.size() - 1) * share);
  std::nth_element(values.begin(), values.begin() + static_cast<long>(index), values.end());
  return values[index];
}

double median(const std::vector<double>& values) { return percentile(values, 0.5); }

void* sharedMemory(std::size_t size) {
  return mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_POPULATE, -1,
              0);
}

// A child process that is killed at the end.
pid_t start(const std::function<void()>& body) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  body();
  _exit(0);
}

void killAll(const std::vector<pid_t>& pids) {
  for (const pid_t pid : pids) kill(pid, SIGKILL);
  for (const pid_t pid : pids) waitpid(pid, nullptr, 0);
}

bool publish(const char* source, std::size_t size, long wait) {
  TAutoFrame frame(sbVideo(), 0, nullptr, nullptr, wait);
  if (!frame) return false;
  std::memcpy(frame->payload, source, size);
  storeLe32(frame->length, static_cast<std::uint32_t>(size));
  return true;
}

// Frames per second without a reader, against copying into private memory of the same shape.
void flatOut() {
  std::vector<char> source(kFrameBytes, 'x');
  auto* ring =
      static_cast<char*>(mmap(nullptr, std::size_t{kFrames} * kFrameSize, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0));
  std::vector<double> ratios;
  std::vector<double> perFrame;
  constexpr int kBatch = 64;
  for (int round = 0; round < 400; ++round) {
    const std::uint64_t a = nowNs();
    for (std::uint32_t i = 0; i < kBatch; ++i) {
      std::memcpy(ring + i % kFrames * kFrameSize, source.data(), kFrameBytes);
      asm volatile("" ::: "memory");
    }
    const std::uint64_t b = nowNs();
    for (int i = 0; i < kBatch; ++i) publish(source.data(), kFrameBytes, 0);
    const std::uint64_t c = nowNs();
    ratios.push_back(static_cast<double>(b - a) / static_cast<double>(c - b));
    perFrame.push_back(static_cast<double>(c - b) / kBatch / 1000);
  }
  munmap(ring, std::size_t{kFrames} * kFrameSize);
  std::printf("%-58s %8.2f (reach: 0.85)   %.1f us a frame\n",
              "publish flat out, against copying the same bytes", median(ratios), median(perFrame));
  tableLine("stream buffer, publish flat out", tableValue(median(perFrame), "us a frame of 100 kB"),
            "memcpy of the same bytes, " + tableValue(median(perFrame) * median(ratios), "us"),
            median(ratios), "at least 0.85");
}

// Samples that the readers leave behind.
struct Samples {
  static constexpr std::uint32_t kMax = 20000;
  std::atomic<std::uint32_t> count;
  std::uint32_t ns[kMax];
  void add(std::uint64_t since) {
    const std::uint32_t i = count.fetch_add(1);
    if (i < kMax) ns[i] = static_cast<std::uint32_t>(nowNs() - since);
  }
  std::vector<double> all() const {
    return std::vector<double>(ns, ns + std::min<std::uint32_t>(count, kMax));
  }
};

struct Bare {
  std::atomic<std::uint32_t> word;
  std::uint64_t sent;
};

void futexReader(Bare& bare, Samples& samples) {
  for (std::uint32_t seen = 0;;) {
    syscall(SYS_futex, &bare.word, FUTEX_WAIT, seen, nullptr, nullptr, 0);
    if (bare.word.load() == seen) continue;
    samples.add(bare.sent);
    seen = bare.word.load();
  }
}

std::uint64_t sentAt(const char* payload) {
  std::uint64_t sent = 0;
  std::memcpy(&sent, payload, sizeof sent);
  return sent;
}

void bufferReader(Samples& samples) {
  std::int32_t number = 0;
  std::int32_t epoch = 0;
  for (;;) {
    const TAutoFrame frame(sbVideo(), 0, &number, &epoch, 1000);
    if (frame) samples.add(sentAt(frame.get()->payload));
  }
}

void socketReader(int fd, Samples& samples) {
  std::vector<char> frame(kFrameBytes);
  for (;;) {
    for (std::size_t got = 0; got < kFrameBytes;) {
      const ssize_t n = read(fd, frame.data() + got, kFrameBytes - got);
      if (n <= 0) _exit(0);
      got += static_cast<std::size_t>(n);
    }
    samples.add(sentAt(frame.data()));
  }
}

// A child of each kind for each reader, and the sockets that lead to them.
struct Readers {
  Readers(int count, Bare* bare, Samples* samples) {
    for (int i = 0; i < count; ++i) {
      pids.push_back(start([&] { futexReader(*bare, samples[0]); }));
      pids.push_back(start([&] { bufferReader(samples[1]); }));
      int pair[2];
      if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) std::abort();
      const int size = 1 << 20;
      setsockopt(pair[0], SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
      pids.push_back(start([&] { socketReader(pair[1], samples[2]); }));
      close(pair[1]);
      sockets.push_back(pair[0]);
    }
  }
  ~Readers() {
    killAll(pids);
    for (const int fd : sockets) close(fd);
  }

  std::vector<pid_t> pids;
  std::vector<int> sockets;
};

void reportLatency(int readers, const Samples* samples, double copyUs) {
  const double futex = median(samples[0].all()) / 1000;
  const double buffer = median(samples[1].all()) / 1000;
  const double socket = median(samples[2].all()) / 1000;
  const std::string who = std::to_string(readers) + (readers == 1 ? " reader" : " readers");
  const char* const limit = readers == 1 ? "1.5" : "none";
  const char* const socketLimit = readers == 1 ? "0.45" : "0.5";
  std::printf("%-58s %8.2f (reach: %s)    %.1f us, the copy %.1f us, futex %.1f us\n",
              ("ready to readable, " + who + ", p50, against a futex wake").c_str(), buffer / futex,
              limit, buffer, copyUs, futex);
  std::printf("%-58s %8.2f (reach: %s)   socket %.1f us\n",
              "  the same against a socket that carries the frame", buffer / socket, socketLimit,
              socket);
  const std::string what = "stream buffer, ready to readable, " + who + ", p50";
  tableLine(what, tableValue(buffer, "us"), "futex wake of as many " + tableValue(futex, "us"),
            buffer / futex, readers == 1 ? "at most 1.5" : "-");
  tableLine(what, tableValue(buffer, "us"),
            "Unix socket with the frame " + tableValue(socket, "us"), buffer / socket,
            std::string("at most ") + socketLimit);
}

// From "the picture is there" to "a reader has it", 30 times a second.
void latency(int readers, int pictures) {
  auto* samples = static_cast<Samples*>(sharedMemory(3 * sizeof(Samples)));
  auto* bare = static_cast<Bare*>(sharedMemory(sizeof(Bare)));
  const Readers children(readers, bare, samples);
  usleep(200'000);
  std::vector<char> source(kFrameBytes, 'x');
  std::vector<double> copies;
  timespec due{};
  clock_gettime(CLOCK_MONOTONIC, &due);
  for (int tick = 0; tick < 3 * pictures; ++tick) {
    due.tv_nsec += kTickNs;
    if (due.tv_nsec >= 1'000'000'000) {
      due.tv_nsec -= 1'000'000'000;
      ++due.tv_sec;
    }
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &due, nullptr);
    const std::uint64_t now = nowNs();
    std::memcpy(source.data(), &now, sizeof now);
    if (tick % 3 == 0) {
      bare->sent = now;
      bare->word.fetch_add(1);
      syscall(SYS_futex, &bare->word, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
    } else if (tick % 3 == 1) {
      TAutoFrame frame(sbVideo(), 0, nullptr, nullptr, 10);
      const std::uint64_t before = nowNs();
      std::memcpy(frame->payload, source.data(), kFrameBytes);
      copies.push_back(static_cast<double>(nowNs() - before));
      storeLe32(frame->length, kFrameBytes);
    } else {
      for (const int fd : children.sockets) {
        if (write(fd, source.data(), kFrameBytes) != ssize_t{kFrameBytes}) std::abort();
      }
    }
  }
  usleep(100'000);
  reportLatency(readers, samples, median(copies) / 1000);
}

double nsPerCall(const std::function<void(int)>& calls) {
  double best = 1e9;
  constexpr int kCalls = 200'000;
  for (int i = 0; i < 20; ++i) {
    const std::uint64_t before = nowNs();
    calls(kCalls);
    best = std::min(best, static_cast<double>(nowNs() - before) / kCalls);
  }
  return best;
}

void slots() {
  SB_HANDLE* video = sbVideo();
  int sum = 0;
  const double get = nsPerCall([&](int n) {
    for (int i = 0; i < n; ++i) sum += sbGetUserdata(video, 4);
  });
  const double set = nsPerCall([&](int n) {
    for (int i = 0; i < n; ++i) sbSetUserdata(video, 4, i);
  });
  sbTestUserdata(video, 4);
  const double test = nsPerCall([&](int n) {
    for (int i = 0; i < n; ++i) sum += sbTestUserdata(video, 4);
  });
  const double handle = nsPerCall([&](int n) {
    for (int i = 0; i < n; ++i) sum += sbVideo() != nullptr;
  });
  asm volatile("" ::"r"(sum));
  std::printf("%-58s %.1f / %.1f / %.1f (reach: 1.1 / 8.4 / 1.4)\n", "slot get / set / test, ns",
              get, set, test);
  std::printf("%-58s %8.2f (one load)\n", "sbVideo(), ns", handle);
}

// Reserving while readers die: the longest reserve, and those that found no frame.
void kills(int count) {
  constexpr int kReaders = 8;
  std::uint32_t stalls = 0;
  std::uint32_t frames = 0;
  auto* readerSamples = static_cast<Samples*>(sharedMemory(sizeof(Samples)));
  std::vector<pid_t> readers(kReaders);
  for (pid_t& pid : readers) pid = start([&] { bufferReader(*readerSamples); });
  std::vector<char> source(kFrameBytes, 'x');
  std::uint64_t longest = 0;
  std::minstd_rand random(1);
  const auto delay = [&random] { return 2'000'000 + random() % 8'000'000; };
  std::uint64_t killAt = nowNs() + delay();
  for (int killed = 0; killed < count;) {
    const std::uint64_t before = nowNs();
    {
      TAutoFrame frame(sbVideo(), 0, nullptr, nullptr, 10);
      const std::uint64_t took = nowNs() - before;
      longest = std::max(longest, took);
      ++frames;
      if (!frame) {
        ++stalls;
        continue;
      }
      std::memcpy(frame->payload, source.data(), kFrameBytes);
      storeLe32(frame->length, kFrameBytes);
    }
    usleep(200);
    if (nowNs() < killAt) continue;
    pid_t& victim = readers[random() % kReaders];
    kill(victim, SIGKILL);
    waitpid(victim, nullptr, 0);
    victim = start([&] { bufferReader(*readerSamples); });
    killAt = nowNs() + delay();
    ++killed;
  }
  killAll(readers);
  tableLine("stream buffer, longest reserve while 8 readers are killed",
            tableValue(static_cast<double>(longest) / 1e6, "ms") + ", " + std::to_string(stalls) +
                " stalls in " + std::to_string(count) + " kills",
            "5 ms", static_cast<double>(longest) / 5e6, "at most 1");
  std::printf("%-58s %8.2f (reach: 5)      ms; %u stalls in %d kills, %u frames\n",
              "longest reserve while 8 readers are killed", static_cast<double>(longest) / 1e6,
              stalls, count, frames);
}

void heldFrames() {
  std::vector<pid_t> holders;
  auto* ready = static_cast<std::atomic<int>*>(sharedMemory(4096));
  std::vector<char> source(kFrameBytes, 'x');
  for (int i = 0; i < static_cast<int>(kFrames) - 1; ++i) {
    publish(source.data(), kFrameBytes, 10);
    holders.push_back(start([&] {
      std::int32_t number = 0;
      std::int32_t epoch = 0;
      // Each holds the newest frame: it joins before it and goes on to the last.
      const TAutoFrame* held = nullptr;
      for (;;) {
        auto* next = new TAutoFrame(sbVideo(), INT_MAX, &number, &epoch, 0);
        if (!*next) break;
        delete held;
        held = next;
      }
      ++*ready;
      raise(SIGSTOP);
      for (;;) pause();
    }));
    while (ready->load() != i + 1) usleep(200);
  }
  std::vector<double> took;
  int disturbed = 0;
  int none = 0;
  for (int i = 0; i < 20000; ++i) {
    rusage before{};
    rusage after{};
    getrusage(RUSAGE_THREAD, &before);
    const std::uint64_t start = nowNs();
    TAutoFrame frame(sbVideo(), 0, nullptr, nullptr, 0);
    const std::uint64_t end = nowNs();
    getrusage(RUSAGE_THREAD, &after);
    if (frame) {
      storeLe32(frame->length, 100);
    } else {
      ++none;
    }
    if (after.ru_nivcsw != before.ru_nivcsw) {
      ++disturbed;  // another process had the processor meanwhile
    } else {
      took.push_back(static_cast<double>(end - start) / 1000);
    }
  }
  killAll(holders);
  std::printf(
      "%-58s %8.1f (reach: 35)     us; p50 %.2f, p99.9 %.2f us; %d of 20000 found none, "
      "%d were preempted\n",
      "longest reserve with 15 of 16 frames held", percentile(took, 1), percentile(took, 0.5),
      percentile(took, 0.999), none, disturbed);
}

}  // namespace

int main(int argc, char** argv) {
  char folder[] = "/dev/shm/vs_bench_XXXXXX";
  if (mkdtemp(folder) == nullptr) return 1;
  std::filesystem::create_directories(std::string(folder) + "/dev/shm");
  setPlatformRoot(folder);
  sb::BufferSizes sizes;
  sizes.video = {kFrames, kFrameSize};
  if (!sb::ownSegments(sizes)) return 1;
  setvbuf(stdout, nullptr, _IOLBF, 0);
  flatOut();
  latency(1, 240);
  latency(4, 60);
  latency(16, 120);
  latency(kMostReaders, 60);
  slots();
  kills(argc > 1 ? std::atoi(argv[1]) : 300);
  heldFrames();
  std::filesystem::remove_all(folder);
  return 0;
}
