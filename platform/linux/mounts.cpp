#include "platform/linux/mounts.h"

#include <fcntl.h>

#include <climits>
#include <cstring>

#include "platform/os.h"

namespace {

// The fields of a line that count here: "36 35 98:0 /root /mount/point options... - type source".
constexpr int kMountPointField = 4;
constexpr std::size_t kLineSize = PATH_MAX + 1024;

// Returns the next field of a line, null behind the last.
char* nextField(char** line) {
  char* field = nullptr;
  do field = strsep(line, " ");
  while (field != nullptr && *field == '\0');
  return field;
}

// Turns "\040" and its like back into the characters that they stand for, in place.
void unescape(char* text) {
  const auto octal = [](char c) { return c >= '0' && c <= '7'; };
  char* out = text;
  for (const char* in = text; *in != '\0'; ++out) {
    if (in[0] == '\\' && octal(in[1]) && octal(in[2]) && octal(in[3])) {
      *out = static_cast<char>((in[1] - '0') * 64 + (in[2] - '0') * 8 + (in[3] - '0'));
      in += 4;
    } else {
      *out = *in++;
    }
  }
  *out = '\0';
}

// Returns true iff the line, which is changed, says that something is mounted at `mountPoint`.
bool names(char* line, const char* mountPoint) {
  char* point = nullptr;
  for (int i = 0; i <= kMountPointField; ++i) {
    point = nextField(&line);
    if (point == nullptr) return false;
  }
  unescape(point);
  if (std::strcmp(point, mountPoint) != 0) return false;
  for (const char* field = nextField(&line); field != nullptr; field = nextField(&line)) {
    if (std::strcmp(field, "-") != 0) continue;
    // An automounter's entry stands there before anything is mounted.
    const char* const type = nextField(&line);
    return type != nullptr && std::strcmp(type, "autofs") != 0;
  }
  return false;
}

}  // namespace

int mountState(const char* mountinfo, const char* mountPoint) {
  const int fd = os::open(mountinfo, O_RDONLY);
  if (fd < 0) return -1;
  char block[1024];
  char line[kLineSize];
  std::size_t used = 0;
  long length = 0;
  bool found = false;
  while (!found && (length = os::read(fd, block, sizeof block)) > 0) {
    for (long i = 0; i < length && !found; ++i) {
      if (block[i] != '\n') {
        // What is too long loses its end, the options of the file system.
        if (used < sizeof line - 1) line[used++] = block[i];
        continue;
      }
      line[used] = '\0';
      used = 0;
      found = names(line, mountPoint);
    }
  }
  os::close(fd);
  if (found) return 1;
  return length < 0 ? -1 : 0;
}
