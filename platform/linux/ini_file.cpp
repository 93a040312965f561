#include "platform/ini_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>
#include <mutex>

#include "platform/linux/ini_content.h"
#include "platform/linux/ini_value.h"
#include "platform/linux/root.h"
#include "platform/log.h"
#include "platform/os.h"
#include "platform/timer.h"

namespace {

constexpr std::size_t kFiles = 8;              // kept at once: twice as many as there are
constexpr std::size_t kLongestFile = 1 << 20;  // nobody writes a megabyte of settings
constexpr std::size_t kNumberSize = 256;       // longer than any line, so that none is cut
// Files are stamped by a clock that moves in steps of up to 10 ms: a file that was read so soon
// after its stamp may have changed since without another stamp.
constexpr std::int64_t kStampNs = 20 * 1000000;
// An error that comes once, for want of memory or descriptors for instance, must not make a camera
// forget its settings: each call on a file has so many tries. What fails longer is tried again
// later.
constexpr int kTries = 3;
constexpr std::uint32_t kRetryMs = 1000;

// What tells one content of a file from another.
struct Identity {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  timespec changed{};

  bool operator==(const Identity& other) const {
    return device == other.device && inode == other.inode && size == other.size &&
           changed.tv_sec == other.changed.tv_sec && changed.tv_nsec == other.changed.tv_nsec;
  }
};

Identity identityOf(const struct stat& status) {
  return {status.st_dev, status.st_ino, status.st_size, status.st_ctim};
}

bool justChanged(const Identity& identity) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME_COARSE, &now);
  const std::int64_t seconds = std::int64_t{now.tv_sec} - identity.changed.tv_sec;
  if (seconds < -1 || seconds > 1) return false;
  return std::abs(seconds * 1000000000 + now.tv_nsec - identity.changed.tv_nsec) < kStampNs;
}

// Reads the whole regular file. Returns false on any failure, and when there was less of it than
// its size: who writes it is not done.
bool readFile(const char* path, Identity* identity, std::string* text) {
  const int fd = os::open(path, O_RDONLY | O_NONBLOCK);
  if (fd < 0) return false;
  struct stat status {};
  bool good = fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
  *identity = identityOf(status);
  std::array<char, 4096> block;
  long length = 0;
  while (good && (length = os::read(fd, block.data(), block.size())) > 0) {
    text->append(block.data(), static_cast<std::size_t>(length));
    good = text->size() <= kLongestFile;
  }
  os::close(fd);
  return good && length == 0 && text->size() >= static_cast<std::size_t>(status.st_size);
}

// The files read last. Guarded by its mutex.
class Cache {
 public:
  std::mutex mutex;

  // Returns the content of `file` as it is now, null if there is none.
  const IniContent* get(const char* file) {
    char path[PATH_MAX];
    struct stat status {};
    if (!rooted(file, path, sizeof path)) return nullptr;
    if (!look(path, &status)) {
      if (errno != ENOENT && errno != ENOTDIR) logEx(2, "can't read %s", file);
      return nullptr;
    }
    Entry& entry = entryOf(file);
    entry.used = ++uses_;
    if (isOld(entry, status)) read(file, path, status, entry);
    return entry.content.get();
  }

 private:
  struct Entry {
    std::string file;
    Identity identity;
    bool settled = false;  // the content is what `identity` stands for
    bool failed = false;   // it could not be read, last at `triedMs`
    std::uint32_t triedMs = 0;
    std::unique_ptr<IniContent> content;
    std::uint64_t used = 0;
  };

  Entry& entryOf(const char* file) {
    for (Entry& entry : entries_)
      if (entry.file == file) return entry;
    Entry& oldest =
        *std::min_element(entries_.begin(), entries_.end(),
                          [](const Entry& a, const Entry& b) { return a.used < b.used; });
    oldest = Entry();
    oldest.file = file;
    return oldest;
  }

  static bool look(const char* path, struct stat* status) {
    for (int tries = 0; tries < kTries; ++tries) {
      if (stat(path, status) == 0) return true;
      if (errno == ENOENT || errno == ENOTDIR) return false;
    }
    return false;
  }

  static bool isOld(const Entry& entry, const struct stat& status) {
    if (!entry.settled || !(entry.identity == identityOf(status))) return true;
    return entry.failed && monotonicMs() - entry.triedMs >= kRetryMs;
  }

