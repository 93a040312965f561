// The recording files of the fake platform: a share in memory.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "platform/avi.h"

// One AVI or raw file.
struct FakeRecording {
  std::string types;  // of its chunks: "IiPP"
  std::string data;   // of its chunks, as far as it is kept
  std::string header;
  std::int64_t size = 0;
  std::int32_t rate = 0;       // that it was closed with
  std::int32_t firstRate = 0;  // that it was opened with
  bool open = false;           // written to just now
};

// Files and the folders that hold them, by path. In the list of calls: aviCreate()
// aviOpen(/smb/camera/20240603/120000.avi)  aviClose(/smb/...avi,15000)  aviRelease() rawOpen(...)
// rawClose(...)  mkdir2(...). Failures by the names of the functions. Any thread.
class FakeRecordings {
 public:
  // --- For tests.
  // Bytes that fit onto the share; -1: no limit.
  void capacity(std::int64_t bytes) { capacity_ = bytes; }
  void keepData(bool on) { keepData_ = on; }  // for long runs: none of it
  // Every byte written counts as so many.
  void scale(std::int64_t times) { scale_ = times; }
  void put(const std::string& path, std::int64_t size);
  void removeTree(const std::string& path);
  bool exists(const std::string& path) const;
  FakeRecording at(const std::string& path) const;  // an empty one when there is none
  std::vector<std::string> paths() const;           // of the files, sorted
  std::int64_t used() const;
  int openCount() const;
  int handles() const { return handles_; }  // created and not released

  // --- For the platform functions; they set errno.
  int create(AVI_HANDLE* handle);
  int release(AVI_HANDLE* handle);
  int open(AVI_HANDLE* handle, const char* name);
  int write(AVI_HANDLE* handle, const char* data, long length);
  int close(AVI_HANDLE* handle);
  int remove(const char* path);  // a file
  int makeFolder(const char* path);
  bool isFolder(const std::string& path) const;
  int oldest(const std::string& folder, std::string* path) const;

 private:
  std::string freeName(const std::string& name) const;
  std::int64_t usedLocked() const;

  mutable std::mutex lock_;
  std::map<std::string, FakeRecording> files_;
  std::set<std::string> folders_;
  std::int64_t capacity_ = -1;
  bool keepData_ = true;
  std::int64_t scale_ = 1;
  int handles_ = 0;
};
