#include "platform/linux/mail_text.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string_view>
#include <vector>

namespace {

constexpr std::string_view kReplacement = "\xef\xbf\xbd";  // U+FFFD
constexpr std::size_t kLineLength = 76;
constexpr char kHexDigits[] = "0123456789ABCDEF";

unsigned char byteOf(char c) { return static_cast<unsigned char>(c); }

bool continues(char c) { return (byteOf(c) & 0xc0) == 0x80; }

// How many bytes a character has that begins with `first`; 0: none does.
std::size_t lengthOf(char first) {
  const unsigned char byte = byteOf(first);
  if (byte < 0x80) return 1;
  if (byte >= 0xc2 && byte < 0xe0) return 2;
  if (byte >= 0xe0 && byte < 0xf0) return 3;
  return byte >= 0xf0 && byte < 0xf5 ? 4 : 0;
}

// Whether the second byte makes an encoding too long, a surrogate or a code beyond the last one.
bool secondIsWrong(char first, char second) {
  const unsigned char byte = byteOf(second);
  switch (byteOf(first)) {
    case 0xe0:
      return byte < 0xa0;
    case 0xed:
      return byte >= 0xa0;
    case 0xf0:
      return byte < 0x90;
    case 0xf4:
      return byte >= 0x90;
    default:
      return false;
  }
}

// Returns the bytes that the character at `place` has in a valid text.
std::size_t characterAt(const std::string& text, std::size_t place) {
  return std::min(std::max<std::size_t>(lengthOf(text[place]), 1), text.size() - place);
}

// Control characters, those of 8 bit and the separators of lines and paragraphs included: readers
// may begin a new line at any of them.
bool isControl(std::string_view character) {
  const unsigned char first = byteOf(character[0]);
  if (first < ' ' || first == 0x7f) return true;
  if (first == 0xc2) return byteOf(character[1]) < 0xa0;
  return character == "\xe2\x80\xa8" || character == "\xe2\x80\xa9";
}

// Returns `text` with `instead` in the place of each control character.
std::string withoutControls(const std::string& text, char instead) {
  std::string clean;
  for (std::size_t place = 0; place < text.size();) {
    const std::size_t length = characterAt(text, place);
    const std::string_view character = std::string_view(text).substr(place, length);
    if (isControl(character))
      clean += instead;
    else
      clean += character;
    place += length;
  }
  return clean;
}

bool isAscii(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return byteOf(c) < 0x80; });
}

std::string base64(std::string_view bytes) {
  constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (std::size_t place = 0; place < bytes.size(); place += 3) {
    const std::size_t count = std::min<std::size_t>(bytes.size() - place, 3);
    std::uint32_t group = 0;
    for (std::size_t i = 0; i < 3; ++i)
      group = group << 8 | (i < count ? byteOf(bytes[place + i]) : 0u);
    for (std::size_t i = 0; i < 4; ++i)
      text += i <= count ? kDigits[group >> (18 - 6 * i) & 63] : '=';
  }
  return text;
}

// Calls `take(piece)` for pieces of whole characters whose lengths, as `measure` tells them, add up
// to `most` at the most.
template <typename Measure, typename Take>
void eachPiece(const std::string& text, std::size_t most, Measure measure, Take take) {
  std::size_t begin = 0;
  std::size_t sum = 0;
  for (std::size_t place = 0; place < text.size();) {
    const std::size_t length = characterAt(text, place);
    const std::size_t more = measure(std::string_view(text).substr(place, length));
    if (sum + more > most) {
      take(std::string_view(text).substr(begin, place - begin));
      begin = place;
      sum = 0;
    }
    sum += more;
    place += length;
  }
  if (begin < text.size()) take(std::string_view(text).substr(begin));
}

// What a parameter's value may hold when it is written in RFC 2231's way.
bool isAttribute(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         (c != '\0' && std::strchr("!#$&+-.^_`{|}~", c) != nullptr);
}

std::string percentEncoded(std::string_view text) {
  std::string encoded;
  for (const char c : text) {
    if (isAttribute(c)) {
      encoded += c;
    } else {
      encoded += {'%', kHexDigits[byteOf(c) >> 4], kHexDigits[byteOf(c) & 15]};
    }
  }
  return encoded;
}