  static void read(const char* file, const char* path, const struct stat& status, Entry& entry) {
    std::string text;
    Identity identity;
    entry.content.reset();
    entry.failed = true;
    for (int tries = 0; entry.failed && tries < kTries; ++tries) {
      text.clear();
      entry.failed = !readFile(path, &identity, &text);
    }
    if (!entry.failed) {
      entry.content = std::make_unique<IniContent>();
      entry.content->parse(file, text);
    } else {
      identity = identityOf(status);
      entry.triedMs = monotonicMs();
      logEx(2, "can't read %s", file);
    }
    entry.identity = identity;
    entry.settled = !justChanged(identity);
  }

  std::array<Entry, kFiles> entries_;
  std::uint64_t uses_ = 0;
};

Cache& cache() {
  static Cache& theCache = *new Cache;  // never freed: threads left behind may still read
  return theCache;
}

bool notANumber(const char* file, const char* section, const char* key, const char* text) {
  logEx(2, "%s: [%s] %s is not a number: %s", file, section, key, text);
  return false;
}

// Reads the text of a number. Returns false, and logs, iff it is none.
bool toInteger(const char* file, const char* section, const char* key, const char* text,
               int* value) {
  const char* digits = text + (*text == '-' || *text == '+' ? 1 : 0);
  const bool hex = digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X');
  char* end = nullptr;
  const long long number = std::strtoll(text, &end, hex ? 16 : 10);  // saturates
  // Its own idea of blanks and signs in front is not wanted, nor is "0x" alone.
  if (*digits < '0' || *digits > '9' || *end != '\0') return notANumber(file, section, key, text);
  *value = static_cast<int>(std::clamp<long long>(number, INT_MIN, INT_MAX));
  return true;
}

bool toFraction(const char* file, const char* section, const char* key, const char* text,
                double* value) {
  // Neither hexadecimal nor "inf" nor "nan".
  if (*text == '\0' || text[std::strspn(text, "+-.0123456789eE")] != '\0')
    return notANumber(file, section, key, text);
  char* end = nullptr;
  const double number = std::strtod(text, &end);
  if (*end != '\0') return notANumber(file, section, key, text);
  constexpr double kLimit = std::numeric_limits<double>::max();
  *value = std::clamp(number, -kLimit, kLimit);
  return true;
}

}  // namespace

bool iniText(const char* file, const char* section, const char* key, char* buffer,
             std::size_t size) {
  std::lock_guard<std::mutex> guard(cache().mutex);
  const IniContent* const content = cache().get(file);
  const std::string* const value = content == nullptr ? nullptr : content->find(section, key);
  if (value == nullptr || size == 0) return false;
  buffer[value->copy(buffer, size - 1)] = '\0';
  return true;
}

int iniInteger(const char* file, const char* section, const char* key, int* value) {
  char text[kNumberSize];
  return iniText(file, section, key, text, sizeof text) &&
                 toInteger(file, section, key, text, value)
             ? 0
             : -1;
}

int getIniInt(const char* file, const char* section, const char* key, int fallback) {
  int value = fallback;
  iniInteger(file, section, key, &value);
  return value;
}

double getInidouble(const char* file, const char* section, const char* key, double fallback) {
  char text[kNumberSize];
  double value = fallback;
  if (iniText(file, section, key, text, sizeof text)) toFraction(file, section, key, text, &value);
  return value;
}

int getIniStr(const char* file, const char* section, const char* key, char* buffer, int size,
              const char* fallback) {
  if (size <= 0) return 0;
  if (!iniText(file, section, key, buffer, static_cast<std::size_t>(size)))
    std::snprintf(buffer, static_cast<std::size_t>(size), "%s", fallback);
  return static_cast<int>(std::strlen(buffer));
}

int getIniSection(const char* file, int limit) {
  std::lock_guard<std::mutex> guard(cache().mutex);
  const IniContent* const content = cache().get(file);
  return content == nullptr ? 0 : content->sectionUpTo(limit);
}

int getIniKey(const char* file, const char* section, const char* prefix, int from) {
  std::lock_guard<std::mutex> guard(cache().mutex);
  const IniContent* const content = cache().get(file);
  return content == nullptr ? 0 : content->keyFrom(section, prefix, from);
}
