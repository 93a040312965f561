// What came of the lives of a camera: counts, and what went wrong.
#pragma once

#include <cstdio>
#include <map>
#include <string>
#include <vector>

// Bound to one thread.
class Report {
 public:
  void count(const std::string& what, long more = 1) { counts_[what] += more; }
  // Keeps the largest value.
  void most(const std::string& what, long value) {
    auto& kept = counts_[what];
    if (value > kept) kept = value;
  }
  // A promise that did not hold. Each kind is told in full a few times, and counted.
  void broken(const std::string& kind, const std::string& text) {
    constexpr std::size_t kTold = 5;
    count("broken");
    auto& told = broken_[kind];
    if (told.size() < kTold) told.push_back(text);
  }

  // Lines "NAME NUMBER" and "broken KIND: TEXT".
  void write(const std::string& path) const {
    std::FILE* const file = std::fopen(path.c_str(), "we");
    if (file == nullptr) return;
    for (const auto& [what, number] : counts_) std::fprintf(file, "%s %ld\n", what.c_str(), number);
    for (const auto& [kind, texts] : broken_)
      for (const std::string& text : texts)
        std::fprintf(file, "! %s: %s\n", kind.c_str(), text.c_str());
    std::fclose(file);
  }

 private:
  std::map<std::string, long> counts_;
  std::map<std::string, std::vector<std::string>> broken_;
};
