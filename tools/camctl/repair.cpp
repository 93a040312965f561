// camctl repair: recordings that were cut off become whole again.
#include <fts.h>
#include <sys/stat.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/linux/avi_repair.h"
#include "tools/camctl/commands.h"
#include "tools/camctl/stop_flag.h"

namespace {

constexpr char kExtension[] = ".avi";

// A name as it may be printed: it comes from a share, and could be anything.
std::string shown(const std::string& name) {
  std::string text = name;
  for (char& c : text)
    if (static_cast<unsigned char>(c) < ' ' || c == '\x7f') c = '?';
  return text;
}

bool isRecording(const FTSENT& entry) {
  const std::size_t length = entry.fts_namelen;
  constexpr std::size_t kLength = sizeof kExtension - 1;
  return length > kLength && std::strcmp(entry.fts_name + length - kLength, kExtension) == 0;
}

int byName(const FTSENT** one, const FTSENT** other) {
  return std::strcmp((*one)->fts_name, (*other)->fts_name);
}

// Counts what could not be done.
class Repairs {
 public:
  void file(const std::string& name) {
    const AviRepair repair = repairAvi(name.c_str());
    const std::string text = shown(name);
    if (repair.result < 0 && repair.error == EAGAIN) {
      std::printf("%s: is being written, left alone\n", text.c_str());
    } else if (repair.result < 0) {
      fail(name, repair.reason, repair.error);
    } else if (repair.pictures == 0) {
      std::printf("%s: is empty, left alone\n", text.c_str());
    } else {
      std::printf("%s: %s, %llu picture%s", text.c_str(), repair.result > 0 ? "repaired" : "whole",
                  static_cast<unsigned long long>(repair.pictures),
                  repair.pictures == 1 ? "" : "s");
      if (repair.cut > 0)
        std::printf(", %llu bytes of an incomplete one taken off",
                    static_cast<unsigned long long>(repair.cut));
      std::printf("\n");
    }
    std::fflush(stdout);  // in one order with what goes to standard error
  }

  // Does not follow links: what is not below the folder is not meant.
  void folder(const std::string& name) {
    std::string path = name;
    char* const paths[] = {path.data(), nullptr};
    FTS* const walk = fts_open(paths, FTS_PHYSICAL | FTS_NOCHDIR, byName);
    if (walk == nullptr) return fail(name, "can't be read", errno);
    errno = 0;
    while (const FTSENT* const entry = endAsked() ? nullptr : fts_read(walk)) {
      if (entry->fts_info == FTS_DNR || entry->fts_info == FTS_ERR || entry->fts_info == FTS_NS)
        fail(entry->fts_path, "can't be read", entry->fts_errno);
      if (entry->fts_info == FTS_F && isRecording(*entry)) file(entry->fts_path);
      errno = 0;
    }
    if (errno != 0) fail(name, "can't be read", errno);
    fts_close(walk);
  }

  void fail(const std::string& name, const char* reason, int error) {
    failed_ = true;
    std::fprintf(stderr, "camctl: %s: %s%s%s\n", shown(name).c_str(), reason,
                 error != 0 ? ": " : "", error != 0 ? std::strerror(error) : "");
  }
  bool failed() const { return failed_; }

 private:
  bool failed_ = false;
};

}  // namespace

int runRepair(const std::string& path) {
  endInOrder();
  Repairs repairs;
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) {
    repairs.fail(path, "can't be opened", errno);
  } else if (S_ISDIR(status.st_mode)) {
    repairs.folder(path);
  } else {
    repairs.file(path);
  }
  return repairs.failed() || endAsked() ? kExitFailed : kExitOk;
}
