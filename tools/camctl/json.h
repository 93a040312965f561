// Text in JSON, written as it comes.
#pragma once

#include <cstdint>
#include <string>

// Collects one JSON value. Each value inside an object follows its key. Bound to one thread.
class Json {
 public:
  Json& beginObject() { return open('{'); }
  Json& endObject() { return close('}'); }
  Json& beginList() { return open('['); }
  Json& endList() { return close(']'); }
  Json& key(const char* name);
  Json& value(std::int64_t number);
  Json& value(bool truth);
  Json& value(const std::string& text);
  Json& value(const char* text) { return value(std::string(text)); }
  Json& value(int number) { return value(std::int64_t{number}); }
  Json& value(std::uint32_t number) { return value(std::int64_t{number}); }

  const std::string& text() const { return text_; }

 private:
  Json& open(char bracket);
  Json& close(char bracket);
  void separate();

  std::string text_;
};
