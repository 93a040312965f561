#include "tools/camctl/event_tail.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/linux/root.h"

EventTail::EventTail(long from) : path_(rooted("/var/log/camera/events.log")) {
  struct stat about {};
  if (stat(path_.c_str(), &about) != 0) return;
  inode_ = about.st_ino;
  offset_ = from < 0 ? about.st_size : static_cast<off_t>(from);
}

std::vector<std::string> EventTail::newLines() {
  std::vector<std::string> lines;
  struct stat about {};
  if (stat(path_.c_str(), &about) != 0) return lines;
  if (about.st_ino != inode_) {
    // A full log was renamed and a new one begun: first what was still written into the old one.
    struct stat old {};
    const std::string former = path_ + ".1";
    if (inode_ != 0 && stat(former.c_str(), &old) == 0 && old.st_ino == inode_) {
      readOn(former, &lines);
    }
    inode_ = about.st_ino;
    offset_ = 0;
  }
  if (about.st_size < offset_) offset_ = 0;  // somebody emptied it
  readOn(path_, &lines);
  return lines;
}

// A line that is only half there is left for the next call.
void EventTail::readOn(const std::string& file, std::vector<std::string>* lines) {
  const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  std::string text;
  char block[4096];
  for (;;) {
    const ssize_t n = pread(fd, block, sizeof block, offset_ + static_cast<off_t>(text.size()));
    if (n <= 0) break;
    text.append(block, static_cast<std::size_t>(n));
  }
  close(fd);
  std::size_t begin = 0;
  for (std::size_t end; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1) {
    lines->push_back(text.substr(begin, end - begin));
  }
  offset_ += static_cast<off_t>(begin);
}
