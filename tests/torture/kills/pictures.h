// Pictures for the file source: each is known again by its bytes.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

// Made once, read by any thread.
class Pictures {
 public:
  // Makes /home/picture0.jpg and so on of /home/test.jpg: the same picture with texts of unlike
  // lengths in it, up to 200 kB.
  Pictures();
  // The same without making them: reads what is there.
  static Pictures there();

  int count() const { return static_cast<int>(all_.size()); }
  static std::string name(int picture);

  // True iff this is one of the pictures.
  bool whole(const void* data, std::size_t size) const;
  // True iff it begins with one of them, all of it.
  bool beginWhole(const std::string& data) const;
  // True iff one of them begins with it, nothing included.
  bool begins(const std::string& data) const { return common(data) == data.size(); }
  // How many bytes one of them has in common with the beginning of `data`, at the most.
  std::size_t common(const std::string& data) const;

 private:
  explicit Pictures(std::vector<std::string> all) : all_(std::move(all)) {}

  std::vector<std::string> all_;
};
