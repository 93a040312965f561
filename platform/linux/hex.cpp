// Bytes as hexadecimal digits and back.
#include "platform/media.h"

namespace {

constexpr char kDigits[] = "0123456789abcdef";

// Returns the value of a digit, -1 if it is none.
int digitValue(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  return -1;
}

}  // namespace

long bin2hex(const char* data, long length, char* text, long capacity) {
  if (capacity < 1) return 0;
  char* end = text;
  for (long i = 0; i < length && end - text < capacity - 2; ++i) {
    const auto byte = static_cast<unsigned char>(data[i]);
    *end++ = kDigits[byte >> 4];
    *end++ = kDigits[byte & 15];
  }
  *end = '\0';
  return end - text;
}

long hex2bin(const char* text, char* data, long capacity) {
  long bytes = 0;
  for (; bytes < capacity; ++bytes, text += 2) {
    const int high = digitValue(text[0]);
    const int low = high < 0 ? -1 : digitValue(text[1]);
    if (low < 0) break;
    data[bytes] = static_cast<char>(high << 4 | low);
  }
  return bytes;
}
