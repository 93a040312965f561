// The settings of one ini file in memory.
#pragma once

#include <strings.h>

#include <map>
#include <set>
#include <string>

// Orders texts without regard to case; looks up plain C texts without copying them.
struct CaseLess {
  using is_transparent = void;
  bool operator()(const std::string& a, const std::string& b) const {
    return strcasecmp(a.c_str(), b.c_str()) < 0;
  }
  bool operator()(const std::string& a, const char* b) const {
    return strcasecmp(a.c_str(), b) < 0;
  }
  bool operator()(const char* a, const std::string& b) const {
    return strcasecmp(a, b.c_str()) < 0;
  }
};

// Sections and their values. A section or key that stands in the file several times is one: the
// last value counts.
class IniContent {
 public:
  // Reads `text`, the content of `file`. What can't be used is left out: lines that are too long,
  // not text, or neither section nor setting, and everything under a section whose name can't be
  // read. Logs 2 "%s: line %d is ignored: %s" for the first of them.
  void parse(const char* file, const std::string& text);

  // Returns the value, null if there is none.
  const std::string* find(const char* section, const char* key) const;
  // As getIniSection() and getIniKey().
  int sectionUpTo(int limit) const;
  int keyFrom(const char* section, const char* prefix, int from) const;

  void add(const std::string& section, const std::string& key, const char* value);

 private:
  struct Section {
    std::map<std::string, std::string, CaseLess> values;
    std::map<std::string, std::set<int>, CaseLess> numbered;  // "start": the n of all "Start<n>"
  };
  std::map<std::string, Section, CaseLess> sections_;
  std::set<int> numbers_;  // of the sections named by one
};
