// The files, configuration and input/output of the fake platform.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

// Files in memory, by path. Folders exist by themselves. Any thread.
class FakeFiles {
 public:
  // --- For tests.
  void put(const std::string& path, const std::string& content);
  void remove(const std::string& path);
  bool exists(const std::string& path) const;
  std::string content(const std::string& path) const;  // empty when there is none
  std::vector<std::string> paths() const;              // sorted
  int openCount() const;                               // descriptors not closed yet

  // --- Switches.
  void shortReads(long bytes) { longestRead_ = bytes; }    // at most so many at once; -1: no limit
  void shortWrites(long bytes) { longestWrite_ = bytes; }  // likewise
  void spaceLeft(long bytes) { spaceLeft_ = bytes; }       // -1: no limit
  void readOnly(bool on = true) { readOnly_ = on; }        // no file can be opened for writing

  // --- For the platform functions; they set errno.
  int open(const char* path, int flags);
  long read(int fd, void* buffer, std::size_t size);
  long write(int fd, const void* data, std::size_t size);
  int lseek(int fd, long offset, int whence);
  int close(int fd);

 private:
  struct File {
    std::string bytes;
  };
  struct Open {
    std::shared_ptr<File> file;
    std::size_t place = 0;
    int flags = 0;
  };

  mutable std::mutex lock_;
  std::map<std::string, std::shared_ptr<File>> files_;
  std::map<int, Open> open_;
  int nextFd_ = 100;
  long longestRead_ = -1;
  long longestWrite_ = -1;
  long spaceLeft_ = -1;
  bool readOnly_ = false;
};

// Ini files by path, sections and keys without regard to case. Any thread.
class FakeIni {
 public:
  // Replaces the whole file; `text` in the usual form, '#' and ';' begin a comment line.
  void file(const std::string& path, const std::string& text);
  // The same with the content of a file of the host; aborts when it can't be read.
  void fileFromHost(const std::string& path, const std::string& hostPath);
  void set(const std::string& path, const std::string& section, const std::string& key,
           const std::string& value);
  void remove(const std::string& path);

  // Returns true iff the key is there and copies its value.
  bool find(const char* path, const char* section, const char* key, std::string* value) const;
  // As getIniSection() and getIniKey().
  int sectionUpTo(const char* path, int limit) const;
  int keyFrom(const char* path, const char* section, const char* prefix, int from) const;

 private:
  mutable std::mutex lock_;
  std::map<std::string, std::map<std::string, std::string>> files_;  // path: "section\nkey": value
};