// Writes lines in quoted-printable.
class QuotedPrintable {
 public:
  // A blank at a line's end would not survive.
  void add(char c, bool lastOfLine) {
    const bool blank = c == ' ' || c == '\t';
    if (blank ? !lastOfLine : (c > ' ' && c < 0x7f && c != '='))
      put({&c, 1});
    else
      put(std::string{'=', kHexDigits[byteOf(c) >> 4], kHexDigits[byteOf(c) & 15]});
  }
  void endLine() {
    text_ += "\r\n";
    column_ = 0;
  }
  const std::string& text() const { return text_; }

 private:
  void put(std::string_view piece) {
    if (column_ + piece.size() >= kLineLength) {  // one is for the mark of a line that goes on
      text_ += '=';
      endLine();
    }
    text_ += piece;
    column_ += piece.size();
  }

  std::string text_;
  std::size_t column_ = 0;
};

}  // namespace

std::string mailUtf8(const char* text) {
  std::string valid;
  const std::string_view given(text != nullptr ? text : "");
  for (std::size_t place = 0; place < given.size();) {
    const std::size_t whole = lengthOf(given[place]);
    std::size_t length = 1;
    while (length < whole && place + length < given.size() && continues(given[place + length]) &&
           (length > 1 || !secondIsWrong(given[place], given[place + 1])))
      ++length;
    if (length == whole)
      valid += given.substr(place, length);
    else if (whole == 0 || place + length < given.size())
      valid += kReplacement;
    place += length;
  }
  return valid;
}

std::string mailSubject(const std::string& text) {
  constexpr std::size_t kPlain = kLineLength - 9;  // "Subject: "
  constexpr std::size_t kWord = 39;  // bytes that a word of the first line has room for in base64
  std::string clean = withoutControls(text, ' ');
  const bool trimmed = clean.empty() || (clean.front() != ' ' && clean.back() != ' ');
  if (isAscii(clean) && trimmed && clean.size() <= kPlain && clean.find("=?") == clean.npos)
    return clean;
  std::string words;
  eachPiece(
      clean, kWord, [](std::string_view character) { return character.size(); },
      [&](std::string_view piece) {
        if (!words.empty()) words += "\r\n ";
        words += "=?UTF-8?B?" + base64(piece) + "?=";
      });
  return words;
}

std::string mailDisposition(const char* path) {
  constexpr std::size_t kPlain = 40;
  constexpr std::size_t kPiece = 48;
  const std::string whole = mailUtf8(path);
  std::string name = withoutControls(whole.substr(whole.rfind('/') + 1), '_');
  if (name.empty()) name = "attachment";
  const std::string header = "Content-Disposition: attachment;";
  if (name.size() <= kPlain && std::all_of(name.begin(), name.end(), isAttribute))
    return header + " filename=\"" + name + "\"";

  const auto measure = [](std::string_view character) { return percentEncoded(character).size(); };
  std::vector<std::string> pieces;
  eachPiece(name, kPiece, measure,
            [&](std::string_view piece) { pieces.push_back(percentEncoded(piece)); });
  std::string parameters;
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    parameters += i == 0 ? "\r\n filename" : ";\r\n filename";
    if (pieces.size() > 1) parameters += "*" + std::to_string(i);
    parameters += i == 0 ? "*=UTF-8''" : "*=";
    parameters += pieces[i];
  }
  return header + parameters;
}

std::string mailQuotedPrintable(const std::string& text) {
  QuotedPrintable lines;
  bool open = true;  // a text without any line has one, too
  for (std::size_t place = 0; place < text.size(); ++place) {
    const char c = text[place];
    open = c != '\r' && c != '\n';
    if (c == '\r' && text[place + 1] == '\n') ++place;
    const char next = text[place + 1];  // the terminator behind the last
    if (open)
      lines.add(c, next == '\0' || next == '\r' || next == '\n');
    else
      lines.endLine();
  }
  if (open) lines.endLine();
  return lines.text();
}

std::string mailDate(std::int64_t seconds) {
  const auto point = static_cast<time_t>(seconds);
  tm fields{};
  localtime_r(&point, &fields);
  char date[64];
  // The daemon stays in the C locale, where names of days and months are English.
  strftime(date, sizeof date, "Date: %a, %d %b %Y %H:%M:%S %z", &fields);
  return date;
}
