#include "board/hardware/control.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <sstream>
#include <utility>
#include <vector>

#include "board/hardware/faults.h"
#include "board/hardware/node_server.h"
#include "board/hardware/trace.h"
#include "board/hardware/world.h"

namespace {

constexpr std::size_t kLongestLine = 8192;
constexpr int kLineSeconds = 2;  // that a caller may take for its line
constexpr int kLargestError = 133;
constexpr char kUsage[] = "usage";

std::optional<int> numberOf(const std::string& word) {
  char* end = nullptr;
  errno = 0;
  const long number = std::strtol(word.c_str(), &end, 10);
  const bool fits = errno == 0 && static_cast<int>(number) == number;
  if (word.empty() || *end != '\0' || !fits) return std::nullopt;
  return static_cast<int>(number);
}

// "EIO" or a number, positive.
std::optional<int> errorOf(const std::string& word) {
  for (int error = 1; error <= kLargestError; ++error)
    if (errorName(error) == word) return error;
  const std::optional<int> number = numberOf(word);
  return number && *number > 0 && *number <= kLargestError ? number : std::nullopt;
}

// The word at `at` as a count of times; for good when there is none.
std::optional<int> timesOf(const std::vector<std::string>& words, std::size_t at) {
  if (words.size() == at) return Faults::kForGood;
  const std::optional<int> number = numberOf(words[at]);
  return words.size() == at + 1 && number && *number > 0 ? number : std::nullopt;
}

std::optional<Node> nodeOf(const std::string& word) {
  if (word == "encoder") return Node::kEncoder;
  if (word == "sensor") return Node::kSensor;
  return std::nullopt;
}

bool isRequest(const std::string& word) {
  if (word == "*") return true;
  for (const Request& request : kRequests)
    if (word == request.name) return true;
  return false;
}

std::string receiveLine(int fd) {
  const timeval limit{kLineSeconds, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  std::string line;
  char byte = 0;
  while (line.size() < kLongestLine && recv(fd, &byte, 1, 0) == 1 && byte != '\n') line += byte;
  return line;
}

}  // namespace

Control::Control(Hardware hardware) : hardware_(std::move(hardware)) {}

Control::~Control() { stop(); }

bool Control::start(const std::string& path, std::string* error) {
  if (!listener_.open(path, error)) return false;
  thread_ = std::thread([this] { serveAll(); });
  return true;
}

void Control::stop() {
  listener_.stop();
  if (thread_.joinable()) thread_.join();
}

void Control::serveAll() {
  for (int fd = -1; (fd = listener_.accept()) >= 0;) {
    const std::string text = answer(receiveLine(fd));
    for (std::size_t at = 0; at < text.size();) {
      const ssize_t sent = send(fd, &text[at], text.size() - at, MSG_NOSIGNAL);
      if (sent <= 0) break;
      at += static_cast<std::size_t>(sent);
    }
    close(fd);
  }
}

std::string Control::answer(const std::string& line) {
  static const std::map<std::string, Command> kCommands = {
      {"motion", &Control::motion}, {"tv", &Control::tv},     {"fail", &Control::fail},
      {"reads", &Control::reads},   {"lie", &Control::lie},   {"hang", &Control::hang},
      {"go-on", &Control::goOn},    {"heal", &Control::heal}, {"trace", &Control::trace},
      {"status", &Control::status},
  };
  std::istringstream stream(line);
  std::string name;
  stream >> name;
  const auto found = kCommands.find(name);
  if (found == kCommands.end()) return std::string(kUsage) + '\n';
  Words words;
  if (name == "trace") {  // a path may have blanks
    words.push_back(line.size() > name.size() ? line.substr(name.size() + 1) : "");
  } else {
    for (std::string word; stream >> word;) words.push_back(word);
  }
  std::string error;
  const std::string shown = (this->*found->second)(words, &error);
  if (error.empty()) return "ok\n" + shown;
  return error == kUsage ? error + '\n' : "error\n" + error + '\n';
}

std::string Control::motion(const Words& words, std::string* error) {
  if (words.size() == 1 && words[0] == "off") {
    hardware_.world->setMoving(std::nullopt);
    return "";
  }
  std::vector<int> numbers;
  for (std::size_t at = 1; at < words.size(); ++at)
    if (const auto number = numberOf(words[at])) numbers.push_back(*number);
  if (words.size() != 5 || words[0] != "on" || numbers.size() != 4) {
    *error = kUsage;
    return "";
  }
  const Rectangle where{numbers[0], numbers[1], numbers[2], numbers[3]};
  const bool inside = where.x >= 0 && where.y >= 0 && where.width > 0 && where.height > 0 &&
                      where.x < kSceneWidth && where.y < kSceneHeight &&
                      where.width <= kSceneWidth - where.x &&
                      where.height <= kSceneHeight - where.y;
  if (inside) {
    hardware_.world->setMoving(where);
  } else {
    *error = "the scene is of " + std::to_string(kSceneWidth) + "x" + std::to_string(kSceneHeight) +
             " pixels";
  }
  return "";
}

std::string Control::tv(const Words& words, std::string* error) {
  if (words == Words{"pal"}) {
    hardware_.world->setStandard(TvStandard::kPal);
  } else if (words == Words{"ntsc"}) {
    hardware_.world->setStandard(TvStandard::kNtsc);
  } else {
    *error = kUsage;
  }
  return "";
}

std::string Control::fail(const Words& words, std::string* error) {
  const auto number = words.size() >= 2 ? errorOf(words[1]) : std::nullopt;
  const auto times = words.size() >= 2 ? timesOf(words, 2) : std::nullopt;
  if (words.size() < 2 || !times) {
    *error = kUsage;
  } else if (!number) {
    *error = words[1] + " is no error, such as EIO";
  } else if (words[0] == "read-encoder") {
    hardware_.faults->failRead(Node::kEncoder, *number, *times);
  } else if (words[0] == "read-sensor") {
    hardware_.faults->failRead(Node::kSensor, *number, *times);
  } else if (isRequest(words[0])) {
    hardware_.faults->failRequest(words[0], *number, *times);
  } else {
    *error = words[0] + " is no request";
  }
  return "";
}

// reads NODE KIND [VALUE] [TIMES]
std::string Control::reads(const Words& words, std::string* error) {
  struct Kind {
    ChunkFault fault;
    bool hasValue;
  };
  static const std::map<std::string, Kind> kKinds = {{"short", {ChunkFault::kShort, true}},
                                                     {"late", {ChunkFault::kLate, true}},
                                                     {"torn", {ChunkFault::kTorn, false}},
                                                     {"empty", {ChunkFault::kEmpty, false}},
                                                     {"headless", {ChunkFault::kHeadless, false}}};
  *error = kUsage;
  if (words.size() < 2) return "";
  const auto node = nodeOf(words[0]);
  const auto kind = kKinds.find(words[1]);
  if (!node || kind == kKinds.end()) return "";
  std::optional<int> value = 0;
  std::size_t next = 2;
  if (kind->second.hasValue) {
    value = next < words.size() ? numberOf(words[next]) : std::nullopt;
    ++next;
  }
  const auto times = next <= words.size() ? timesOf(words, next) : std::nullopt;
  if (!value || *value < 0 || !times) return "";
  hardware_.faults->spoilReads(*node, kind->second.fault, *value, *times);
  error->clear();
  return "";
}

std::string Control::lie(const Words& words, std::string* error) {
  const auto length = words.size() == 1 ? numberOf(words[0]) : std::nullopt;
  if (length) {
    hardware_.faults->lieAboutHeader(*length);
  } else {
    *error = kUsage;
  }
  return "";
}

std::string Control::hang(const Words& words, std::string* error) {
  const auto node = words.size() == 1 ? nodeOf(words[0]) : std::nullopt;
  if (node) {
    hardware_.faults->hang(*node);
  } else {
    *error = kUsage;
  }
  return "";
}

std::string Control::goOn(const Words& words, std::string* error) {
  if (words.empty()) {
    hardware_.faults->goOn();
  } else {
    *error = kUsage;
  }
  return "";
}

std::string Control::heal(const Words& words, std::string* error) {
  if (words.empty()) {
    hardware_.faults->heal();
  } else {
    *error = kUsage;
  }
  return "";
}

std::string Control::trace(const Words& words, std::string* error) {
  if (words[0] == "off") {
    hardware_.trace->close();
  } else if (words[0].empty() || words[0][0] != '/') {
    *error = kUsage;
  } else if (!hardware_.trace->open(words[0])) {
    *error = words[0] + ": " + std::strerror(errno);
  }
  return "";
}

std::string Control::status(const Words& words, std::string* error) {
  if (!words.empty()) {
    *error = kUsage;
    return "";
  }
  std::ostringstream text;
  text << "model " << hardware_.model << "\nscene " << hardware_.scene << "\nmotion ";
  if (const auto moving = hardware_.world->moving()) {
    text << moving->x << ' ' << moving->y << ' ' << moving->width << ' ' << moving->height << '\n';
  } else {
    text << "off\n";
  }
  text << "tv " << (hardware_.world->standard() == TvStandard::kPal ? "pal" : "ntsc") << '\n'
       << hardware_.nodes->describe() << hardware_.faults->describe();
  return text.str();
}
