// Makes, steers and shows the table of places at which calls fail.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tests/torture/calls/fault_table.h"

namespace {

constexpr const char* kUsage =
    "fault_table FILE COMMAND\n"
    "  make                  a new table, in which nothing fails\n"
    "  on [MS] | off         one call fails every MS ms, 150 by default | none does\n"
    "  only HASH FAULT       from now on only this fault, and it again and again; \"only 0 EIO\": "
    "all\n"
    "  count                 faults injected so far\n"
    "  sum                   pairs tried, pairs known, places, calls, and faults injected\n"
    "  faults FROM PROGRAM   what was injected after the first FROM faults, with the places\n"
    "  places PROGRAM        all places, with what is untried of each\n";

constexpr std::array<const char*, static_cast<std::size_t>(Fault::kCount)> kFaultNames = {
    "EIO",        "ENOSPC",       "EMFILE",      "EINTR",      "ENOMEM", "EACCES", "EAGAIN",
    "ECONNRESET", "ECONNREFUSED", "EPIPE",       "ENOBUFS",    "EROFS",  "ENOLCK", "EADDRINUSE",
    "ETIMEDOUT",  "ECHILD",       "ENETUNREACH", "EOPNOTSUPP", "short",  "end"};

FaultTable* mapTable(const char* path, bool make) {
  const int fd = open(path, O_RDWR | O_CLOEXEC | (make ? O_CREAT | O_TRUNC : 0), 0666);
  if (fd < 0 || (make && ftruncate(fd, sizeof(FaultTable)) != 0)) return nullptr;
  void* const base = mmap(nullptr, sizeof(FaultTable), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (base == MAP_FAILED) return nullptr;
  auto* const table = static_cast<FaultTable*>(base);
  if (make) table->magic = kTableMagic;
  return table->magic == kTableMagic ? table : nullptr;
}

std::string namesOf(Faults faults) {
  std::string names;
  for (std::size_t i = 0; i < kFaultNames.size(); ++i) {
    if ((faults >> i & 1) != 0) names += (names.empty() ? "" : ",") + std::string(kFaultNames[i]);
  }
  return names;
}

// Names and lines of return addresses, asked for once per module.
class Symbols {
 public:
  Symbols(const FaultTable& table, std::string program)
      : table_(table), program_(std::move(program)) {}

  void want(const Place& place) {
    for (const Frame frame : place.frames) {
      if (frame != 0) wanted_[moduleOf(frame)].insert(frame);
    }
  }

  void find() {
    for (const auto& [module, frames] : wanted_) find(module, frames);
  }

  std::string of(const Place& place) const {
    std::string all;
    for (const Frame frame : place.frames) {
      const auto found = names_.find(frame);
      if (found != names_.end()) all += (all.empty() ? "" : " < ") + found->second;
    }
    return all;
  }

 private:
  static std::size_t moduleOf(Frame frame) {
    return static_cast<std::size_t>(frame >> kModuleShift);
  }

  // The call stands one byte before the address that it returns to.
  void find(std::size_t module, const std::set<Frame>& frames) {
    const std::string path = table_.modules[module].name;
    const std::string file = path == "program" ? program_ : path;
    std::string command = "addr2line -Cfsp -e '" + file + "'";
    for (const Frame frame : frames) {
      char address[24];
      std::snprintf(
          address, sizeof address, " %llx",
          static_cast<unsigned long long>((frame & ((Frame{1} << kModuleShift) - 1)) - 1));
      command += address;
    }
    std::FILE* const lines = popen(command.c_str(), "r");
    char line[4096];
    for (const Frame frame : frames) {
      if (lines == nullptr || std::fgets(line, sizeof line, lines) == nullptr) break;
      line[std::strcspn(line, "\n")] = '\0';
      names_[frame] = shortened(line);
      if (path != "program") names_[frame] = path.substr(path.rfind('/') + 1) + " " + names_[frame];
    }
    if (lines != nullptr) pclose(lines);
  }

  // "capture/camera.cpp:35 TCamera::TCamera" of "TCamera::TCamera(char const*) at camera.cpp:35
  // ...".
  static std::string shortened(const std::string& line) {
    const std::size_t at = line.rfind(" at ");
    if (at == std::string::npos) return line;
    const std::string function = line.substr(0, std::min(at, line.find('(')));
    return line.substr(at + 4, line.find(' ', at + 4) - at - 4) + " " + function;
  }

  const FaultTable& table_;
  std::string program_;
  std::map<std::size_t, std::set<Frame>> wanted_;
  std::map<Frame, std::string> names_;
};

void sum(const FaultTable& table) {
  unsigned tried = 0;
  unsigned known = 0;
  unsigned places = 0;
  std::set<std::string> calls;
  for (const Place& place : table.places) {
    if (place.hash == 0) continue;
    ++places;
    tried += static_cast<unsigned>(__builtin_popcount(place.tried));
    known += static_cast<unsigned>(__builtin_popcount(place.possible));
    if (place.tried != 0) calls.insert(place.call);
  }
  std::printf("%u %u %u %zu %u\n", tried, known, places, calls.size(), table.injected.load());
}

void showPlaces(const FaultTable& table, const char* program) {
  Symbols symbols(table, program);
  for (const Place& place : table.places) symbols.want(place);
  symbols.find();
  for (const Place& place : table.places) {
    if (place.hash == 0) continue;
    std::printf("%016llx %s seen %u passed %u tried %s untried %s: %s\n",
                static_cast<unsigned long long>(place.hash), place.call, place.seen.load(),
                place.passed.load(), namesOf(place.tried).c_str(),
                namesOf(place.possible & ~place.tried).c_str(), symbols.of(place).c_str());
  }
}

void showFaults(const FaultTable& table, std::uint32_t from, const char* program) {
  const std::uint32_t all = table.injected;
  if (all > kRing) from = std::max(from, all - static_cast<std::uint32_t>(kRing));
  Symbols symbols(table, program);
  for (std::uint32_t i = from; i < all; ++i)
    symbols.want(table.places[table.ring[i % kRing].place]);
  symbols.find();
  for (std::uint32_t i = from; i < all; ++i) {
    const Injected& entry = table.ring[i % kRing];
    const Place& place = table.places[entry.place];
    const auto ns = entry.atNs.load();
    const auto seconds = static_cast<time_t>(ns / 1000000000);
    char text[16];
    strftime(text, sizeof text, "%H:%M:%S", gmtime(&seconds));
    std::printf("%u %s.%03u %d %s: %s of %s, place %016llx: %s\n", i, text,
                static_cast<unsigned>(ns / 1000000 % 1000), entry.process, entry.thread,
                kFaultNames[entry.fault], place.call, static_cast<unsigned long long>(place.hash),
                symbols.of(place).c_str());
  }
}

bool onlyOne(FaultTable* table, const char* hash, const char* name) {
  for (std::size_t i = 0; i < kFaultNames.size(); ++i) {
    if (std::strcmp(name, kFaultNames[i]) != 0) continue;
    table->onlyFault = static_cast<std::uint32_t>(i);
    table->onlyHash = std::strtoull(hash, nullptr, 16);
    return true;
  }
  return false;
}

bool run(FaultTable* table, const std::vector<std::string>& words) {
  const std::string& command = words[0];
  const bool one = words.size() > 1;
  if (command == "on") {
    table->periodMs = one ? static_cast<std::uint32_t>(std::atoi(words[1].c_str())) : 150;
    table->enabled = 1;
  } else if (command == "off") {
    table->enabled = 0;
  } else if (command == "count") {
    std::printf("%u\n", table->injected.load());
  } else if (command == "sum") {
    sum(*table);
  } else if (command == "places" && one) {
    showPlaces(*table, words[1].c_str());
  } else if (command == "faults" && words.size() == 3) {
    showFaults(*table, static_cast<std::uint32_t>(std::atoi(words[1].c_str())), words[2].c_str());
  } else if (command == "only" && words.size() == 3) {
    return onlyOne(table, words[1].c_str(), words[2].c_str());
  } else {
    return command == "make";
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  const std::vector<std::string> words(argv + 2, argv + argc);
  FaultTable* const table = mapTable(argv[1], words[0] == "make");
  if (table == nullptr) {
    std::fprintf(stderr, "%s is no table of faults\n", argv[1]);
    return 1;
  }
  if (run(table, words)) return 0;
  std::fputs(kUsage, stderr);
  return 2;
}
