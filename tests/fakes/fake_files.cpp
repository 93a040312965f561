#include "tests/fakes/fake_files.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <sstream>

void FakeFiles::put(const std::string& path, const std::string& content) {
  std::lock_guard<std::mutex> guard(lock_);
  // In place, as a program would that writes over it: who has it open sees the change.
  auto& file = files_[path];
  if (!file) file = std::make_shared<File>();
  file->bytes = content;
}

void FakeFiles::remove(const std::string& path) {
  std::lock_guard<std::mutex> guard(lock_);
  files_.erase(path);
}

bool FakeFiles::exists(const std::string& path) const {
  std::lock_guard<std::mutex> guard(lock_);
  return files_.count(path) != 0;
}

std::string FakeFiles::content(const std::string& path) const {
  std::lock_guard<std::mutex> guard(lock_);
  const auto found = files_.find(path);
  return found == files_.end() ? "" : found->second->bytes;
}

std::vector<std::string> FakeFiles::paths() const {
  std::lock_guard<std::mutex> guard(lock_);
  std::vector<std::string> result;
  for (const auto& file : files_) result.push_back(file.first);
  return result;
}

int FakeFiles::openCount() const {
  std::lock_guard<std::mutex> guard(lock_);
  return static_cast<int>(open_.size());
}

int FakeFiles::open(const char* path, int flags) {
  std::lock_guard<std::mutex> guard(lock_);
  const bool writing = (flags & O_ACCMODE) != O_RDONLY;
  const auto fail = [](int error) {
    errno = error;
    return -1;
  };
  if (writing && readOnly_) return fail(EROFS);
  const auto found = files_.find(path);
  if (found == files_.end() && (flags & O_CREAT) == 0) return fail(ENOENT);
  if (found != files_.end() && (flags & O_CREAT) != 0 && (flags & O_EXCL) != 0) return fail(EEXIST);
  if (found == files_.end() && spaceLeft_ == 0) return fail(ENOSPC);
  std::shared_ptr<File>& file = files_[path];
  if (!file) file = std::make_shared<File>();
  if ((flags & O_TRUNC) != 0) file->bytes.clear();
  open_[nextFd_] = Open{file, 0, flags};
  return nextFd_++;
}

long FakeFiles::read(int fd, void* buffer, std::size_t size) {
  std::lock_guard<std::mutex> guard(lock_);
  const auto found = open_.find(fd);
  if (found == open_.end()) {
    errno = EBADF;
    return -1;
  }
  Open& open = found->second;
  const std::string& bytes = open.file->bytes;
  if (open.place >= bytes.size()) return 0;
  std::size_t length = std::min(size, bytes.size() - open.place);
  if (longestRead_ >= 0) length = std::min(length, static_cast<std::size_t>(longestRead_));
  std::memcpy(buffer, bytes.data() + open.place, length);
  open.place += length;
  return static_cast<long>(length);
}

long FakeFiles::write(int fd, const void* data, std::size_t size) {
  std::lock_guard<std::mutex> guard(lock_);
  const auto found = open_.find(fd);
  if (found == open_.end() || (found->second.flags & O_ACCMODE) == O_RDONLY) {
    errno = EBADF;
    return -1;
  }
  Open& open = found->second;
  std::size_t length = size;
  if (longestWrite_ >= 0) length = std::min(length, static_cast<std::size_t>(longestWrite_));
  if (spaceLeft_ >= 0) {
    length = std::min(length, static_cast<std::size_t>(spaceLeft_));
    if (length == 0 && size != 0) {
      errno = ENOSPC;
      return -1;
    }
    spaceLeft_ -= static_cast<long>(length);
  }
  std::string& bytes = open.file->bytes;
  if ((open.flags & O_APPEND) != 0) open.place = bytes.size();
  if (bytes.size() < open.place + length) bytes.resize(open.place + length);
  std::memcpy(&bytes[open.place], data, length);
  open.place += length;
  return static_cast<long>(length);
}

