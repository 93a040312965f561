#include "platform/linux/ini_content.h"

#include <ini.h>

#include <algorithm>
#include <charconv>
#include <cstring>

#include "platform/log.h"

namespace {

const char* const kBlank = " \t\r";
// The parser cuts longer section names without a word.
constexpr std::size_t kLongestSection = 49;
// What the parser wants to be left in its line, for "\r\n" and the terminator.
constexpr std::size_t kLineEnd = 3;

std::string trimmed(const std::string& text) {
  const auto first = text.find_first_not_of(kBlank);
  if (first == text.npos) return "";
  return text.substr(first, text.find_last_not_of(kBlank) - first + 1);
}

// Returns the number that `text` is, without sign or leading zeros; 0 if it is none or too large.
int plainNumber(const char* text, const char* end) {
  int number = 0;
  if (text == end || *text < '1' || *text > '9') return 0;
  const auto result = std::from_chars(text, end, number);
  return result.ec == std::errc() && result.ptr == end ? number : 0;
}

bool isText(const std::string& line) {
  return std::none_of(line.begin(), line.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return (byte < ' ' && c != '\t' && c != '\r') || byte == 0x7f;
  });
}

// Hands a text to the parser line by line, without the lines that the parser would take for
// something else than they are.
class Lines {
 public:
  Lines(const std::string& text, IniContent& content) : text_(text), content_(content) {
    constexpr const char* kByteOrderMark = "\xef\xbb\xbf";
    if (text_.compare(0, 3, kByteOrderMark) == 0) place_ = 3;
  }

  void parse() {
    const int line = ini_parse_stream(&Lines::next, this, &Lines::setting, this);
    if (line > 0) ignore(line, "neither section nor setting");
  }

  int ignoredLine() const { return ignoredLine_; }  // 0: none
  const char* reason() const { return reason_; }

 private:
  // Gives the parser the next line: an empty one in the place of each that it is not to see.
  static char* next(char* buffer, int size, void* self) {
    return static_cast<Lines*>(self)->next(buffer, static_cast<std::size_t>(size));
  }

  char* next(char* buffer, std::size_t size) {
    if (place_ >= text_.size()) return nullptr;
    const auto end = std::min(text_.find('\n', place_), text_.size());
    // Without blanks in front, which the parser would take for the last value's continuation.
    const std::string line = trimmed(text_.substr(place_, end - place_));
    place_ = end + 1;
    ++line_;
    const bool used = usable(line, size - kLineEnd);
    std::memcpy(buffer, line.c_str(), used ? line.size() + 1 : 0);
    if (!used) *buffer = '\0';
    return buffer;
  }

  bool usable(const std::string& line, std::size_t longest) {
    if (line.empty() || line[0] == '#' || line[0] == ';') return false;
    const char* problem = nullptr;
    if (!isText(line))
      problem = "not text";
    else if (line.size() > longest)
      problem = "too long";
    if (line[0] == '[') {
      const auto end = line.find(']');
      if (problem == nullptr && (end == line.npos || end - 1 > kLongestSection))
        problem = "no section name";
      // What follows a header that can't be read belongs to no section, least of all to the one
      // before it.
      sectionKnown_ = problem == nullptr;
    }
    if (problem != nullptr) ignore(line_, problem);
    return problem == nullptr;
  }

  void ignore(int line, const char* reason) {
    if (ignoredLine_ != 0 && ignoredLine_ <= line) return;
    ignoredLine_ = line;
    reason_ = reason;
  }

  static int setting(void* self, const char* section, const char* key, const char* value) {
    auto& lines = *static_cast<Lines*>(self);
    if (lines.sectionKnown_) lines.content_.add(trimmed(section), key, value);
    return 1;
  }

  const std::string& text_;
  IniContent& content_;
  std::size_t place_ = 0;
  int line_ = 0;
  bool sectionKnown_ = true;
  int ignoredLine_ = 0;
  const char* reason_ = "";
};

}  // namespace

void IniContent::parse(const char* file, const std::string& text) {
  Lines lines(text, *this);
  lines.parse();
  if (lines.ignoredLine() > 0)
    logEx(2, "%s: line %d is ignored: %s", file, lines.ignoredLine(), lines.reason());
}

void IniContent::add(const std::string& section, const std::string& key, const char* value) {
  Section& found = sections_[section];
  found.values[key] = value;
  if (const int number = plainNumber(section.data(), section.data() + section.size()))
    numbers_.insert(number);
  const auto digits = key.find_last_not_of("0123456789") + 1;
  if (const int number = plainNumber(key.data() + digits, key.data() + key.size()))
    found.numbered[key.substr(0, digits)].insert(number);
}

const std::string* IniContent::find(const char* section, const char* key) const {
  const auto found = sections_.find(section);
  if (found == sections_.end()) return nullptr;
  const auto value = found->second.values.find(key);
  return value == found->second.values.end() ? nullptr : &value->second;
}

int IniContent::sectionUpTo(int limit) const {
  const auto above = numbers_.upper_bound(limit);
  return above == numbers_.begin() ? 0 : *std::prev(above);
}

int IniContent::keyFrom(const char* section, const char* prefix, int from) const {
  const auto found = sections_.find(section);
  if (found == sections_.end()) return 0;
  const auto numbers = found->second.numbered.find(prefix);
  if (numbers == found->second.numbered.end()) return 0;
  const auto number = numbers->second.lower_bound(from);
  return number == numbers->second.end() ? 0 : *number;
}
