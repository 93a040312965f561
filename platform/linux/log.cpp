#include "platform/log.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "platform/linux/process_name.h"
#include "platform/linux/root.h"
#include "platform/linux/unix_address.h"
#include "platform/timer.h"

namespace {

constexpr std::size_t kLineLength = 1000;
constexpr std::uint32_t kFoldMs = 1000;
// As many lines may take turns and are still seen to repeat: more than one pass of anything logs.
constexpr std::size_t kLines = 8;

// A line that was written of late.
struct Line {
  char text[kLineLength + 1] = "";
  int level = 0;                // 0: free
  std::uint32_t seenMs = 0;     // the line, or a repeat of it
  std::uint32_t seenAs = 0;     // counts all lines, as several may come within a millisecond
  std::uint32_t writtenMs = 0;  // the line, or how often it was repeated
  unsigned repeats = 0;         // since then
};

// Where lines go, and those that are being folded. All of it is initialised at compile time and
// has no destructor: static objects and threads left behind log to the very end.
struct Log {
  std::mutex mutex;  // guards the rest; nothing that can block is done under it
  bool open = false;
  int error = -1;  // descriptor for standard error; -1: lines don't go there
  int socket = -1;
  UnixAddress address{};
  Line lines[kLines];
  const Line* written = nullptr;  // last: the line, or its repeats
  std::uint32_t reportedMs = 0;   // when repeats were written last, of whatever line
  std::uint32_t seen = 0;         // lines ever
};
Log theLog;

// Returns a descriptor that leads where standard error does and never blocks. Descriptor 2 itself
// must stay as it is: other processes share its flags.
int openError() {
  struct stat error {};
  if (fstat(STDERR_FILENO, &error) != 0 || (!S_ISCHR(error.st_mode) && !S_ISFIFO(error.st_mode)))
    return STDERR_FILENO;
  const int own = open("/proc/self/fd/2", O_WRONLY | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  return own >= 0 ? own : STDERR_FILENO;
}

void openLog() {
  theLog.open = true;
  const char* const wish = getenv("VS_LOG");
  if (isatty(STDERR_FILENO) != 0 || (wish != nullptr && std::strcmp(wish, "stderr") == 0))
    theLog.error = openError();
  // libc's syslog() blocks while the system's logger does not keep up, and takes a lock meanwhile.
  theLog.socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (theLog.socket >= 0 && !theLog.address.set(rooted("/dev/log").c_str())) {
    close(theLog.socket);
    theLog.socket = -1;
  }
}

// Writes one line to where lines go. What can't be written at once is lost: the daemon never waits
// for its log.
void writeLine(int level, const char* text) {
  if (!theLog.open) openLog();
  static constexpr struct {
    int priority;
    const char* name;
  } kLevels[] = {{LOG_NOTICE, "notice"}, {LOG_WARNING, "warning"}, {LOG_ERR, "error"}};
  const auto& known = kLevels[std::clamp(level, 1, 3) - 1];
  char line[kLineLength + 100];
  const auto lengthOf = [](int printed) {
    return std::min(static_cast<std::size_t>(printed), sizeof line - 1);
  };
  if (theLog.socket >= 0) {
    // Without a time: the logger puts its own, and formatting one would read the time zone.
    const std::size_t length =
        lengthOf(std::snprintf(line, sizeof line, "<%d>%.40s[%d]: %s", LOG_DAEMON | known.priority,
                               processName(), static_cast<int>(getpid()), text));
    sendto(theLog.socket, line, length, MSG_DONTWAIT | MSG_NOSIGNAL, theLog.address.get(),
           theLog.address.size());
  }
  pollfd room{theLog.error, POLLOUT, 0};
  if (theLog.error < 0 || poll(&room, 1, 0) != 1) return;
  const std::size_t length = lengthOf(
      std::snprintf(line, sizeof line, "%.40s: %s: %s\n", processName(), known.name, text));
  if (write(theLog.error, line, length) < 0) return;
}

// Repeats of the line that was written last need no text.
void writeRepeats(Line& line, std::uint32_t now) {
  if (line.repeats == 0) return;
  char text[kLineLength + 40];
  const bool last = theLog.written == &line;
  std::snprintf(text, sizeof text, "repeated %u times%s%.*s", line.repeats, last ? "" : ": ",
                last ? 0 : static_cast<int>(kLineLength), line.text);
  writeLine(line.level, text);
  line.repeats = 0;
  line.writtenMs = theLog.reportedMs = now;
  theLog.written = &line;
}

// All lines share the one report a second, in turns, so that the log of a device on which
// everything fails grows no faster than that of one on which a single thing does.
void writeOneReport(std::uint32_t now) {
  if (now - theLog.reportedMs < kFoldMs) return;
  Line* due = nullptr;
  for (Line& line : theLog.lines) {
    if (line.repeats == 0 || now - line.writtenMs < kFoldMs) continue;
    if (due == nullptr || now - line.writtenMs > now - due->writtenMs) due = &line;
  }
  if (due != nullptr) writeRepeats(*due, now);
}

// Returns the line that `text` repeats, null if it is a new one.
Line* findLine(int level, const char* text, std::uint32_t now) {
  for (Line& line : theLog.lines)
    if (line.level == level && now - line.seenMs < kFoldMs && std::strcmp(line.text, text) == 0)
      return &line;
  return nullptr;
}

// Returns a free place, else that of the line that was not seen for longest.
Line& placeForLine() {
  Line* oldest = &theLog.lines[0];
  for (Line& line : theLog.lines) {
    if (line.level == 0) return line;
    if (theLog.seen - line.seenAs > theLog.seen - oldest->seenAs) oldest = &line;
  }
  return *oldest;
}

// Makes one line of what was formatted: cut between characters, without line feeds or anything else
// that a terminal or a log's reader would obey.
void tidy(char* line) {
  std::size_t length = std::strlen(line);
  if (length > kLineLength) {
    length = kLineLength;
    while (length > 0 && (line[length] & 0xC0) == 0x80) --length;
  }
  while (length > 0 && line[length - 1] == '\n') --length;
  line[length] = '\0';
  for (char* c = line; *c != '\0'; ++c)
    if (static_cast<unsigned char>(*c) < ' ' || *c == 0x7F) *c = '?';
}

void logLine(int level, const char* text) {
  const std::lock_guard<std::mutex> lock(theLog.mutex);
  const std::uint32_t now = monotonicMs();
  ++theLog.seen;
  Line* const repeated = findLine(level, text, now);
  if (repeated != nullptr) {
    repeated->seenMs = now;
    repeated->seenAs = theLog.seen;
    ++repeated->repeats;
    writeOneReport(now);
    return;
  }
  // A new line comes after the repeats that came before it.
  for (Line& line : theLog.lines) writeRepeats(line, now);
  Line& line = placeForLine();
  writeLine(level, text);
  std::strcpy(line.text, text);
  line.level = level;
  line.seenMs = line.writtenMs = now;
  line.seenAs = theLog.seen;
  theLog.written = &line;
}

}  // namespace

int logEx(int level, const char* format, ...) {
  const int before = errno;
  char line[kLineLength + 2];  // one more than fits, to see whether the cut splits a character
  va_list arguments;
  va_start(arguments, format);
  const int printed = std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  if (printed < 0) std::snprintf(line, sizeof line, "%s", format);
  tidy(line);
  logLine(level, line);
  errno = before;
  return -1;
}

void free_log() {
  const std::lock_guard<std::mutex> lock(theLog.mutex);
  for (Line& line : theLog.lines) {
    writeRepeats(line, monotonicMs());
    line.level = 0;
  }
  theLog.written = nullptr;
  if (theLog.socket >= 0) close(theLog.socket);
  theLog.socket = -1;
  theLog.address.clear();
  if (theLog.error > STDERR_FILENO) close(theLog.error);
  theLog.error = -1;
  theLog.open = false;
}