int FakeFiles::lseek(int fd, long offset, int whence) {
  std::lock_guard<std::mutex> guard(lock_);
  const auto found = open_.find(fd);
  if (found == open_.end()) {
    errno = EBADF;
    return -1;
  }
  Open& open = found->second;
  const long base = whence == SEEK_CUR   ? static_cast<long>(open.place)
                    : whence == SEEK_END ? static_cast<long>(open.file->bytes.size())
                                         : 0;
  if (base + offset < 0) {
    errno = EINVAL;
    return -1;
  }
  open.place = static_cast<std::size_t>(base + offset);
  return 0;
}

int FakeFiles::close(int fd) {
  std::lock_guard<std::mutex> guard(lock_);
  if (open_.erase(fd) != 0) return 0;
  errno = EBADF;
  return -1;
}

namespace {

std::string lower(std::string text) {
  for (char& c : text)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return text;
}

std::string trimmed(const std::string& text) {
  const char* const kBlank = " \t\r";
  const auto first = text.find_first_not_of(kBlank);
  return first == text.npos ? "" : text.substr(first, text.find_last_not_of(kBlank) - first + 1);
}

std::string iniKey(const std::string& section, const std::string& key) {
  return lower(section) + "\n" + lower(key);
}

// Returns the number that `text` is without sign or leading zeros, 0 if it is none.
int plainNumber(const std::string& text) {
  const long number = std::strtol(text.c_str(), nullptr, 10);
  return number > 0 && number <= std::numeric_limits<int>::max() && std::to_string(number) == text
             ? static_cast<int>(number)
             : 0;
}

}  // namespace

void FakeIni::file(const std::string& path, const std::string& text) {
  std::lock_guard<std::mutex> guard(lock_);
  auto& values = files_[path];
  values.clear();
  std::istringstream lines(text);
  std::string line, section;
  while (std::getline(lines, line)) {
    line = trimmed(line);
    if (line.empty() || line[0] == '#' || line[0] == ';') continue;
    const auto equals = line.find('=');
    if (line[0] == '[' && line.back() == ']')
      section = trimmed(line.substr(1, line.size() - 2));
    else if (equals != line.npos)
      values[iniKey(section, trimmed(line.substr(0, equals)))] = trimmed(line.substr(equals + 1));
  }
}

void FakeIni::fileFromHost(const std::string& path, const std::string& hostPath) {
  std::ifstream in(hostPath);
  if (!in) {
    std::fprintf(stderr, "can't read %s\n", hostPath.c_str());
    std::abort();
  }
  std::stringstream text;
  text << in.rdbuf();
  file(path, text.str());
}

void FakeIni::set(const std::string& path, const std::string& section, const std::string& key,
                  const std::string& value) {
  std::lock_guard<std::mutex> guard(lock_);
  files_[path][iniKey(section, key)] = value;
}

void FakeIni::remove(const std::string& path) {
  std::lock_guard<std::mutex> guard(lock_);
  files_.erase(path);
}

bool FakeIni::find(const char* path, const char* section, const char* key,
                   std::string* value) const {
  std::lock_guard<std::mutex> guard(lock_);
  const auto file = files_.find(path);
  if (file == files_.end()) return false;
  const auto found = file->second.find(iniKey(section, key));
  if (found == file->second.end()) return false;
  *value = found->second;
  return true;
}

int FakeIni::sectionUpTo(const char* path, int limit) const {
  std::lock_guard<std::mutex> guard(lock_);
  const auto file = files_.find(path);
  int highest = 0;
  if (file == files_.end()) return 0;
  for (const auto& value : file->second) {
    const int number = plainNumber(value.first.substr(0, value.first.find('\n')));
    if (number <= limit) highest = std::max(highest, number);
  }
  return highest;
}

int FakeIni::keyFrom(const char* path, const char* section, const char* prefix, int from) const {
  std::lock_guard<std::mutex> guard(lock_);
  const auto file = files_.find(path);
  int lowest = 0;
  if (file == files_.end()) return 0;
  const std::string beginning = iniKey(section, prefix);
  for (const auto& value : file->second) {
    if (value.first.compare(0, beginning.size(), beginning) != 0) continue;
    const int number = plainNumber(value.first.substr(beginning.size()));
    if (number > 0 && number >= from && (lowest == 0 || number < lowest)) lowest = number;
  }
  return lowest;
}
