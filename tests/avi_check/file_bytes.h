// Bytes of a file, by their offset.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

// Reads through a small window, so that a long file costs no memory. Bound to one thread.
class FileBytes {
 public:
  explicit FileBytes(const std::string& file);
  FileBytes(const FileBytes&) = delete;
  FileBytes& operator=(const FileBytes&) = delete;
  ~FileBytes();

  bool isOpen() const { return fd_ >= 0; }
  // As it was when the file was opened.
  std::uint64_t size() const { return size_; }

  // Returns true iff all of the `length` bytes at `offset` are in the file; otherwise `to` is
  // unchanged or has some of them.
  bool read(std::uint64_t offset, void* to, std::size_t length);

 private:
  static constexpr std::size_t kWindow = 4096;

  int fd_;
  std::uint64_t size_ = 0;
  std::array<char, kWindow> window_{};
  std::uint64_t windowAt_ = 0;
  std::size_t windowLength_ = 0;
};
