#include "platform/linux/avi_repair.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "platform/linux/avi_survey.h"
#include "platform/linux/fd.h"
#include "platform/linux/file_io.h"
#include "platform/linux/new_file.h"

namespace {

AviRepair refused(const char* reason, int error = 0) {
  AviRepair repair;
  repair.reason = reason;
  repair.error = error;
  return repair;
}

// Repairs the file as far as it has been looked at: `survey` has found it not to be sound.
bool mend(int fd, AviSurvey* survey) {
  if (!survey->run(AviSurvey::kMend)) return false;
  AviHead& head = survey->head();
  // The end first: what is behind it from here on is the index.
  if (!resizeFile(fd, survey->end())) return false;
  AviOldIndex index(fd, head);
  if (!survey->hasNextRiff() && index.possible()) {
    if (index.write(survey->end())) {
      survey->addOldIndex(index.bytes());
    } else {
      const ErrnoKeeper keeper;
      if (!resizeFile(fd, survey->end())) return false;
      if (errno != ENOSPC && errno != EDQUOT && errno != EFBIG) return false;
    }
  } else if (survey->oldIndexAt() > 0 && index.possible()) {
    if (!index.write(survey->oldIndexAt())) return false;
  }
  char page[kAviHeadBytes];
  head.encode(page);
  return writeAt(fd, page, sizeof page, 0);
}

// Returns true iff the index behind the first RIFF and the head are as they are to be.
bool isSound(int fd, std::int64_t size, AviSurvey* survey) {
  if (!survey->isSound()) return false;
  AviHead& head = survey->head();
  AviOldIndex index(fd, head);
  if (index.possible() && survey->oldIndexAt() > 0) {
    if (!index.stands(survey->oldIndexAt())) return false;
    if (!survey->hasNextRiff()) survey->addOldIndex(index.bytes());
  } else if (index.possible() && !survey->hasNextRiff()) {
    return false;
  }
  if (survey->end() != size) return false;
  char page[kAviHeadBytes];
  char there[kAviHeadBytes];
  head.encode(page);
  return readAt(fd, there, sizeof there, 0) == sizeof there &&
         std::memcmp(page, there, sizeof page) == 0;
}

AviRepair repairOpen(int fd, std::int64_t size) {
  char page[kAviHeadBytes];
  const long got = readAt(fd, page, sizeof page, 0);
  if (got < 0) return refused("can't be read", errno);
  AviHead head;
  if (got < static_cast<long>(sizeof page)) return refused("too short for a recording");
  if (!head.decode(page)) return refused("no recording of this camera");

  const std::unique_ptr<AviSurvey> survey(new (std::nothrow) AviSurvey(fd, size, head));
  if (survey == nullptr) return refused("no memory", ENOMEM);
  errno = 0;
  if (!survey->run(AviSurvey::kLook)) return refused(survey->reason(), errno);
  AviRepair repair;
  repair.pictures = survey->pictures();
  if (repair.pictures == 0) return refused("without a whole picture");
  if (isSound(fd, size, survey.get())) {
    repair.result = 0;
    return repair;
  }
  repair.cut = static_cast<std::uint64_t>(survey->tail());
  if (!mend(fd, survey.get())) return refused("can't be written", errno);
  repair.result = 1;
  return repair;
}

}  // namespace

AviRepair repairAvi(const char* path) {
  const Fd file(os::open(path, O_RDWR | O_NOFOLLOW | O_NONBLOCK));
  struct stat status {};
  if (!file.valid() || fstat(file.get(), &status) != 0) return refused("can't be opened", errno);
  if (!S_ISREG(status.st_mode)) return refused("no file");
  if (!lockForWriting(file.get())) {
    if (errno == EAGAIN) return refused("is being written", EAGAIN);
    return refused("can't be locked", errno);
  }
  // Looked at again: the writer may have closed it just now.
  if (fstat(file.get(), &status) != 0) return refused("can't be read", errno);
  if (status.st_size == 0) {
    AviRepair nothing;
    nothing.result = 0;
    return nothing;
  }
  return repairOpen(file.get(), status.st_size);
}
