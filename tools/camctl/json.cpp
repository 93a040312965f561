#include "tools/camctl/json.h"

#include <cstdio>

namespace {

void appendQuoted(std::string* to, const std::string& text) {
  *to += '"';
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      *to += '\\';
      *to += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      char code[8];
      std::snprintf(code, sizeof code, "\\u%04x", static_cast<unsigned>(c));
      *to += code;
    } else {
      *to += c;
    }
  }
  *to += '"';
}

}  // namespace

// A comma stands before whatever follows another value.
void Json::separate() {
  if (text_.empty()) return;
  const char last = text_.back();
  if (last != '{' && last != '[' && last != ':') text_ += ',';
}

Json& Json::open(char bracket) {
  separate();
  text_ += bracket;
  return *this;
}

Json& Json::close(char bracket) {
  text_ += bracket;
  return *this;
}

Json& Json::key(const char* name) {
  separate();
  appendQuoted(&text_, name);
  text_ += ':';
  return *this;
}

Json& Json::value(std::int64_t number) {
  separate();
  text_ += std::to_string(number);
  return *this;
}

Json& Json::value(bool truth) {
  separate();
  text_ += truth ? "true" : "false";
  return *this;
}

Json& Json::value(const std::string& text) {
  separate();
  appendQuoted(&text_, text);
  return *this;
}
